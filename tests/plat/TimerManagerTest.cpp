// Timers on a ManualClock: order, rounding, re-arming, clock jumps, and the notifications of
// the next time-out, as one trace per script.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "plat/DString.h"
#include "plat/Logger.h"
#include "plat/ManualClock.h"
#include "plat/ThrownText.h"
#include "plat/TimerManager.h"

namespace {

using plat::Timer;
using plat::TimerManager;

// This thread's manager on a ManualClock. Firings, notifications ("~ms") and log lines (in
// angle brackets) all go to one trace.
struct TimerManagerTest : ::testing::Test, TimerManager::Callbacks, plat::Logger {
    // A timer that traces its name when it fires, then asks to run again when `again` is set
    // (at most 100 times, so that a broken re-arm shows instead of hanging), or answers what
    // `then` returns.
    struct Named : Timer::Callback {
        Named(TimerManagerTest* t, std::string n) : test(t), name(std::move(n)) {}
        int timerFired(Timer& self) override {
            test->trace(name);
            return then ? then(self) : again && ++firings < 100;
        }
        TimerManagerTest* test;
        std::string name;
        bool again = false;
        int firings = 0;
        std::function<int(Timer&)> then;
        Timer timer{this};
    };

    void nextTimeoutChanged(TimerManager&, int ms) override { trace("~" + std::to_string(ms)); }
    void log(int level, const char* facility, const char* format, va_list args) override {
        plat::DString text;
        text.formatV(format, args);
        std::string line = std::string(facility) + "/" + std::to_string(level) + "/" + text.c_str();
        trace(line == kBackwards ? "<back>" : line == kForwards ? "<forwards>" : "<" + line + ">");
    }
    void trace(const std::string& s) { out += (out.empty() ? "" : " ") + s; }
    Named& timer(char name) {
        auto& t = timers[name];
        if (!t) t = std::make_unique<Named>(this, std::string(1, name));
        return *t;
    }

    // Steps: "a=ms" starts timer a, "a-" stops it, "a*" makes it ask to run again, "a!" makes
    // it throw, "a^ms" makes it move the clock once and ask again, "a?" traces whether it runs;
    // "+ms" and "~ticks" move the clock; "p" traces what processTimers() returns, "n" what
    // timeUntilNext() does.
    std::string run(const std::string& script) {
        out.clear();
        std::istringstream steps(script);
        for (std::string s; steps >> s;) {
            try {
                step(s);
            } catch (const plat::Exception& e) {
                trace("[" + std::string(e.str()) + "]");
            }
        }
        return out;
    }
    void step(const std::string& s) {
        if (s[0] == '+') return clock.advanceMs(std::stoll(s.substr(1)));
        if (s[0] == '~') return clock.advanceTicks(std::stoll(s.substr(1)));
        if (s == "p") return trace("p" + std::to_string(manager.processTimers()));
        if (s == "n") return trace("n" + std::to_string(manager.timeUntilNext()));
        Named& t = timer(s[0]);
        if (s[1] == '=') return t.timer.start(std::stoi(s.substr(2)));
        if (s[1] == '-') return t.timer.stop();
        if (s[1] == '*') t.again = true;
        if (s[1] == '!') t.then = [](Timer&) -> int { throw plat::Exception("callback failed"); };
        if (s[1] == '^')
            t.then = [this, &t, ms = std::stoll(s.substr(2))](Timer&) {
                if (t.firings == 0) clock.advanceMs(ms);
                return ++t.firings < 100;
            };
        if (s[1] == '?') trace(t.name + (t.timer.isRunning() ? ":on" : ":off"));
    }

    static constexpr const char* kBackwards =
        "TimerManager/30/Time has moved backwards - restarting timers";
    static constexpr const char* kForwards =
        "TimerManager/30/Time has jumped forwards - restarting timers";
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    plat::ScopedCurrentLogger useLog{this};
    TimerManager manager{this};
    std::string out;
    std::map<char, std::unique_ptr<Named>> timers;
};

TEST_F(TimerManagerTest, Scripts) {
    const struct {
        const char* rule;
        const char* script;
        const char* trace;
    } cases[] = {
        // Going back a day would make the wait exceed 32 bits; it is clamped, and since the
        // clamped wait can never exceed the interval, no restart is logged.
        {"waits round up, are clamped, and -1 means none",
         "n p a=1 ~9000 n p ~1000 n +50 n p a? n a=2147483647 n +-86400000 p",
         "n-1 p-1 ~1 n1 p1 n0 n0 a ~-1 p0 a:off n-1 ~2147483647 n2147483647 p2147483647"},
        {"equal due times fire in start order; a restart goes behind its equals",
         "a=1000 b=500 c=1000 d=1000 +1000 p a=100 b=100 a=100 +100 p",
         "~1000 ~500 b a c d ~-1 p0 ~100 ~100 b a ~-1 p0"},
        // Both jumps restart every timer with its full interval from the moment they are
        // noticed: when processing, or when another timer starts.
        {"the clock set back, noticed when processing",
         "a=1000 b=3000 +-3600000 p +999 p +1 p +2000 p",
         "~1000 <back> p1000 p1 a ~2000 p0 b ~-1 p0"},
        {"the clock set back, noticed when a timer starts",
         "a=1000 b=3000 +-3600000 c=60000 +999 p +1 p +2000 p",
         "~1000 <back> p1 a ~2000 p0 b ~57000 p0"},
        {"a jump noticed as a repeating timer fires re-arms it a whole interval from then",
         "b=5000 a^-3600000 a=1000 +1000 p n", "~5000 ~1000 a <back> ~1000 p0 n1000"},
        {"four minutes overdue is no jump", "a=1000 b=3000 +241000 p", "~1000 a b ~-1 p0"},
        {"more than four minutes overdue", "a=1000 b=3000 +242000 p +999 p +1 p +2000 p",
         "~1000 <forwards> p1000 p1 a ~2000 p0 b ~-1 p0"},
        {"a repeating timer keeps its beat, but skips the periods missed in a stall",
         "a* a=1000 +1300 p n +4200 p n +999 p +1 p a?",
         "~1000 a ~700 p0 n700 a ~1000 p0 n1000 p1 a ~1000 p0 a:on"},
        // It would be due again at once and processTimers() would never return.
        {"an interval of 0 or less is not re-armed", "a* a=0 b* b=-1 c* c=-5000 p a? b? c? +1000 p",
         "~0 ~0 ~0 c b a ~-1 p0 a:off b:off c:off p-1"},
        {"a callback's exception leaves its timer stopped and the rest queued",
         "a! a=10 b=10 +10 p a? b? p", "~10 a [callback failed] a:off b:on b ~-1 p0"},
        // c's stop makes a first again, 999.75 ms away: rounded up.
        {"the next time-out is told when the first timer changes, and only then",
         "a=1000 b=2000 c=500 ~2500 c- b- b- +400 p +600 p a=300 a-",
         "~1000 ~500 ~1000 p600 a ~-1 p0 ~300 ~-1"},
    };
    for (const auto& c : cases) {
        timers.clear();
        EXPECT_EQ(run(c.script), c.trace) << c.rule;
    }
}

TEST_F(TimerManagerTest, CallbacksMayStopRestartAndDestroyTimersWhileFiring) {
    int firings = 0;
    timer('s').then = [&](Timer& self) {
        if (++firings == 1) {
            timer('v').timer.stop();      // due in this same round: must not fire
            timer('m').timer.start(500);  // due in this round too: pushed out
            timers.erase('d');            // destroyed while linked
            self.start(50);               // its own restart wins over the re-arm request
            return 1;
        }
        if (firings == 2) self.stop();  // stopped itself, yet asks to run again: re-armed
        return firings == 2 ? 1 : 0;
    };
    EXPECT_EQ(run("s=100 v=100 m=100 d=100 +100 p v? n +50 p"),
              "~100 s ~0 ~0 ~500 ~50 ~50 p0 v:off n50 s ~50 p0");
    EXPECT_EQ(timer('s').timer.due() - clock.nowTicks(), 50 * plat::kTicksPerMillisecond);
    EXPECT_EQ(run("+450 p s?"), "s m ~-1 p0 s:off");
}

TEST_F(TimerManagerTest, DestroyingTheManagerUnlinksItsTimersAndAThreadNeedsOne) {
    Named& survivor = timer('s');
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
