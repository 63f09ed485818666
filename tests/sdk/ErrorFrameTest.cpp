#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "FailingAllocator.h"
#include "plat/RecordingLogger.h"
#include "rdr/MemOutStream.h"
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

TEST(ErrorFrame, ThrowingLoggerDoesNotBreakTheFrameAndNoLoggerMeansTheCurrentOne) {
    const std::function<void()> raises[] = {
        [] { throw std::runtime_error("log callback failed"); },
        [] { throw std::bad_alloc(); },
        [] { throw plat::Exception("nested"); },
        [] { throw 7; },
    };
    auto illegal = []() -> ZELCDBError {
        throw zelcdbsdk::ErrorException(ZELCDBErrorIllegalWhileNotRunning);
    };
    for (const auto& raise : raises) {
        zeltest::ThrowingLogger logger(raise);
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

// The injector the allocation tests rely on: the n-th allocation fails, and only that one,
// whether made by plain, array or nothrow new.
TEST(FailingAllocator, FailsOnlyTheNthAllocation) {
    int thrownAt = 0;
    bool triggered;
    {
        zeltest::FailNthAllocation failure(2);
        for (int i = 1; i <= 3; ++i) {
            try {
                rdr::MemOutStream out(8);
            } catch (const std::bad_alloc&) {
                thrownAt = thrownAt ? -1 : i;
            }
        }
        triggered = failure.triggered();
    }
    EXPECT_TRUE(triggered);
    EXPECT_EQ(thrownAt, 2);

    ZELCDBSDK table;
    ASSERT_EQ(ZELCDBSDKInitialize(&table, sizeof table), ZELCDBErrorNone);
    ZELSBPSerializer* serializers[2] = {nullptr, nullptr};
    ZELCDBError created[2];
    {
        zeltest::FailNthAllocation failure(1);
        for (int i = 0; i < 2; ++i) created[i] = table.serializerCreate(&serializers[i]);
    }
    EXPECT_EQ(created[0], ZELCDBErrorOutOfMemory);
    EXPECT_EQ(created[1], ZELCDBErrorNone);
    EXPECT_EQ(table.serializerDestroy(serializers[1]), ZELCDBErrorNone);
}

}  // namespace
