// A timer whose expiry asks to run again must not be re-armed when its interval cannot move
// it forward: it would be due again at once and processTimers() would never return.
#include <gtest/gtest.h>

#include "plat/ManualClock.h"
#include "plat/TimerManager.h"

namespace {

// Asks to be re-armed every time; gives up after a bound, so that a broken rule shows as
// a count rather than a hang.
struct AlwaysAgain : plat::Timer::Callback {
    int fired = 0;
    int timerFired(plat::Timer&) override { return ++fired < 100 ? 1 : 0; }
};

TEST(TimerRearm, IntervalOfZeroOrLessFiresOnceAndStops) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    for (int interval : {0, -1, -5000}) {
        SCOPED_TRACE(interval);
        plat::TimerManager manager;
        AlwaysAgain callback;
        plat::Timer timer(&callback);
        timer.start(interval);
        manager.processTimers();
        EXPECT_EQ(callback.fired, 1);
        EXPECT_FALSE(timer.isRunning());
        clock.advanceMs(1000);
        EXPECT_EQ(manager.processTimers(), -1);
        EXPECT_EQ(callback.fired, 1);
    }
}

TEST(TimerRearm, PositiveIntervalStillRepeats) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    plat::TimerManager manager;
    AlwaysAgain callback;
    plat::Timer timer(&callback);
    timer.start(10);
    for (int i = 1; i <= 3; ++i) {
        clock.advanceMs(10);
        manager.processTimers();
        EXPECT_EQ(callback.fired, i);
        EXPECT_TRUE(timer.isRunning());
    }
}

}  // namespace
