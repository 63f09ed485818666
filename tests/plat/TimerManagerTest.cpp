#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "plat/Clock.h"
#include "plat/DString.h"
#include "plat/Exception.h"
#include "plat/Logger.h"
#include "plat/ManualClock.h"
#include "plat/TimerManager.h"

namespace {

using plat::Timer;
using plat::TimerManager;

constexpr const char* kBackwards = "Time has moved backwards - restarting timers";
constexpr const char* kForwards = "Time has jumped forwards - restarting timers";

struct RecordingLogger : plat::Logger {
    std::vector<std::string> lines;  // "facility/level/text"
    void log(int level, const char* facility, const char* format, va_list args) override {
        plat::DString text;
        text.formatV(format, args);
        lines.push_back(std::string(facility) + "/" + std::to_string(level) + "/" + text.c_str());
    }
};

std::string timerLine(const char* text) {
    return std::string("TimerManager/30/") + text;
}

struct RecordingCallbacks : TimerManager::Callbacks {
    std::vector<int> values;
    void nextTimeoutChanged(TimerManager&, int ms) override { values.push_back(ms); }
};

// A callback that runs a function; the function's result decides re-arming.
struct FnCallback : Timer::Callback {
    std::function<int(Timer&)> fn;
    explicit FnCallback(std::function<int(Timer&)> f) : fn(std::move(f)) {}
    int timerFired(Timer& timer) override { return fn(timer); }
};

struct TimerManagerTest : ::testing::Test {
    // A callback that records the name of the timer that fired and the virtual time.
    std::unique_ptr<FnCallback> recorder(const std::string& name, int again = 0) {
        return std::make_unique<FnCallback>([this, name, again](Timer&) {
            fired.push_back(name);
            firedAtMs.push_back(elapsedMs());
            return again;
        });
    }
    int64_t elapsedMs() { return (clock.nowTicks() - start) / plat::kTicksPerMillisecond; }

    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    int64_t start = clock.nowTicks();
    RecordingLogger log;
    plat::ScopedCurrentLogger useLog{&log};
    RecordingCallbacks notifications;
    TimerManager manager{&notifications};
    std::vector<std::string> fired;
    std::vector<int64_t> firedAtMs;
};

TEST(TimerManagerMath, MillisecondsBetweenRoundsUpAndClamps) {
    struct Case {
        int64_t ticks;
        int ms;
    } cases[] = {
        {0, 0},
        {1, 1},  // 0.0001 ms is already a whole millisecond to wait
        {9999, 1},
        {10000, 1},
        {10001, 2},
        {-1, 0},
        {-19998, 0},  // truncation toward zero after the bias
        {-19999, -1},
        {-20000, -1},
        {2147483646LL * 10000, 2147483646},
        {2147483647LL * 10000, 2147483647},
        {2147483648LL * 10000, 2147483647},
        {INT64_MAX / 2, 2147483647},
        {-2147483646LL * 10000 - 9999, -2147483646},
        {-2147483647LL * 10000 - 9999, INT32_MIN},  // the lower edge is one early
        {INT64_MIN / 2, INT32_MIN},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(TimerManager::millisecondsBetween(c.ticks, 0), c.ms) << c.ticks;
        EXPECT_EQ(TimerManager::millisecondsBetween(1000 + c.ticks, 1000), c.ms) << c.ticks;
    }
    EXPECT_EQ(TimerManager::millisecondsBetween(INT64_MAX, INT64_MIN), INT32_MAX);
    EXPECT_EQ(TimerManager::millisecondsBetween(INT64_MIN, INT64_MAX), INT32_MIN);
}

TEST(TimerManagerMath, TicksComeFromTheSystemClockSince1601) {
    int64_t now = plat::Clock::now();
    // Some time after 2020-01-01 and before 2100-01-01.
    EXPECT_GT(now, plat::ManualClock::kDefaultStartTicks);
    EXPECT_LT(now, plat::kUnixEpochTicks + 4102444800LL * plat::kTicksPerSecond);
}

TEST_F(TimerManagerTest, TimeUntilNextRoundsUpAndReportsNoneAsMinusOne) {
    EXPECT_EQ(manager.timeUntilNext(), -1);
    EXPECT_EQ(manager.processTimers(), -1);
    auto cb = recorder("t");
    Timer timer(cb.get());
    timer.start(1);
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
    EXPECT_FALSE(timer.isRunning());
    EXPECT_EQ(manager.timeUntilNext(), -1);
}

TEST_F(TimerManagerTest, HugeIntervalsAreClampedNotWrapped) {
    auto cb = recorder("t");
    Timer timer(cb.get());
    timer.start(INT32_MAX);
    EXPECT_EQ(manager.timeUntilNext(), INT32_MAX);
    // Going back a day would make the wait exceed 32 bits; it is clamped, and since the
    // clamped wait can never exceed the interval, no restart is logged.
    clock.advanceMs(-24LL * 3600 * 1000);
    EXPECT_EQ(manager.processTimers(), INT32_MAX);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(TimerManagerTest, EqualDueTimesFireInStartOrder) {
    auto a = recorder("a"), b = recorder("b"), c = recorder("c"), d = recorder("d");
    Timer ta(a.get()), tb(b.get()), tc(c.get()), td(d.get());
    ta.start(1000);
    tb.start(500);
    tc.start(1000);
    td.start(1000);
    clock.advanceMs(1000);
    EXPECT_EQ(manager.processTimers(), 0);
    EXPECT_EQ(fired, (std::vector<std::string>{"b", "a", "c", "d"}));

    // Restarting a timer puts it behind the others with the same due time.
    fired.clear();
    ta.start(100);
    tb.start(100);
    ta.start(100);
    clock.advanceMs(100);
    manager.processTimers();
    EXPECT_EQ(fired, (std::vector<std::string>{"b", "a"}));
}

TEST_F(TimerManagerTest, ClockSetBackAnHourRestartsTimersFromThatMoment) {
    struct Case {
        const char* name;
        bool throughStart;  // notice the jump when another timer starts, else when processing
    } cases[] = {{"processing", false}, {"start", true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log.lines.clear();
        fired.clear();
        auto cb = recorder("t");
        auto otherCb = recorder("other");
        Timer timer(cb.get()), other(otherCb.get());
        timer.start(5000);
        clock.advanceMs(1000);
        clock.advanceMs(-3600 * 1000);
        int64_t jumpedAt = elapsedMs();
        if (c.throughStart) {
            other.start(60000);
        } else {
            EXPECT_EQ(manager.processTimers(), 5000);
        }
        EXPECT_EQ(log.lines, (std::vector<std::string>{timerLine(kBackwards)}));
        clock.advanceMs(4999);
        manager.processTimers();
        EXPECT_TRUE(fired.empty());
        clock.advanceMs(1);
        manager.processTimers();
        ASSERT_EQ(fired, (std::vector<std::string>{"t"}));
        EXPECT_EQ(firedAtMs[firedAtMs.size() - 1], jumpedAt + 5000);
        EXPECT_EQ(log.lines.size(), 1u);
    }
}

TEST_F(TimerManagerTest, OverdueByMoreThanFourMinutesRestartsAllTimers) {
    struct Case {
        int overdueMs;
        bool restarts;
    } cases[] = {{239000, false}, {240000, false}, {241000, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.overdueMs);
        log.lines.clear();
        fired.clear();
        auto first = recorder("first"), second = recorder("second");
        Timer t1(first.get()), t2(second.get());
        t1.start(1000);
        t2.start(3000);
        clock.advanceMs(1000 + c.overdueMs);
        int result = manager.processTimers();
        if (c.restarts) {
            EXPECT_EQ(log.lines, (std::vector<std::string>{timerLine(kForwards)}));
            EXPECT_TRUE(fired.empty());
            EXPECT_EQ(result, 1000);  // each timer runs its full interval from now
            clock.advanceMs(1000);
            manager.processTimers();
            EXPECT_EQ(fired, (std::vector<std::string>{"first"}));
            clock.advanceMs(2000);
            manager.processTimers();
            EXPECT_EQ(fired, (std::vector<std::string>{"first", "second"}));
        } else {
            EXPECT_TRUE(log.lines.empty());
            EXPECT_EQ(result, 0);
            EXPECT_EQ(fired, (std::vector<std::string>{"first", "second"}));
        }
    }
}

TEST_F(TimerManagerTest, RepeatingTimerSkipsMissedPeriodsAfterAStall) {
    auto cb = recorder("tick", 1);
    Timer timer(cb.get());
    timer.start(1000);
    clock.advanceMs(1300);  // late within one period: the next firing keeps the beat
    manager.processTimers();
    EXPECT_EQ(manager.timeUntilNext(), 700);
    clock.advanceMs(700 + 3500);  // the thread was blocked for 3.5 periods
    manager.processTimers();
    EXPECT_EQ(fired.size(), 2u);  // once, not four times
    EXPECT_EQ(manager.timeUntilNext(), 1000);
    clock.advanceMs(999);
    manager.processTimers();
    EXPECT_EQ(fired.size(), 2u);
    clock.advanceMs(1);
    manager.processTimers();
    EXPECT_EQ(firedAtMs, (std::vector<int64_t>{1300, 5500, 6500}));
    EXPECT_TRUE(timer.isRunning());
}

TEST_F(TimerManagerTest, CallbacksMayStopRestartAndDestroyTimersWhileFiring) {
    auto victimCb = recorder("victim");
    auto movedCb = recorder("moved");
    auto doomedCb = recorder("doomed");
    Timer victim(victimCb.get()), moved(movedCb.get());
    auto doomed = std::make_unique<Timer>(doomedCb.get());
    int selfFirings = 0;
    FnCallback selfCb([&](Timer& self) {
        fired.push_back("self");
        if (++selfFirings == 1) {
            victim.stop();     // due in this same round: must not fire
            moved.start(500);  // due in this round too: pushed out
            doomed.reset();    // destroyed while linked
            self.start(50);    // its own restart wins over the re-arm request
            return 1;
        }
        if (selfFirings == 2) {
            self.stop();  // stopped itself, yet asks to run again: it is re-armed
            return 1;
        }
        return 0;
    });
    Timer self(&selfCb);
    self.start(100);
    victim.start(100);
    moved.start(100);
    doomed->start(100);
    clock.advanceMs(100);
    EXPECT_EQ(manager.processTimers(), 0);
    EXPECT_EQ(fired, (std::vector<std::string>{"self"}));
    EXPECT_FALSE(victim.isRunning());
    EXPECT_EQ(manager.timeUntilNext(), 50);
    clock.advanceMs(50);
    manager.processTimers();
    EXPECT_EQ(fired, (std::vector<std::string>{"self", "self"}));
    EXPECT_EQ(self.due() - clock.nowTicks(), 50 * plat::kTicksPerMillisecond);  // interval 50
    clock.advanceMs(450);
    manager.processTimers();
    EXPECT_EQ(fired, (std::vector<std::string>{"self", "self", "self", "moved"}));
    EXPECT_FALSE(self.isRunning());
}

TEST_F(TimerManagerTest, AnExceptionFromACallbackLeavesThatTimerStoppedAndTheRestQueued) {
    FnCallback throwing([](Timer&) -> int { throw plat::Exception("callback failed"); });
    auto laterCb = recorder("later");
    Timer bad(&throwing), later(laterCb.get());
    bad.start(10);
    later.start(10);
    clock.advanceMs(10);
    EXPECT_THROW(manager.processTimers(), plat::Exception);
    EXPECT_FALSE(bad.isRunning());
    EXPECT_TRUE(later.isRunning());
    manager.processTimers();
    EXPECT_EQ(fired, (std::vector<std::string>{"later"}));
}

TEST_F(TimerManagerTest, NextTimeoutIsNotifiedWhenTheFirstTimerChanges) {
    auto cb = recorder("t");
    Timer a(cb.get()), b(cb.get()), c(cb.get());
    a.start(1000);  // first: notified
    b.start(2000);  // behind a: silent
    c.start(500);   // new first: notified
    clock.advanceTicks(2500);
    c.stop();  // first stopped: the next one is 999.75 ms away, rounded up
    b.stop();  // not first: silent
    b.stop();  // not running: silent
    EXPECT_EQ(notifications.values, (std::vector<int>{1000, 500, 1000}));
    notifications.values.clear();
    clock.advanceMs(400);
    EXPECT_EQ(manager.processTimers(), 600);  // nothing due: no notification
    clock.advanceMs(600);
    EXPECT_EQ(manager.processTimers(), 0);
    a.start(300);
    a.stop();
    EXPECT_EQ(notifications.values, (std::vector<int>{-1, 300, -1}));
}

TEST_F(TimerManagerTest, DestroyingTheManagerUnlinksItsTimers) {
    auto cb = recorder("t");
    Timer survivor(cb.get());
    {
        // The fixture's manager is this thread's; a second one lives on another thread.
        std::thread other([&] {
            TimerManager own;
            EXPECT_EQ(TimerManager::current(), &own);
            Timer local(cb.get());
            local.start(10);
            survivor.start(10);
        });
        other.join();
    }
    EXPECT_FALSE(survivor.isRunning());
    EXPECT_EQ(TimerManager::current(), &manager);
}

TEST(TimerManagerThreads, StartingWithoutAManagerThrows) {
    FnCallback cb([](Timer&) { return 0; });
    Timer timer(&cb);
    try {
        timer.start(10);
        FAIL() << "no exception";
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "no TimerManager");
    }
    EXPECT_FALSE(timer.isRunning());
    timer.stop();
}

struct StderrLogger : plat::Logger {
    void log(int, const char* facility, const char* format, va_list args) override {
        std::fprintf(stderr, "%s: ", facility);
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    }
};

TEST(TimerManagerDeathTest, ASecondManagerOnOneThreadAborts) {
    EXPECT_DEATH(
        {
            StderrLogger logger;
            plat::ScopedCurrentLogger use(&logger);
            TimerManager first;
            TimerManager second;
        },
        "Assertion: Assertion '!thrInst' failed at libs/plat/TimerManager:50");
}

}  // namespace
