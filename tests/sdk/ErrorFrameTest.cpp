#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "plat/RecordingLogger.h"
#include "sdk/ErrorFrame.h"
#include "zelcdbsdk.h"

namespace {

using zeltest::RecordingLogger;

// Both a platform exception and a standard one: the platform catch comes first.
struct DualException : plat::Exception, std::runtime_error {
    DualException() : plat::Exception("dual"), std::runtime_error("standard side") {}
};

TEST(ErrorFrame, MapsEachKindToItsCodeAndLine) {
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
        {[]() -> ZELCDBError { throw DualException(); }, ZELCDBErrorFailed,
         "Caught exception: dual"},
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
            EXPECT_EQ(logger.lines[0].facility, "CDBEndpoint");
            EXPECT_EQ(logger.lines[0].text, c.line);
        }
    }
}

// A logger that throws (as an application's log callback may) does not break the frame; a
// frame without a logger writes through the thread's current one.
TEST(ErrorFrame, ThrowingLoggerDoesNotBreakTheFrameAndNoLoggerMeansTheCurrentOne) {
    auto illegal = []() -> ZELCDBError {
        throw zelcdbsdk::ErrorException(ZELCDBErrorIllegalWhileNotRunning);
    };
    for (int kind = 0; kind < 4; ++kind) {
        zeltest::ThrowingLogger logger([kind] {
            if (kind == 0) throw std::runtime_error("log callback failed");
            if (kind == 1) throw std::bad_alloc();
            if (kind == 2) throw plat::Exception("nested");
            throw 7;
        });
        plat::LoggerRef log{"CDBEndpoint", &logger};
        EXPECT_EQ(zelcdbsdk::runGuarded(log, illegal), ZELCDBErrorIllegalWhileNotRunning);
        EXPECT_EQ(zelcdbsdk::runGuarded(log, []() -> ZELCDBError { throw std::bad_alloc(); }),
                  ZELCDBErrorOutOfMemory);
        EXPECT_EQ(logger.calls, 2);
    }
    plat::LoggerRef unnamed{"ZELSBPSink", nullptr};
    EXPECT_EQ(zelcdbsdk::runGuarded(unnamed, illegal), ZELCDBErrorIllegalWhileNotRunning);
    RecordingLogger current;
    plat::ScopedCurrentLogger scope(&current);
    EXPECT_EQ(zelcdbsdk::runGuarded(unnamed, illegal), ZELCDBErrorIllegalWhileNotRunning);
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].facility, "ZELSBPSink");
}

}  // namespace
