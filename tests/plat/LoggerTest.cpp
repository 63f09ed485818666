#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "plat/Logger.h"
#include "plat/RecordingLogger.h"

namespace {

using zeltest::RecordingLogger;

TEST(LoggerRef, NamedLoggerWinsOverCurrentElseCurrentElseNothing) {
    RecordingLogger own, current;
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
        unnamed.info("kept");
    }
    unnamed.info("dropped again");
    ASSERT_EQ(own.lines.size(), 4u);
    const int levels[] = {0, 10, 30, 100};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(own.lines[i].level, levels[i]);
    EXPECT_EQ(own.lines[3].text, "d " + std::string(1000, 'x'));
    EXPECT_EQ(own.lines[0].facility, "CDBSession");
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].text, "kept");
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
