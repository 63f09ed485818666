#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "plat/ManualClock.h"
#include "plat/RecordingLogger.h"
#include "plat/ThrownText.h"
#include "plat/TimerManager.h"

namespace {

using plat::Timer;
using plat::TimerManager;
using Names = std::vector<std::string>;

// The restart lines as logged() shows them: facility/level/text.
constexpr const char* kBackwards = "TimerManager/30/Time has moved backwards - restarting timers";
constexpr const char* kForwards = "TimerManager/30/Time has jumped forwards - restarting timers";

// This thread's manager on a ManualClock; the fixture records the notifications and the log.
struct TimerManagerTest : ::testing::Test, TimerManager::Callbacks {
    // A timer that records its name when it fires, then answers `again`, or what `then`
    // returns when set.
    struct Named : Timer::Callback {
        Named(TimerManagerTest* t, const char* n, int again = 0) : test(t), name(n), again(again) {}
        int timerFired(Timer& self) override {
            test->fired.push_back(name);
            return then ? then(self) : again;
        }
        TimerManagerTest* test;
        std::string name;
        int again;
        std::function<int(Timer&)> then;
        Timer timer{this};
    };

    void nextTimeoutChanged(TimerManager&, int ms) override { notified.push_back(ms); }
    // Moves the clock, then lets the manager fire what is due.
    int advance(int64_t ms) {
        clock.advanceMs(ms);
        return manager.processTimers();
    }
    Names logged() {
        Names lines;
        for (const auto& l : log.lines) {
            lines.push_back(l.facility + "/" + std::to_string(l.level) + "/" + l.text);
        }
        return lines;
    }

    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    zeltest::RecordingLogger log;
    plat::ScopedCurrentLogger useLog{&log};
    TimerManager manager{this};
    Names fired;
    std::vector<int> notified;
};

TEST_F(TimerManagerTest, TimeUntilNextRoundsUpClampsAndReportsNoneAsMinusOne) {
    EXPECT_EQ(manager.timeUntilNext(), -1);
    EXPECT_EQ(manager.processTimers(), -1);
    Named t(this, "t");
    t.timer.start(1);
    clock.advanceTicks(9000);  // 0.1 ms left
    EXPECT_EQ(manager.timeUntilNext(), 1);
    EXPECT_EQ(manager.processTimers(), 1);
    EXPECT_TRUE(fired.empty());
    clock.advanceTicks(1000);
    EXPECT_EQ(manager.timeUntilNext(), 0);
    clock.advanceMs(50);
    EXPECT_EQ(manager.timeUntilNext(), 0);  // overdue
    EXPECT_EQ(manager.processTimers(), 0);
    EXPECT_EQ(fired.size(), 1u);
    EXPECT_FALSE(t.timer.isRunning());
    EXPECT_EQ(manager.timeUntilNext(), -1);

    t.timer.start(INT32_MAX);
    EXPECT_EQ(manager.timeUntilNext(), INT32_MAX);
    // Going back a day would make the wait exceed 32 bits; it is clamped, and since the
    // clamped wait can never exceed the interval, no restart is logged.
    EXPECT_EQ(advance(-24LL * 3600 * 1000), INT32_MAX);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(TimerManagerTest, EqualDueTimesFireInStartOrder) {
    Named a(this, "a"), b(this, "b"), c(this, "c"), d(this, "d");
    a.timer.start(1000);
    b.timer.start(500);
    c.timer.start(1000);
    d.timer.start(1000);
    EXPECT_EQ(advance(1000), 0);
    EXPECT_EQ(fired, (Names{"b", "a", "c", "d"}));
    // Restarting a timer puts it behind the others with the same due time.
    a.timer.start(100);
    b.timer.start(100);
    a.timer.start(100);
    advance(100);
    EXPECT_EQ(fired, (Names{"b", "a", "c", "d", "b", "a"}));
}

// Both jumps restart every timer with its full interval from the moment they are noticed:
// when processing, or when another timer starts.
TEST_F(TimerManagerTest, ClockSetBackOrOverdueByMoreThanFourMinutesRestartsAllTimers) {
    const struct {
        int64_t moveMs;
        bool throughStart;
        const char* line;
    } cases[] = {
        {-3600 * 1000, false, kBackwards}, {-3600 * 1000, true, kBackwards},
        {1000 + 239000, false, nullptr},   {1000 + 240000, false, nullptr},
        {1000 + 241000, false, kForwards},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.moveMs);
        log.lines.clear();
        fired.clear();
        Named first(this, "first"), second(this, "second"), other(this, "other");
        first.timer.start(1000);
        second.timer.start(3000);
        clock.advanceMs(c.moveMs);
        if (c.throughStart) {
            other.timer.start(60000);
        } else {
            EXPECT_EQ(manager.processTimers(), c.line ? 1000 : 0);
        }
        if (!c.line) {
            EXPECT_TRUE(log.lines.empty());
            EXPECT_EQ(fired, (Names{"first", "second"}));
            continue;
        }
        EXPECT_EQ(logged(), Names{c.line});
        advance(999);
        EXPECT_TRUE(fired.empty());
        advance(1);
        EXPECT_EQ(fired, (Names{"first"}));
        advance(2000);
        EXPECT_EQ(fired, (Names{"first", "second"}));
        EXPECT_EQ(log.lines.size(), 1u);
    }
}

TEST_F(TimerManagerTest, RepeatingTimerSkipsMissedPeriodsAfterAStall) {
    Named tick(this, "tick", 1);
    tick.timer.start(1000);
    advance(1300);  // late within one period: the next firing keeps the beat
    EXPECT_EQ(manager.timeUntilNext(), 700);
    advance(700 + 3500);          // the thread was blocked for 3.5 periods
    EXPECT_EQ(fired.size(), 2u);  // once, not four times
    EXPECT_EQ(manager.timeUntilNext(), 1000);
    advance(999);
    EXPECT_EQ(fired.size(), 2u);
    advance(1);
    EXPECT_EQ(fired.size(), 3u);
    EXPECT_TRUE(tick.timer.isRunning());
}

// A timer that asks to run again is not re-armed when its interval cannot move it forward:
// it would be due again at once and processTimers() would never return.
TEST_F(TimerManagerTest, IntervalOfZeroOrLessFiresOnceEvenWhenAskedAgain) {
    for (int interval : {0, -1, -5000}) {
        SCOPED_TRACE(interval);
        fired.clear();
        Named again(this, "again");
        again.then = [&](Timer&) { return fired.size() < 100 ? 1 : 0; };  // bounded: no hang
        again.timer.start(interval);
        manager.processTimers();
        EXPECT_EQ(fired.size(), 1u);
        EXPECT_FALSE(again.timer.isRunning());
        EXPECT_EQ(advance(1000), -1);
        EXPECT_EQ(fired.size(), 1u);
    }
}

TEST_F(TimerManagerTest, CallbacksMayStopRestartAndDestroyTimersWhileFiring) {
    Named victim(this, "victim"), moved(this, "moved"), self(this, "self");
    auto doomed = std::make_unique<Named>(this, "doomed");
    int selfFirings = 0;
    self.then = [&](Timer& timer) {
        if (++selfFirings == 1) {
            victim.timer.stop();     // due in this same round: must not fire
            moved.timer.start(500);  // due in this round too: pushed out
            doomed.reset();          // destroyed while linked
            timer.start(50);         // its own restart wins over the re-arm request
            return 1;
        }
        if (selfFirings == 2) {
            timer.stop();  // stopped itself, yet asks to run again: it is re-armed
            return 1;
        }
        return 0;
    };
    self.timer.start(100);
    victim.timer.start(100);
    moved.timer.start(100);
    doomed->timer.start(100);
    EXPECT_EQ(advance(100), 0);
    EXPECT_EQ(fired, (Names{"self"}));
    EXPECT_FALSE(victim.timer.isRunning());
    EXPECT_EQ(manager.timeUntilNext(), 50);
    advance(50);
    EXPECT_EQ(fired, (Names{"self", "self"}));
    EXPECT_EQ(self.timer.due() - clock.nowTicks(), 50 * plat::kTicksPerMillisecond);  // interval 50
    advance(450);
    EXPECT_EQ(fired, (Names{"self", "self", "self", "moved"}));
    EXPECT_FALSE(self.timer.isRunning());
}

TEST_F(TimerManagerTest, AnExceptionFromACallbackLeavesThatTimerStoppedAndTheRestQueued) {
    Named bad(this, "bad", 1), later(this, "later");
    bad.then = [](Timer&) -> int { throw plat::Exception("callback failed"); };
    bad.timer.start(10);
    later.timer.start(10);
    EXPECT_THROW(advance(10), plat::Exception);
    EXPECT_FALSE(bad.timer.isRunning());
    EXPECT_TRUE(later.timer.isRunning());
    manager.processTimers();
    EXPECT_EQ(fired, (Names{"bad", "later"}));
}

TEST_F(TimerManagerTest, NextTimeoutIsNotifiedWhenTheFirstTimerChanges) {
    Named a(this, "a"), b(this, "b"), c(this, "c");
    a.timer.start(1000);  // first: notified
    b.timer.start(2000);  // behind a: silent
    c.timer.start(500);   // new first: notified
    clock.advanceTicks(2500);
    c.timer.stop();  // first stopped: the next one is 999.75 ms away, rounded up
    b.timer.stop();  // not first: silent
    b.timer.stop();  // not running: silent
    EXPECT_EQ(notified, (std::vector<int>{1000, 500, 1000}));
    notified.clear();
    EXPECT_EQ(advance(400), 600);  // nothing due: no notification
    EXPECT_EQ(advance(600), 0);
    a.timer.start(300);
    a.timer.stop();
    EXPECT_EQ(notified, (std::vector<int>{-1, 300, -1}));
}

TEST_F(TimerManagerTest, DestroyingTheManagerUnlinksItsTimersAndAThreadNeedsOne) {
    Named survivor(this, "survivor");
    std::string withoutManager;
    std::thread([&] {
        // The fixture's manager is this thread's; the other thread has none, then its own.
        withoutManager = zeltest::thrownText([&] { survivor.timer.start(10); });
        EXPECT_FALSE(survivor.timer.isRunning());
        survivor.timer.stop();
        TimerManager own;
        EXPECT_EQ(TimerManager::current(), &own);
        Named local(this, "local");
        local.timer.start(10);
        survivor.timer.start(10);
    }).join();
    EXPECT_EQ(withoutManager, "no TimerManager");
    EXPECT_FALSE(survivor.timer.isRunning());
    EXPECT_EQ(TimerManager::current(), &manager);
}

}  // namespace
