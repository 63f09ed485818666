#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>

#include "plat/Assert.h"
#include "plat/Logger.h"
#include "plat/RecordingLogger.h"

namespace {

using zeltest::RecordingLogger;

// Writes each line to stderr with its facility and level, where a death test can see it.
struct StderrLogger : plat::Logger {
    void log(int level, const char* facility, const char* format, va_list args) override {
        std::fprintf(stderr, "[%s/%d] ", facility, level);
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    }
};

TEST(AssertDeathTest, HardAssertionLogsTheLineAndAborts) {
    StderrLogger logger;
    plat::ScopedCurrentLogger scope(&logger);
    EXPECT_DEATH(plat::assertionFailed("queue != nullptr", "/build/x/libs/messaging/Queue.cpp", 42),
                 "\\[Assertion/0\\] Assertion 'queue != nullptr' failed at "
                 "libs/messaging/Queue:42");
    int two = 2;
    EXPECT_DEATH(PLAT_ASSERT(two == 3),
                 "\\[Assertion/0\\] Assertion 'two == 3' failed at tests/plat/AssertTest:[0-9]+");
}

TEST(AssertDeathTest, AbortsEvenWhenTheLoggerThrows) {
    zeltest::ThrowingLogger logger([] { throw std::runtime_error("log failed"); });
    plat::ScopedCurrentLogger scope(&logger);
    EXPECT_DEATH(PLAT_ASSERT(false), "");
}

TEST(Assert, HoldingConditionIsEvaluatedOnceAndLogsNothing) {
    RecordingLogger logger;
    plat::ScopedCurrentLogger scope(&logger);
    int evaluations = 0;
    PLAT_ASSERT(++evaluations == 1);
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(logger.lines.empty());
}

TEST(Assert, WarningLogsAndReturns) {
    RecordingLogger logger;
    {
        plat::ScopedCurrentLogger scope(&logger);
        plat::assertionWarning("timer list out of order");
    }
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].level, plat::kLogError);
    EXPECT_EQ(logger.lines[0].facility, "Assertion");
    EXPECT_EQ(logger.lines[0].text, "Warning: timer list out of order");

    plat::assertionWarning("no logger on this thread: dropped");
    zeltest::ThrowingLogger throwing([] { throw std::runtime_error("log failed"); });
    plat::ScopedCurrentLogger scope(&throwing);
    plat::assertionWarning("swallowed");
    EXPECT_EQ(throwing.calls, 1);
}

TEST(Assert, SourceNameIsProjectRelativeWithoutExtension) {
    struct Case {
        const char* file;
        unsigned size;
        const char* name;
    } cases[] = {
        {"/home/ci/work/libs/rdr/InStream.cpp", 128, "libs/rdr/InStream"},
        {"/w/src/sdk/SdkEntry.cpp", 128, "src/sdk/SdkEntry"},
        {"Local.cpp", 128, "Local"},
        {"/w/src/v1.2/Thing", 128, "src/v1.2/Thing"},  // a dot in a folder is no extension
        {"/w/libs/plat/TimerManager.cpp", 10, "libs/plat"},
    };
    for (const Case& c : cases) {
        char buffer[128];
        EXPECT_STREQ(plat::sourceName(c.file, buffer, c.size), c.name) << c.file;
    }
}

}  // namespace
