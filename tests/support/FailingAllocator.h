#pragma once

// Allocation-failure injection for tests: arms a countdown so that the n-th call of the
// global operator new (plain, array and nothrow forms) from now on fails, the throwing forms
// with std::bad_alloc and the nothrow forms with nullptr. Only that one allocation fails, so
// a test loops over n = 1, 2, ... until triggered() stays false: every allocation of the
// code under test has then failed once. The replacement operators (FailingAllocator.cpp)
// come into every test program. Counting is per thread (the arming thread only), so gtest's
// own bookkeeping elsewhere is unaffected; aligned allocations are not counted.

#include <cstddef>
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
    return c.remaining != 0 && --c.remaining == 0 && (c.triggered = true);
}
}  // namespace detail

class FailNthAllocation {
public:
    explicit FailNthAllocation(unsigned n) { detail::tCountdown = {n, false}; }
    ~FailNthAllocation() { detail::tCountdown.remaining = 0; }
    FailNthAllocation(const FailNthAllocation&) = delete;
    FailNthAllocation& operator=(const FailNthAllocation&) = delete;

    // Whether the n-th allocation has happened (and failed).
    bool triggered() const { return detail::tCountdown.triggered; }
};

}  // namespace zeltest
