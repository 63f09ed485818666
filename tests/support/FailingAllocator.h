#pragma once

// Allocation-failure injection for tests: arms a countdown so that the n-th call of the
// global operator new (plain, array and nothrow forms) from now on fails, the throwing forms
// with std::bad_alloc and the nothrow forms with nullptr. Only that one allocation fails;
// the ones after it succeed again, which is what a retry loop over n needs:
//
//     for (unsigned n = 1;; ++n) {
//         zeltest::FailNthAllocation failure(n);
//         ZELCDBError result = run();
//         if (!failure.triggered()) break;   // every allocation of run() has been failed once
//         EXPECT_EQ(result, ZELCDBErrorOutOfMemory);
//     }
//
// The replacement operators (FailingAllocator.cpp) come with the test support library into
// every test program. Counting is per thread (the arming thread only), so gtest's own
// bookkeeping elsewhere is unaffected; aligned allocations are not counted.

#include <cstddef>
#include <cstdlib>
#include <new>

namespace zeltest {

namespace detail {
struct AllocationCountdown {
    unsigned remaining = 0;  // 0: disarmed
    bool triggered = false;
};
inline thread_local AllocationCountdown tCountdown;

// True when this allocation is the one to fail.
inline bool allocationShouldFail() {
    AllocationCountdown& c = tCountdown;
    if (c.remaining == 0 || --c.remaining != 0) return false;
    c.triggered = true;
    return true;
}
}  // namespace detail

class FailNthAllocation {
public:
    explicit FailNthAllocation(unsigned n) {
        detail::tCountdown.remaining = n;
        detail::tCountdown.triggered = false;
    }
    ~FailNthAllocation() { detail::tCountdown.remaining = 0; }
    FailNthAllocation(const FailNthAllocation&) = delete;
    FailNthAllocation& operator=(const FailNthAllocation&) = delete;

    // Whether the n-th allocation has happened (and failed).
    bool triggered() const { return detail::tCountdown.triggered; }
};

}  // namespace zeltest
