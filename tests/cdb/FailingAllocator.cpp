// The replacement operator new/delete of cdb_tests, so that any test of this program can
// inject an allocation failure with zeltest::FailNthAllocation.
#define ZEL_FAILING_ALLOCATOR_DEFINE
#include "FailingAllocator.h"
