// Allocation failure injected into each allocation of the endpoint entries, one at a time:
// the call returns OutOfMemory, changes nothing, and leaves nothing behind (ASan checks the
// leaks). Only the calling thread's allocations are failed.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>

#include "FailingAllocator.h"
#include "sdk/EndpointHarness.h"

namespace {

using sdktest::api;

// Callbacks that allocate nothing, so that every failed allocation is the library's.
std::atomic<int> logLines{0};
void countLine(ZELCDBEndpoint*, void*, const char*, int32_t, const char*) {
    ++logLines;
}

struct Endpoint {
    explicit Endpoint(int32_t mode = ZELCDBEndpointModeServer) : url(sdktest::freeUrl()) {
        ZELCDBEndpointParameters parameters = {url.c_str(), mode, nullptr, 1, 1};
        ZELCDBEndpointCallbacks callbacks = {&countLine, nullptr, nullptr, nullptr, nullptr};
        EXPECT_EQ(
            api().endpointCreate(&ep, &parameters, sizeof parameters, &callbacks, sizeof callbacks),
            ZELCDBErrorNone);
    }
    ~Endpoint() {
        if (ep) api().endpointDestroy(ep);
    }
    std::string url;
    ZELCDBEndpoint* ep = nullptr;
};

// Runs call with its n-th allocation failed, for n = 1, 2, ... until a run allocates fewer
// than n times. Every failed run must give OutOfMemory; returns the number of allocations
// the call made and the result of the run that did not fail.
ZELCDBError failEachAllocation(const std::function<ZELCDBError()>& call,
                               const std::function<void()>& afterFailure, unsigned* allocations) {
    for (unsigned n = 1;; ++n) {
        ZELCDBError result;
        bool failed;
        {
            zeltest::FailNthAllocation failure(n);
            result = call();
            failed = failure.triggered();
        }
        if (!failed) {
            *allocations = n - 1;
            return result;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << "allocation " << n;
        afterFailure();
    }
}

TEST(EndpointAllocation, CreateFailsCleanly) {
    std::string url = sdktest::freeUrl();
    ZELCDBEndpointParameters parameters = {url.c_str(), ZELCDBEndpointModeClient, nullptr, 1, 1};
    ZELCDBEndpointCallbacks callbacks = {&countLine, nullptr, nullptr, nullptr, nullptr};
    ZELCDBEndpoint* endpoint = nullptr;
    logLines = 0;
    unsigned allocations = 0;
    ZELCDBError result = failEachAllocation(
        [&] {
            endpoint = reinterpret_cast<ZELCDBEndpoint*>(0x10);
            return api().endpointCreate(&endpoint, &parameters, sizeof parameters, &callbacks,
                                        sizeof callbacks);
        },
        [&] {
            EXPECT_EQ(endpoint, nullptr);
            EXPECT_EQ(logLines, 0);  // no banner for an endpoint that does not exist
        },
        &allocations);
    EXPECT_GE(allocations, 3u);  // the endpoint, its mutexes, its URL
    ASSERT_EQ(result, ZELCDBErrorNone);
    EXPECT_EQ(logLines, 1);
    EXPECT_EQ(api().endpointDestroy(endpoint), ZELCDBErrorNone);
}

TEST(EndpointAllocation, FailedRegistrationConsumesNoId) {
    Endpoint e(ZELCDBEndpointModeClient);
    const char* name = "a name too long to be kept inside the string object";
    unsigned allocations = 0;
    ZELCDBService service = {0, name, 1, 0, 0, 0};
    ZELCDBError result = failEachAllocation(
        [&] {
            return api().endpointAddSourceService(e.ep, nullptr, &service, sizeof service, nullptr,
                                                  0);
        },
        [&] { EXPECT_EQ(service.serviceId, 0); }, &allocations);
    EXPECT_GE(allocations, 3u);  // the handler, the record's name, the lists
    ASSERT_EQ(result, ZELCDBErrorNone);
    EXPECT_EQ(service.serviceId, 1);
    ASSERT_EQ(api().endpointAddSourceService(e.ep, nullptr, &service, sizeof service, nullptr, 0),
              ZELCDBErrorNone);
    EXPECT_EQ(service.serviceId, 2);
}

// Posting to a running endpoint from another thread clones the message and queues it.
TEST(EndpointAllocation, FailedPostingLeavesTheEndpointRunning) {
    Endpoint e;
    ASSERT_EQ(api().endpointStart(e.ep), ZELCDBErrorNone);
    uint8_t payload[100] = {};
    ZELCDBSinkCallbacks sink = {};
    const struct {
        const char* what;
        std::function<ZELCDBError()> call;
    } cases[] = {
        {"payload", [&] { return api().endpointSendServicePayload(e.ep, 0x4001, payload, 100); }},
        {"response", [&] { return api().endpointSendServiceResponse(e.ep, 0x4001, 1); }},
        {"start service", [&] { return api().endpointSendStartService(e.ep, 1); }},
        {"stop service", [&] { return api().endpointSendStopService(e.ep, 1); }},
        {"add sink", [&] { return api().endpointAddSink(e.ep, nullptr, 1, &sink, sizeof sink); }},
        {"stop", [&] { return api().endpointStop(e.ep); }},
    };
    auto stillRunning = [&] {
        EXPECT_EQ(api().endpointSendStartService(e.ep, 1), ZELCDBErrorNone);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        unsigned allocations = 0;
        EXPECT_EQ(failEachAllocation(c.call, stillRunning, &allocations), ZELCDBErrorNone);
        EXPECT_GE(allocations, 2u);  // the copy and its queue entry
    }
    EXPECT_EQ(api().endpointStop(e.ep), ZELCDBErrorIllegalWhileNotRunning);

    // Destroying a running endpoint posts its stop too: a failure keeps the endpoint.
    ASSERT_EQ(api().endpointStart(e.ep), ZELCDBErrorNone);
    unsigned allocations = 0;
    ZELCDBError result =
        failEachAllocation([&] { return api().endpointDestroy(e.ep); }, stillRunning, &allocations);
    EXPECT_GE(allocations, 2u);
    EXPECT_EQ(result, ZELCDBErrorNone);
    e.ep = nullptr;
}

}  // namespace
