#include "plat/Logger.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "plat/DString.h"
#include "plat/RecordingLogger.h"

namespace {

using zeltest::RecordingLogger;

TEST(LoggerRef, NamedLoggerWinsOverCurrentAndEachLevelKeepsItsValue) {
    RecordingLogger own, current;
    plat::ScopedCurrentLogger scope(&current);
    plat::LoggerRef ref{"CDBSession", &own};
    ref.error("e %d", 1);
    ref.warning("w");
    ref.info("i");
    ref.debug("d %s", "x");
    ASSERT_EQ(own.lines.size(), 4u);
    EXPECT_TRUE(current.lines.empty());
    EXPECT_EQ(own.lines[0].level, 0);
    EXPECT_EQ(own.lines[1].level, 10);
    EXPECT_EQ(own.lines[2].level, 30);
    EXPECT_EQ(own.lines[3].level, 100);
    EXPECT_EQ(own.lines[3].text, "d x");
    EXPECT_EQ(own.lines[0].facility, "CDBSession");
}

TEST(LoggerRef, NullLoggerUsesThreadCurrentOrLogsNothing) {
    plat::LoggerRef ref{"TimerManager", nullptr};
    EXPECT_FALSE(ref.active());
    ref.info("dropped");  // no current logger on this thread: nothing happens
    RecordingLogger current;
    {
        plat::ScopedCurrentLogger scope(&current);
        EXPECT_TRUE(ref.active());
        ref.info("kept");
    }
    ref.info("dropped again");
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].text, "kept");
}

TEST(DString, GrowsPastItsFirstGuessAndAppends) {
    plat::DString s;
    std::string big(1000, 'x');
    s.format("%s-%d", big.c_str(), 7);
    EXPECT_EQ(std::string(s.c_str()), big + "-7");
    s.appendFormat("+%s", "y");
    EXPECT_EQ(s.length(), big.size() + 4);
    s.clear();
    EXPECT_STREQ(s.c_str(), "");
}

// The current logger belongs to the thread that set it: another thread starts without one
// and its own choice does not leak back.
TEST(Logger, CurrentLoggerIsPerThread) {
    RecordingLogger mine, theirs;
    plat::ScopedCurrentLogger scope(&mine);
    plat::Logger* seen = &mine;
    std::thread other([&] {
        seen = plat::Logger::current();
        plat::ScopedCurrentLogger otherScope(&theirs);
        plat::LoggerRef{"TimerManager", nullptr}.warning("from the other thread");
    });
    other.join();
    EXPECT_EQ(seen, nullptr);
    EXPECT_EQ(plat::Logger::current(), &mine);
    EXPECT_TRUE(mine.lines.empty());
    ASSERT_EQ(theirs.lines.size(), 1u);
    EXPECT_EQ(theirs.lines[0].facility, "TimerManager");
}

}  // namespace
