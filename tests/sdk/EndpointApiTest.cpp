// The endpoint entries' checks, through the C table: what an application can get wrong and
// the code (or log line) it gets back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using sdktest::api;
using sdktest::App;
using sdktest::format;

constexpr uint32_t kParametersSize =
    offsetof(ZELCDBEndpointParameters, versionMinor) + sizeof(uint8_t);
constexpr uint32_t kServiceSize =
    offsetof(ZELCDBService, accessControl) + sizeof(ZELCDBService::accessControl);
const char* const kBanner = "log CDBEndpoint/30 ZEL CDB and SBP SDK, version: 2.7.0.2565";

ZELCDBEndpoint* const kDummy = reinterpret_cast<ZELCDBEndpoint*>(0x10);

std::vector<std::string> lines;
void recordLine(ZELCDBEndpoint*, void*, const char* category, int32_t level, const char* text) {
    lines.push_back(format("log %s/%d %s", category, level, text));
}
void recordStatus(ZELCDBEndpoint*, void*, int32_t status, ZELCDBError error) {
    lines.push_back(format("status %d %d", status, error));
}

TEST(EndpointCreate, RefusesBadParametersAndLeavesNoHandle) {
    std::string url = sdktest::freeUrl();
    const struct {
        const char* what;
        uint32_t size;
        int32_t mode;
        uint8_t major, minor;
        const char* url;
        ZELCDBError result;
    } cases[] = {
        {"smallest size", kParametersSize, 1, 1, 1, url.c_str(), ZELCDBErrorNone},
        {"server", kParametersSize, 2, 1, 1, url.c_str(), ZELCDBErrorNone},
        {"size short by one", kParametersSize - 1, 1, 1, 1, url.c_str(),
         ZELCDBErrorInvalidParameter},
        {"mode 0", kParametersSize, 0, 1, 1, url.c_str(), ZELCDBErrorInvalidParameter},
        {"mode 3", kParametersSize, 3, 1, 1, url.c_str(), ZELCDBErrorInvalidParameter},
        {"version 1.0", kParametersSize, 1, 1, 0, url.c_str(), ZELCDBErrorUnsupportedVersion},
        {"version 2.1", kParametersSize, 2, 2, 1, url.c_str(), ZELCDBErrorUnsupportedVersion},
        {"null url", kParametersSize, 1, 1, 1, nullptr, ZELCDBErrorInvalidParameter},
        {"no scheme", kParametersSize, 1, 1, 1, "127.0.0.1:80", ZELCDBErrorInvalidParameter},
        {"no host", kParametersSize, 1, 1, 1, "cdb://:80", ZELCDBErrorInvalidParameter},
        {"port too big", kParametersSize, 1, 1, 1, "cdb://127.0.0.1:65536",
         ZELCDBErrorInvalidParameter},
    };
    ZELCDBEndpointCallbacks callbacks = {&recordLine, nullptr, nullptr, nullptr, nullptr};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        lines.clear();
        ZELCDBEndpointParameters parameters = {c.url, c.mode, nullptr, c.major, c.minor};
        ZELCDBEndpoint* endpoint = kDummy;
        EXPECT_EQ(
            api().endpointCreate(&endpoint, &parameters, c.size, &callbacks, sizeof callbacks),
            c.result);
        if (c.result != ZELCDBErrorNone) {
            EXPECT_EQ(endpoint, nullptr);
            EXPECT_TRUE(lines.empty());
            continue;
        }
        // The banner is the first line, and it arrives before the call returns.
        ASSERT_NE(endpoint, nullptr);
        EXPECT_EQ(lines, std::vector<std::string>{kBanner});
        EXPECT_EQ(api().endpointDestroy(endpoint), ZELCDBErrorNone);
    }
    ZELCDBEndpointParameters parameters = {url.c_str(), 1, nullptr, 1, 1};
    ZELCDBEndpoint* endpoint = kDummy;
    EXPECT_EQ(api().endpointCreate(&endpoint, nullptr, kParametersSize, nullptr, 0),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(endpoint, nullptr);
    EXPECT_EQ(api().endpointCreate(nullptr, &parameters, kParametersSize, nullptr, 0),
              ZELCDBErrorInvalidParameter);
}

// The table is copied up to its own size: a short one leaves later callbacks out, a long
// one is not read beyond the table (ASan sees an over-read of this stack copy).
TEST(EndpointCreate, CopiesTheCallbacksTheSizeCovers) {
    std::string url = sdktest::freeUrl();
    ZELCDBEndpointParameters parameters = {url.c_str(), ZELCDBEndpointModeServer, nullptr, 1, 1};
    const ZELCDBEndpointCallbacks callbacks = {&recordLine, &recordStatus, nullptr, nullptr,
                                               nullptr};
    const struct {
        const ZELCDBEndpointCallbacks* table;
        uint32_t size;
        bool log, status;
    } cases[] = {
        {&callbacks, sizeof callbacks.logCallback, true, false},
        {&callbacks, sizeof callbacks.logCallback + 1, true, false},
        {&callbacks, offsetof(ZELCDBEndpointCallbacks, peerServicesAddedCallback), true, true},
        {&callbacks, sizeof callbacks + 64, true, true},
        {&callbacks, 0, false, false},
        {nullptr, sizeof callbacks, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        lines.clear();
        ZELCDBEndpoint* endpoint = nullptr;
        ASSERT_EQ(api().endpointCreate(&endpoint, &parameters, sizeof parameters, c.table, c.size),
                  ZELCDBErrorNone);
        ASSERT_EQ(api().endpointStart(endpoint), ZELCDBErrorNone);
        ASSERT_EQ(api().endpointStop(endpoint), ZELCDBErrorNone);
        EXPECT_EQ(api().endpointDestroy(endpoint), ZELCDBErrorNone);
        bool logged = !lines.empty() && lines.front() == kBanner;
        size_t statuses = 0;
        for (const auto& l : lines) statuses += l.compare(0, 7, "status ") == 0;
        EXPECT_EQ(logged, c.log);
        EXPECT_EQ(statuses, c.status ? 2u : 0u);
    }
}

TEST(EndpointEntries, NullHandleAndNotRunningGiveTheirCodes) {
    App app(ZELCDBEndpointModeServer, sdktest::freeUrl());
    ZELCDBSinkCallbacks sink = {};
    ZELCDBService service = {0, "svc", 1, 0, 0, 0};
    const uint8_t data[4] = {1, 2, 3, 4};
    const ZELCDBSDK& t = api();
    // Entries that need a running endpoint (Stop last, so that the second round stops it).
    const std::function<ZELCDBError(ZELCDBEndpoint*)> runningOnly[] = {
        [&](ZELCDBEndpoint* e) { return t.endpointAddSink(e, nullptr, 1, &sink, sizeof sink); },
        [&](ZELCDBEndpoint* e) { return t.endpointSendStartService(e, 1); },
        [&](ZELCDBEndpoint* e) { return t.endpointSendStopService(e, 1); },
        [&](ZELCDBEndpoint* e) { return t.endpointSendServicePayload(e, 1, data, 4); },
        [&](ZELCDBEndpoint* e) { return t.endpointSendServicePayload(e, 1, nullptr, 0); },
        [&](ZELCDBEndpoint* e) { return t.endpointSendServiceResponse(e, 1, 1); },
        [&](ZELCDBEndpoint* e) { return t.endpointStop(e); },
    };
    for (size_t i = 0; i < sizeof runningOnly / sizeof runningOnly[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(runningOnly[i](nullptr), ZELCDBErrorInvalidParameter);
        EXPECT_EQ(runningOnly[i](app.ep), ZELCDBErrorIllegalWhileNotRunning);
    }
    EXPECT_EQ(t.endpointAddSourceService(nullptr, nullptr, &service, sizeof service, nullptr, 0),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(t.endpointDestroy(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(t.endpointStart(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(t.endpointGetContext(nullptr), nullptr);
    EXPECT_EQ(t.endpointGetContext(app.ep), &app);

    // The payload limit is checked before anything else, even the handle.
    static uint8_t largest[8101];
    EXPECT_EQ(t.endpointSendServicePayload(nullptr, 1, largest, 8101), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(t.endpointSendServicePayload(app.ep, 1, largest, 8101), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(t.endpointSendServicePayload(app.ep, 1, largest, 8100),
              ZELCDBErrorIllegalWhileNotRunning);
    EXPECT_EQ(t.endpointSendServicePayload(app.ep, 1, nullptr, 1), ZELCDBErrorInvalidParameter);

    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_EQ(app.start(), ZELCDBErrorIllegalWhileRunning);
    EXPECT_TRUE(app.waitForLog(0, "Operation failed with CDB SDK error 6 (IllegalWhileRunning)"));
    EXPECT_EQ(app.addSource("late"), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorIllegalWhileRunning);
    for (size_t i = 0; i < sizeof runningOnly / sizeof runningOnly[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(runningOnly[i](app.ep), ZELCDBErrorNone);
    }
    EXPECT_EQ(app.stop(), ZELCDBErrorIllegalWhileNotRunning);
}

TEST(EndpointRegistration, IdsFollowTheModeAndRefusalsConsumeNone) {
    std::string longest(255, 'n');
    std::string tooLong(256, 'n');
    for (int32_t mode : {ZELCDBEndpointModeClient, ZELCDBEndpointModeServer}) {
        SCOPED_TRACE(mode);
        uint16_t base = mode == ZELCDBEndpointModeClient ? 0x0001 : 0x4001;
        App app(mode, sdktest::freeUrl());
        EXPECT_EQ(app.addSource("first", 1, 2), base);
        EXPECT_TRUE(app.waitForLog(30, format("Added source service 'first', version 1.2 with "
                                              "service ID %d (0x%04x)",
                                              base, base)));
        EXPECT_EQ(app.addSource(tooLong.c_str()), 0);
        EXPECT_EQ(app.lastResult, ZELCDBErrorInvalidParameter);
        EXPECT_EQ(app.addSource(nullptr), 0);
        EXPECT_EQ(app.lastResult, ZELCDBErrorInvalidParameter);

        ZELCDBService service = {0xBEEF, "sized", 3, 4, 0x11, 0x22};
        EXPECT_EQ(
            api().endpointAddSourceService(app.ep, nullptr, &service, kServiceSize - 1, nullptr, 0),
            ZELCDBErrorInvalidParameter);
        EXPECT_EQ(
            api().endpointAddSourceService(app.ep, nullptr, nullptr, kServiceSize, nullptr, 0),
            ZELCDBErrorInvalidParameter);
        EXPECT_EQ(service.serviceId, 0xBEEF);

        // Only the size the entry reads is needed, and only the ID is written.
        EXPECT_EQ(
            api().endpointAddSourceService(app.ep, nullptr, &service, kServiceSize, nullptr, 0),
            ZELCDBErrorNone);
        EXPECT_EQ(service.serviceId, base + 1);
        EXPECT_EQ(service.accessControl, 0x22u);
        EXPECT_EQ(app.addSource(longest.c_str()), base + 2);
    }
}

// One ServicesSupported must carry every source: 4 bytes, then 7 plus the name per service,
// within a 16-bit length. 250 names of 255 bytes take 65504; a 24-byte name fills it to
// exactly 65535.
TEST(EndpointRegistration, ServicesBeyondOneServicesSupportedAreRefusedWithoutAnId) {
    sdktest::Pair pair;
    App& app = pair.server;
    std::string longest(255, 'n');
    for (int i = 0; i < 250; ++i) ASSERT_EQ(app.addSource(longest.c_str()), 0x4001 + i);
    EXPECT_EQ(app.addSource(longest.c_str()), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);
    EXPECT_TRUE(app.waitForLog(0, "Failed to add source service '" + longest +
                                      "' - ServicesSupported would take 65766 bytes, maximum "
                                      "is 65535"));
    EXPECT_EQ(app.addSource(std::string(24, 'f').c_str()), 0x4001 + 250);
    EXPECT_EQ(app.addSource(""), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);

    // And the peer gets all of them.
    ASSERT_TRUE(pair.connect());
    std::string added = pair.client.events.startingWith("added ")[0];
    EXPECT_NE(added.find(format("[%d %s 1.0 0x0 0x0]", 0x4001 + 250, std::string(24, 'f').c_str())),
              std::string::npos);
}

TEST(EndpointStart, ReturnsOnceTheThreadRunsSoRunningOnlyCallsAreAccepted) {
    App app(ZELCDBEndpointModeServer, sdktest::freeUrl());
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        ASSERT_EQ(app.addSink(1), ZELCDBErrorNone) << "cycle " << i;
        ASSERT_EQ(app.stop(), ZELCDBErrorNone);
    }
    EXPECT_EQ(app.events.count("status 1 0"), 30);
}

// A thread that cannot create its wake-up pipe never runs: Start says so.
TEST(EndpointStart, ThreadThatCannotInitialiseIsReportedAsFailed) {
    App app(ZELCDBEndpointModeServer, sdktest::freeUrl());
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(sdktest::descriptorCount() + 16);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    int null = ::open("/dev/null", O_RDONLY);
    std::vector<int> hogs;
    for (int fd; (fd = ::dup(null)) >= 0;) hogs.push_back(fd);
    ZELCDBError result = app.start();
    for (int fd : hogs) ::close(fd);
    ::close(null);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, ZELCDBErrorFailed);
    EXPECT_EQ(app.events.count("log CDBEndpoint/0 Failed to initialise the endpoint thread"), 1);
    EXPECT_EQ(app.events.count("status 1 0"), 0);
    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_TRUE(app.waitFor("status 1 0"));
}

}  // namespace
