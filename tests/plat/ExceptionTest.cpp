#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "plat/Assert.h"
#include "plat/Exception.h"
#include "plat/RecordingLogger.h"

namespace {

using zeltest::RecordingLogger;

TEST(Exception, TextsOfEachKindAndTheCutAt255Characters) {
    auto err = [](int e) { return std::string(std::strerror(e)) + " (" + std::to_string(e) + ")"; };
    const std::string big(300, 'x'), cut = big.substr(0, 255), fits(255, 'y');
    const std::string cases[][2] = {
        {plat::SystemException("", 2).str(), err(2)},
        {plat::SystemException("connect", 111).str(), "connect: " + err(111)},
        {plat::SystemExceptionFmt(13, "open %s at %d", "/dev/x", 7).str(),
         "open /dev/x at 7: " + err(13)},
        {plat::AssertionFail("due >= now", "libs/plat/TimerManager", 88).str(),
         "Assertion 'due >= now' failed at libs/plat/TimerManager:88"},
        {plat::Exception().str(), ""},
        {plat::Exception(big.c_str()).str(), cut},
        // A long text leaves no room for the error description: the tail is what goes.
        {plat::SystemException(big.c_str(), 2).str(), cut},
        {plat::SystemExceptionFmt(2, "%s", big.c_str()).str(), cut},
        {plat::AssertionFail(big.c_str(), "f", 1).str(), ("Assertion '" + big).substr(0, 255)},
        {plat::Exception(fits.c_str()).str(), fits},
    };
    for (const auto& c : cases) EXPECT_EQ(c[0], c[1]);
}

TEST(AssertDeathTest, HardAssertionLogsTheLineAndAbortsEvenWhenTheLoggerThrows) {
    zeltest::StderrLogger logger;
    plat::ScopedCurrentLogger scope(&logger);
    EXPECT_DEATH(plat::assertionFailed("queue != nullptr", "/build/x/libs/messaging/Queue.cpp", 42),
                 "\\[Assertion/0\\] Assertion 'queue != nullptr' failed at "
                 "libs/messaging/Queue:42");
    int two = 2;
    EXPECT_DEATH(
        PLAT_ASSERT(two == 3),
        "\\[Assertion/0\\] Assertion 'two == 3' failed at tests/plat/ExceptionTest:[0-9]+");
    zeltest::ThrowingLogger throwing([] { throw std::runtime_error("log failed"); });
    plat::ScopedCurrentLogger throwingScope(&throwing);
    EXPECT_DEATH(PLAT_ASSERT(false), "");
}

TEST(Assert, HoldingConditionIsEvaluatedOnceAndWarningsLogAndReturn) {
    RecordingLogger logger;
    {
        plat::ScopedCurrentLogger scope(&logger);
        int evaluations = 0;
        PLAT_ASSERT(++evaluations == 1);
        EXPECT_EQ(evaluations, 1);
        EXPECT_TRUE(logger.lines.empty());
        plat::assertionWarning("timer list out of order");
    }
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].text, "Warning: timer list out of order");

    plat::assertionWarning("no logger on this thread: dropped");
    zeltest::ThrowingLogger throwing([] { throw std::runtime_error("log failed"); });
    plat::ScopedCurrentLogger scope(&throwing);
    plat::assertionWarning("swallowed");
    EXPECT_EQ(throwing.calls, 1);
}

TEST(Assert, SourceNameIsProjectRelativeWithoutExtension) {
    // The build hands every source its path relative to the tree, wherever it is checked out.
    EXPECT_STREQ(__FILE__, "tests/plat/ExceptionTest.cpp");
    const struct {
        const char* file;
        unsigned size;
        const char* name;
    } cases[] = {
        {"libs/rdr/InStream.cpp", 128, "libs/rdr/InStream"},
        {"/home/ci/libs/zel/libs/rdr/InStream.cpp", 128, "libs/rdr/InStream"},
        {"/home/ci/src/zel/tests/plat/ExceptionTest.cpp", 128, "tests/plat/ExceptionTest"},
        {"Local.cpp", 128, "Local"},
        {"/src/Thing.cpp", 128, "src/Thing"},          // a root at the very start
        {"/w/src/v1.2/Thing", 128, "src/v1.2/Thing"},  // a dot in a folder is no extension
        {"/w/libs/plat/TimerManager.cpp", 10, "libs/plat"},
    };
    for (const auto& c : cases) {
        char buffer[128];
        EXPECT_STREQ(plat::sourceName(c.file, buffer, c.size), c.name) << c.file;
    }
}

}  // namespace
