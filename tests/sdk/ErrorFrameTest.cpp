#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "FailingAllocator.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "plat/RecordingLogger.h"
#include "rdr/FullyBufferedOutStream.h"
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

// Each allocation the library makes inside the body fails once in turn (a queue and its
// mutexes and conditions, a memory stream's block and its growth): each time the frame reports
// memory, and nothing leaks (the sanitizer build checks).
TEST(ErrorFrame, FailedLibraryAllocationReturnsOutOfMemory) {
    RecordingLogger logger;
    auto body = [] {
        messaging::ControlMessageQueueUNIX queue(nullptr);
        rdr::MemOutStream out(16);
        const char bytes[64] = {};
        out.writeBytes(bytes, sizeof bytes);
        return ZELCDBErrorNone;
    };
    unsigned n = 1;
    for (;; ++n) {
        ZELCDBError result;
        bool triggered;
        {
            zeltest::FailNthAllocation failure(n);
            result = zelcdbsdk::runGuarded(plat::LoggerRef{"CDBEndpoint", &logger}, body);
            triggered = failure.triggered();
        }
        if (!triggered) {
            EXPECT_EQ(result, ZELCDBErrorNone);
            break;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << "allocation " << n;
        ASSERT_FALSE(logger.lines.empty());
        EXPECT_EQ(logger.lines.back().text, "Caught std::exception: std::bad_alloc");
        ASSERT_LT(n, 100u) << "the body never stops allocating";
    }
    EXPECT_EQ(logger.lines.size(), n - 1);
    EXPECT_GE(n, 6u);  // the queue's four primitives, the block and its growth
}

// A stream whose sink takes nothing, to reach its buffer's growth.
class HoldingStream : public rdr::FullyBufferedOutStream {
public:
    using rdr::FullyBufferedOutStream::FullyBufferedOutStream;

protected:
    size_t writeData(const void*, size_t) override { return 0; }
};

// The injector itself, on allocations the library makes, one per form of operator new: the
// n-th allocation fails and only that one. gtest stays outside the armed scopes.
TEST(FailingAllocator, FailsOnlyTheNthLibraryAllocationInEachForm) {
    bool triggered;
    // nothrow array: growing for eight bytes fails, so the stream grows for one item.
    HoldingStream stream(4, 64);
    stream.writeU32(0);
    size_t fit;
    {
        zeltest::FailNthAllocation failure(1);
        fit = stream.overrun(1, 8);
        triggered = failure.triggered();
    }
    EXPECT_TRUE(triggered);
    EXPECT_EQ(fit, 1u);
    EXPECT_EQ(stream.capacity(), 8u);

    // array: the second of three streams.
    int thrownAt = 0;
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

    // plain: the queue's first allocation; the next queue is built whole.
    bool threw = false, secondBuilt = false;
    {
        zeltest::FailNthAllocation failure(1);
        try {
            messaging::ControlMessageQueueUNIX queue(nullptr);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        messaging::ControlMessageQueueUNIX queue(nullptr);
        secondBuilt = true;
        triggered = failure.triggered();
    }
    EXPECT_TRUE(threw && secondBuilt && triggered);

    // nothrow: the serializer object behind the table's create entry.
    ZELCDBSDK table;
    ASSERT_EQ(ZELCDBSDKInitialize(&table, sizeof table), ZELCDBErrorNone);
    ZELSBPSerializer* serializers[2] = {nullptr, nullptr};
    ZELCDBError created[2];
    {
        zeltest::FailNthAllocation failure(1);
        for (int i = 0; i < 2; ++i) created[i] = table.serializerCreate(&serializers[i]);
        triggered = failure.triggered();
    }
    EXPECT_TRUE(triggered);
    EXPECT_EQ(created[0], ZELCDBErrorOutOfMemory);
    EXPECT_EQ(serializers[0], nullptr);
    EXPECT_EQ(created[1], ZELCDBErrorNone);
    EXPECT_EQ(table.serializerDestroy(serializers[1]), ZELCDBErrorNone);
}

}  // namespace
