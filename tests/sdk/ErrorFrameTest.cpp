#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "FailingAllocator.h"
#include "plat/RecordingLogger.h"
#include "sdk/ErrorFrame.h"

namespace {

using zeltest::RecordingLogger;

// Both a platform exception and a standard one: the platform catch comes first.
struct DualException : plat::Exception, std::runtime_error {
    DualException() : plat::Exception("dual"), std::runtime_error("standard side") {}
};

struct FrameCase {
    const char* name;
    std::function<ZELCDBError()> body;
    ZELCDBError result;
    const char* line;  // nullptr: nothing logged
};

const FrameCase kFrameCases[] = {
    {"success passes through", [] { return ZELCDBErrorNone; }, ZELCDBErrorNone, nullptr},
    {"a returned code passes through", [] { return ZELCDBErrorNotFound; }, ZELCDBErrorNotFound,
     nullptr},
    {"error exception keeps its code",
     []() -> ZELCDBError { throw zelcdbsdk::ErrorException(ZELCDBErrorTimeout); },
     ZELCDBErrorTimeout, "Operation failed with CDB SDK error 12 (Timeout)"},
    {"error exception with a code the table lacks",
     []() -> ZELCDBError { throw zelcdbsdk::ErrorException(static_cast<ZELCDBError>(99)); },
     static_cast<ZELCDBError>(99), "Operation failed with CDB SDK error 99 (Unknown)"},
    {"platform exception", []() -> ZELCDBError { throw plat::Exception("queue closed"); },
     ZELCDBErrorFailed, "Caught exception: queue closed"},
    {"platform exception subclass", []() -> ZELCDBError { throw plat::ExceptionFmt("bind %d", 7); },
     ZELCDBErrorFailed, "Caught exception: bind 7"},
    {"platform before standard", []() -> ZELCDBError { throw DualException(); }, ZELCDBErrorFailed,
     "Caught exception: dual"},
    {"bad_alloc is out of memory", []() -> ZELCDBError { throw std::bad_alloc(); },
     ZELCDBErrorOutOfMemory, "Caught std::exception: std::bad_alloc"},
    {"bad_alloc subclass is out of memory",
     []() -> ZELCDBError { throw std::bad_array_new_length(); }, ZELCDBErrorOutOfMemory,
     "Caught std::exception: std::bad_array_new_length"},
    {"other standard exception", []() -> ZELCDBError { throw std::out_of_range("index 9"); },
     ZELCDBErrorFailed, "Caught std::exception: index 9"},
    {"unknown exception is not logged", []() -> ZELCDBError { throw 42; }, ZELCDBErrorFailed,
     nullptr},
};

TEST(ErrorFrame, MapsEachKindToItsCodeAndLine) {
    for (const FrameCase& c : kFrameCases) {
        SCOPED_TRACE(c.name);
        RecordingLogger logger;
        plat::LoggerRef log{"CDBEndpoint", &logger};
        EXPECT_EQ(zelcdbsdk::runGuarded(log, c.body), c.result);
        if (c.line == nullptr) {
            EXPECT_TRUE(logger.lines.empty());
            continue;
        }
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_EQ(logger.lines[0].level, plat::kLogError);
        EXPECT_EQ(logger.lines[0].facility, "CDBEndpoint");
        EXPECT_EQ(logger.lines[0].text, c.line);
    }
}

TEST(ErrorFrame, ThrowingLoggerDoesNotBreakTheFrame) {
    const std::function<void()> raises[] = {
        [] { throw std::runtime_error("log callback failed"); },
        [] { throw std::bad_alloc(); },
        [] { throw plat::Exception("nested"); },
        [] { throw 7; },
    };
    for (const auto& raise : raises) {
        zeltest::ThrowingLogger logger(raise);
        plat::LoggerRef log{"CDBEndpoint", &logger};
        EXPECT_EQ(zelcdbsdk::runGuarded(log,
                                        []() -> ZELCDBError {
                                            throw zelcdbsdk::ErrorException(
                                                ZELCDBErrorIllegalWhileNotRunning);
                                        }),
                  ZELCDBErrorIllegalWhileNotRunning);
        EXPECT_EQ(zelcdbsdk::runGuarded(log, []() -> ZELCDBError { throw std::bad_alloc(); }),
                  ZELCDBErrorOutOfMemory);
        EXPECT_EQ(logger.calls, 2);
    }
}

TEST(ErrorFrame, ReferenceWithoutLoggerUsesTheThreadsCurrentOne) {
    plat::LoggerRef log{"ZELSBPSink", nullptr};
    auto body = []() -> ZELCDBError { throw plat::Exception("x"); };
    EXPECT_EQ(zelcdbsdk::runGuarded(log, body), ZELCDBErrorFailed);  // nowhere to log
    RecordingLogger current;
    plat::ScopedCurrentLogger scope(&current);
    EXPECT_EQ(zelcdbsdk::runGuarded(log, body), ZELCDBErrorFailed);
    ASSERT_EQ(current.lines.size(), 1u);
    EXPECT_EQ(current.lines[0].facility, "ZELSBPSink");
}

// A real allocation that fails inside the body, not a hand-thrown bad_alloc.
TEST(ErrorFrame, FailedAllocationReturnsOutOfMemory) {
    RecordingLogger logger;
    plat::LoggerRef log{"CDBEndpoint", &logger};
    std::vector<std::string> kept;
    auto body = [&] {
        kept.emplace_back(64, 'x');
        kept.emplace_back(64, 'y');
        return ZELCDBErrorNone;
    };
    // Every allocation of the body fails once in turn; each time the frame reports memory.
    unsigned failed = 0;
    for (unsigned n = 1;; ++n) {
        kept.clear();
        kept.shrink_to_fit();
        ZELCDBError result;
        bool triggered;
        {
            zeltest::FailNthAllocation failure(n);
            result = zelcdbsdk::runGuarded(log, body);
            triggered = failure.triggered();
        }
        if (!triggered) {
            EXPECT_EQ(result, ZELCDBErrorNone);
            break;
        }
        ++failed;
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << "allocation " << n;
        ASSERT_FALSE(logger.lines.empty());
        EXPECT_EQ(logger.lines.back().text, "Caught std::exception: std::bad_alloc");
        ASSERT_LT(n, 100u) << "the body never stops allocating";
    }
    EXPECT_GE(failed, 3u);  // the vector twice and at least one string
}

// The operators are called directly: a new-expression whose result is unused may be
// optimised away, and gtest's own allocations must stay outside the armed scopes.
TEST(FailingAllocator, FailsOnlyTheNthInEachForm) {
    void* nothrow[3];
    bool triggered;
    {
        zeltest::FailNthAllocation failure(2);
        for (void*& p : nothrow) p = ::operator new(sizeof(int), std::nothrow);
        triggered = failure.triggered();
    }
    EXPECT_TRUE(triggered);
    EXPECT_NE(nothrow[0], nullptr);
    EXPECT_EQ(nothrow[1], nullptr);
    EXPECT_NE(nothrow[2], nullptr);
    for (void* p : nothrow) ::operator delete(p);

    bool before, threw = false;
    {
        zeltest::FailNthAllocation failure(1);
        before = failure.triggered();
        try {
            ::operator delete[](::operator new[](8));
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        triggered = failure.triggered();
    }
    EXPECT_FALSE(before);
    EXPECT_TRUE(threw);
    EXPECT_TRUE(triggered);
}

}  // namespace
