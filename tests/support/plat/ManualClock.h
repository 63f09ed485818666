#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "plat/Clock.h"

namespace plat {

// A clock for tests whose time moves only when the test moves it: forwards, backwards or far
// ahead, without sleeping.
//
// Running a whole thread on virtual time: install the clock (ScopedClock) before the thread
// starts. Its waits pass their bound through Clock::realWaitMs(), which here means "wait
// until woken", and a Listener whose timeChanged() wakes the thread through its own wake-up
// descriptor (an endpoint posts a no-op control message), so that every set() or advance()
// is followed by processTimers() at the new time, and a move between the thread's
// processTimers() and its wait is not lost.
class ManualClock : public Clock {
public:
    // Told after every change of the time, on the thread that changed it.
    class Listener {
    public:
        virtual ~Listener();
        virtual void timeChanged(ManualClock& clock) = 0;
    };

    // 2020-01-01 00:00:00 UTC, an arbitrary but realistic start.
    static constexpr int64_t kDefaultStartTicks = kUnixEpochTicks + 1577836800LL * kTicksPerSecond;

    explicit ManualClock(int64_t startTicks = kDefaultStartTicks) : ticks_(startTicks) {}

    int64_t nowTicks() override { return ticks_.load(std::memory_order_acquire); }
    int realWaitMs(int) override { return -1; }

    void setTicks(int64_t ticks);
    void advanceTicks(int64_t ticks) { setTicks(nowTicks() + ticks); }
    void advanceMs(int64_t ms) { advanceTicks(ms * kTicksPerMillisecond); }

    // Listeners are called under the clock's listener lock, which removing one waits for: a
    // listener must not move the clock or change the listeners, nor be removed under a lock
    // it takes.
    void addListener(Listener* listener);
    void removeListener(Listener* listener);

private:
    std::atomic<int64_t> ticks_;
    // State below is protected by listenersMutex_.
    std::mutex listenersMutex_;
    std::vector<Listener*> listeners_;
};

}  // namespace plat
