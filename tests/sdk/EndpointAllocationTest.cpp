// Allocation failure injected into each allocation of the endpoint entries, one at a time:
// the call returns OutOfMemory, changes nothing, and leaves nothing behind (ASan checks the
// leaks). Only the calling thread's allocations are failed.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "FailingAllocator.h"
#include "plat/DString.h"
#include "sdk/EndpointHarness.h"

namespace {

using sdktest::api;

// Callbacks that allocate nothing, so that every failed allocation is the library's.
std::atomic<int> logLines{0};
const ZELCDBEndpointCallbacks kCallbacks = {
    [](ZELCDBEndpoint*, void*, const char*, int32_t, const char*) { ++logLines; }, nullptr, nullptr,
    nullptr, nullptr};
const std::string kUrl = sdktest::freeUrl();

// Runs call with its n-th allocation failed, for n = 1, 2, ... until a run allocates fewer
// than n times. Every failed run must give OutOfMemory and pass `unchanged`; returns the
// result of the run that did not fail, after checking that at least `least` were made.
ZELCDBError failEachAllocation(const std::function<ZELCDBError()>& call,
                               const std::function<void()>& unchanged, unsigned least) {
    for (unsigned n = 1;; ++n) {
        ZELCDBError result;
        bool failed;
        {
            zeltest::FailNthAllocation failure(n);
            result = call();
            failed = failure.triggered();
        }
        if (!failed) {
            EXPECT_GE(n - 1, least);
            return result;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << "allocation " << n;
        unchanged();
    }
}

// Creation (the endpoint, its mutexes, its URL) gives no handle and no banner for an
// endpoint that does not exist; a registration (the handler, the record's name, the lists)
// consumes no ID. Posting to a running endpoint from another thread copies the message into
// the queue's storage, which grows only when more messages wait at once than ever before
// since the start: a failure leaves the endpoint running. Destroying a running endpoint posts
// its stop too: a failure keeps the endpoint.
TEST(EndpointAllocation, FailedCallsLeaveEverythingAsItWas) {
    ZELCDBEndpointParameters parameters = {kUrl.c_str(), ZELCDBEndpointModeServer, nullptr, 1, 1};
    ZELCDBEndpoint* ep = nullptr;
    auto create = [&] {
        ep = reinterpret_cast<ZELCDBEndpoint*>(0x10);
        return api().endpointCreate(&ep, &parameters, sizeof parameters, &kCallbacks,
                                    sizeof kCallbacks);
    };
    auto nothing = [&] { EXPECT_TRUE(ep == nullptr && logLines == 0); };
    ASSERT_EQ(failEachAllocation(create, nothing, 3), ZELCDBErrorNone);
    EXPECT_EQ(logLines, 1);
    ZELCDBService service = {0, "a name too long to be kept inside the string object", 1, 0, 0, 0};
    auto add = [&] {
        return api().endpointAddSourceService(ep, nullptr, &service, sizeof service, nullptr, 0);
    };
    ASSERT_EQ(failEachAllocation(
                  add, [&] { EXPECT_EQ(service.serviceId, 0); }, 3),
              ZELCDBErrorNone);
    ASSERT_EQ(service.serviceId, 0x4001);
    ASSERT_EQ(add(), ZELCDBErrorNone);
    EXPECT_EQ(service.serviceId, 0x4002);

    uint8_t payload[100] = {};
    ZELCDBSinkCallbacks sink = {};
    const std::function<ZELCDBError()> calls[] = {
        [&] { return api().endpointSendServicePayload(ep, 0x4001, payload, 100); },
        [&] { return api().endpointSendServiceResponse(ep, 0x4001, 1); },
        [&] { return api().endpointSendStartService(ep, 1); },
        [&] { return api().endpointSendStopService(ep, 1); },
        [&] { return api().endpointAddSink(ep, nullptr, 1, &sink, sizeof sink); },
        [&] { return api().endpointStop(ep); },
        [&] { return api().endpointDestroy(ep); },
    };
    auto stillRunning = [&] { EXPECT_EQ(api().endpointSendStartService(ep, 1), ZELCDBErrorNone); };
    for (const auto& call : calls) {
        // A stopped endpoint keeps no storage for messages: the first post after a start
        // has to grow the queue.
        api().endpointStop(ep);
        ASSERT_EQ(api().endpointStart(ep), ZELCDBErrorNone);
        EXPECT_EQ(failEachAllocation(call, stillRunning, 1), ZELCDBErrorNone);
    }
}

// The endpoint thread formats its lines into one buffer it keeps, so that a line per message
// costs no allocation once the buffer has grown: two lines come in the same storage, even
// when a fresh buffer would have been handed other storage. A line logged on another thread
// has a buffer of its own, which the endpoint thread's next lines must not overwrite while
// the application still reads it.
TEST(EndpointAllocation, LinesOfTheEndpointThreadShareOneBufferOthersHaveTheirOwn) {
    static ZELCDBEndpoint* ep = nullptr;
    static std::thread::id endpointThread;
    static std::vector<const char*> endpointLines;
    static std::string ownLine, ownLineLater;
    const ZELCDBEndpointCallbacks callbacks = {
        [](ZELCDBEndpoint*, void*, const char*, int32_t, const char* text) {
            if (std::this_thread::get_id() == endpointThread) {
                if (std::strstr(text, "IllegalWhileRunning")) endpointLines.push_back(text);
                return;
            }
            if (!ownLine.empty() || std::strstr(text, "IllegalWhileRunning") == nullptr) return;
            ownLine = text;
            // Ends the endpoint thread, which logs on its way out, before this line is read
            // again.
            api().endpointStop(ep);
            ownLineLater = text;
        },
        [](ZELCDBEndpoint* e, void*, int32_t status, ZELCDBError) {
            if (status != ZELCDBStatusStarted) return;
            endpointThread = std::this_thread::get_id();
            endpointLines.reserve(2);
            // Two refused calls from inside the callback, each logging a line; between them
            // a buffer like a fresh line's takes the storage a line just left, if it left it.
            api().endpointDestroy(e);
            plat::DString spacer;
            spacer.format("%s", "");
            api().endpointDestroy(e);
        },
        nullptr, nullptr, nullptr};
    ZELCDBEndpointParameters parameters = {kUrl.c_str(), ZELCDBEndpointModeServer, nullptr, 1, 1};
    ASSERT_EQ(
        api().endpointCreate(&ep, &parameters, sizeof parameters, &callbacks, sizeof callbacks),
        ZELCDBErrorNone);
    ASSERT_EQ(api().endpointStart(ep), ZELCDBErrorNone);
    EXPECT_EQ(api().endpointStart(ep), ZELCDBErrorIllegalWhileRunning);
    ASSERT_EQ(endpointLines.size(), 2u);
    EXPECT_EQ(endpointLines[0], endpointLines[1]);
    EXPECT_EQ(ownLine, "Operation failed with CDB SDK error 6 (IllegalWhileRunning)");
    EXPECT_EQ(ownLineLater, ownLine);
    EXPECT_EQ(api().endpointDestroy(ep), ZELCDBErrorNone);
}

}  // namespace
