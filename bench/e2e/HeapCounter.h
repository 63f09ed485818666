#pragma once

// Counts what the process takes from the C heap, the library included: the harness defines
// the allocation functions itself, and the shared library's calls resolve to them. Counting
// is off by default so that the timed runs pay nothing; it is switched on only around the
// footprint and allocation measurements, which run while nothing else allocates.

#include <cstdint>

namespace e2e {
namespace heap {

void setCounting(bool on);
// Usable bytes of the blocks allocated, less those freed, while counting was on.
int64_t liveBytes();
// Allocation calls made while counting was on.
int64_t allocations();

}  // namespace heap
}  // namespace e2e
