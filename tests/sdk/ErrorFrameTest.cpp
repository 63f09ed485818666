// The frame around every entry: whatever the body throws becomes a code and at most one
// error line, and nothing escapes to the application.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

#include "plat/RecordingLogger.h"
#include "sdk/ErrorFrame.h"

namespace {

using zeltest::RecordingLogger;

TEST(ErrorFrame, MapsEachKindToItsCodeAndLineEvenWhenTheLoggerThrows) {
    const struct {
        std::function<ZELCDBError()> body;
        ZELCDBError result;
        const char* line;  // nullptr: nothing logged
    } cases[] = {
        {[] { return ZELCDBErrorNotFound; }, ZELCDBErrorNotFound, nullptr},
        {[]() -> ZELCDBError { throw zelcdbsdk::ErrorException(ZELCDBErrorTimeout); },
         ZELCDBErrorTimeout, "Operation failed with CDB SDK error 12 (Timeout)"},
        {[]() -> ZELCDBError { throw zelcdbsdk::ErrorException(static_cast<ZELCDBError>(99)); },
         static_cast<ZELCDBError>(99), "Operation failed with CDB SDK error 99 (Unknown)"},
        {[]() -> ZELCDBError { throw plat::ExceptionFmt("bind %d", 7); }, ZELCDBErrorFailed,
         "Caught exception: bind 7"},
        {[]() -> ZELCDBError { throw std::bad_array_new_length(); }, ZELCDBErrorOutOfMemory,
         "Caught std::exception: std::bad_array_new_length"},
        {[]() -> ZELCDBError { throw std::out_of_range("index 9"); }, ZELCDBErrorFailed,
         "Caught std::exception: index 9"},
        {[]() -> ZELCDBError { throw 42; }, ZELCDBErrorFailed, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line ? c.line : "no line");
        RecordingLogger logger;
        EXPECT_EQ(zelcdbsdk::runGuarded(plat::LoggerRef{"CDBEndpoint", &logger}, c.body), c.result);
        ASSERT_EQ(logger.lines.size(), c.line ? 1u : 0u);
        if (c.line) {
            EXPECT_EQ(logger.lines[0].level, plat::kLogError);
            EXPECT_EQ(logger.lines[0].text, c.line);
        }
        // An application's log callback may throw too: the frame still gives the code.
        zeltest::ThrowingLogger throwing([] { throw std::runtime_error("log callback failed"); });
        EXPECT_EQ(zelcdbsdk::runGuarded(plat::LoggerRef{"CDBEndpoint", &throwing}, c.body),
                  c.result);
    }
    // Without a logger of its own, the line goes to the thread's current one.
    RecordingLogger current;
    plat::ScopedCurrentLogger scope(&current);
    EXPECT_EQ(zelcdbsdk::runGuarded(plat::LoggerRef{"ZELSBPSink", nullptr},
                                    []() -> ZELCDBError { throw std::bad_alloc(); }),
              ZELCDBErrorOutOfMemory);
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].facility, "ZELSBPSink");
}

}  // namespace
