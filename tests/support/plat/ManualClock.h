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
// starts. A thread that waits in select() or on a condition, bounded by
// TimerManager::timeUntilNext(), passes that bound through Clock::realWaitMs(), which for
// this clock means "wait until woken", and registers a Listener whose timeChanged() wakes it
// (an endpoint thread posts a no-op control message, whose byte makes its wake-up
// descriptor readable). After every set() or advance() the thread therefore runs
// processTimers() against the new time. Because the wake-up goes through the thread's own
// descriptor, a move that happens between the thread's processTimers() and its select() is
// not lost.
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

    // Listeners are called with the clock's listener lock held: a listener must not move
    // the clock, add or remove listeners, and must not be removed by a thread that holds a
    // lock the listener takes. Removing a listener waits for a notification in progress.
    void addListener(Listener* listener);
    void removeListener(Listener* listener);

private:
    std::atomic<int64_t> ticks_;
    // State below is protected by listenersMutex_.
    std::mutex listenersMutex_;
    std::vector<Listener*> listeners_;
};

}  // namespace plat
