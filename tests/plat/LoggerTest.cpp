#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>

#include "plat/Clock.h"
#include "plat/Logger.h"
#include "plat/RecordingLogger.h"

namespace {

using zeltest::RecordingLogger;

// A named logger wins over the thread's current one, which wins over nothing. The current
// logger belongs to the thread that set it: another thread starts without one, and its own
// choice does not leak back.
TEST(LoggerRef, NamedLoggerWinsOverTheThreadsCurrentElseCurrentElseNothing) {
    RecordingLogger own, current, theirs;
    plat::LoggerRef named{"CDBSession", &own}, unnamed{"TimerManager", nullptr};
    EXPECT_FALSE(unnamed.active());
    unnamed.info("dropped: no current logger on this thread");
    {
        plat::ScopedCurrentLogger scope(&current);
        EXPECT_TRUE(unnamed.active());
        named.error("e");
        named.warning("w");
        named.info("i");
        named.debug("d %s", std::string(1000, 'x').c_str());  // past the first guess
        named.log(20, "%d %s", 5, "five");
        unnamed.info("kept");
        plat::Logger* seen = &current;
        std::thread([&] {
            seen = plat::Logger::current();
            plat::ScopedCurrentLogger otherScope(&theirs);
            unnamed.warning("from the other thread");
        }).join();
        EXPECT_EQ(seen, nullptr);
        EXPECT_EQ(plat::Logger::current(), &current);
    }
    unnamed.info("dropped again");
    ASSERT_EQ(own.lines.size(), 5u);
    const int levels[] = {0, 10, 30, 100, 20};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(own.lines[i].level, levels[i]);
    EXPECT_EQ(own.lines[3].text, "d " + std::string(1000, 'x'));
    EXPECT_EQ(own.lines[4].text, "5 five");
    EXPECT_EQ(own.lines[0].facility, "CDBSession");
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].text, "kept");
    ASSERT_EQ(theirs.lines.size(), 1u);
    EXPECT_EQ(theirs.lines[0].facility, "TimerManager");
}

// The system clock reads the wall clock's time in ticks from the epoch the constants name,
// and then never goes back.
TEST(SystemClock, StartsAtTheWallClocksTimeAndNeverGoesBack) {
    int64_t first = plat::SystemClock::instance().nowTicks();
    auto seconds = static_cast<double>((first - plat::kUnixEpochTicks) / plat::kTicksPerSecond);
    EXPECT_NEAR(seconds, static_cast<double>(std::time(nullptr)), 2.0);
    EXPECT_GE(plat::SystemClock::instance().nowTicks(), first);
}

}  // namespace
