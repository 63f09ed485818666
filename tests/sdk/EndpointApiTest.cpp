// The entries' checks, through the C table: what an application can get wrong and the code
// (or log line) it gets back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using namespace sdktest;

constexpr uint32_t kParametersSize =
    offsetof(ZELCDBEndpointParameters, versionMinor) + sizeof(uint8_t);
constexpr uint32_t kServiceSize =
    offsetof(ZELCDBService, accessControl) + sizeof(ZELCDBService::accessControl);
const char* const kBanner = "log CDBEndpoint/30 ZEL CDB and SBP SDK, version: 2.7.0.2565";

Lines lines;
void recordLine(ZELCDBEndpoint*, void*, const char* category, int32_t level, const char* text) {
    lines.push_back(format("log %s/%d %s", category, level, text));
}
void recordStatus(ZELCDBEndpoint*, void*, int32_t status, ZELCDBError error) {
    lines.push_back(format("status %d %d", status, error));
}

// Refused parameters leave no handle and say nothing; an endpoint that is made logs its
// banner before the call returns. The callback table is copied up to its own size, whole
// entries only (ASan sees an over-read of the stack copy).
TEST(EndpointCreate, ChecksParametersAndCopiesTheCallbacksTheSizeCovers) {
    std::string url = freeUrl();
    const ZELCDBEndpointCallbacks callbacks = {&recordLine, &recordStatus, nullptr, nullptr,
                                               nullptr};
    const uint32_t kLog = sizeof callbacks.logCallback, kAll = sizeof callbacks;
    const struct {
        uint32_t size;
        int32_t mode;
        uint8_t major, minor;
        const char* url;
        const ZELCDBEndpointCallbacks* table;
        uint32_t tableSize;
        ZELCDBError result;
        const char* lines;  // banner and statuses of a start and stop: "b", "bss", ""
    } cases[] = {
        {kParametersSize, 1, 1, 1, url.c_str(), &callbacks, kAll, ZELCDBErrorNone, "bss"},
        {kParametersSize, 2, 1, 1, url.c_str(), &callbacks, kLog, ZELCDBErrorNone, "b"},
        {kParametersSize, 2, 1, 1, url.c_str(), &callbacks, kLog + 1, ZELCDBErrorNone, "b"},
        {kParametersSize, 2, 1, 1, url.c_str(), &callbacks, 2 * kLog, ZELCDBErrorNone, "bss"},
        {kParametersSize, 2, 1, 1, url.c_str(), &callbacks, kAll + 64, ZELCDBErrorNone, "bss"},
        {kParametersSize, 2, 1, 1, url.c_str(), &callbacks, 0, ZELCDBErrorNone, ""},
        {kParametersSize, 2, 1, 1, url.c_str(), nullptr, kAll, ZELCDBErrorNone, ""},
        {kParametersSize - 1, 1, 1, 1, url.c_str(), &callbacks, kAll, ZELCDBErrorInvalidParameter,
         ""},
        {kParametersSize, 0, 1, 1, url.c_str(), &callbacks, kAll, ZELCDBErrorInvalidParameter, ""},
        {kParametersSize, 3, 1, 1, url.c_str(), &callbacks, kAll, ZELCDBErrorInvalidParameter, ""},
        {kParametersSize, 1, 1, 0, url.c_str(), &callbacks, kAll, ZELCDBErrorUnsupportedVersion,
         ""},
        {kParametersSize, 2, 2, 1, url.c_str(), &callbacks, kAll, ZELCDBErrorUnsupportedVersion,
         ""},
        {kParametersSize, 1, 1, 1, nullptr, &callbacks, kAll, ZELCDBErrorInvalidParameter, ""},
        {kParametersSize, 1, 1, 1, "127.0.0.1:80", &callbacks, kAll, ZELCDBErrorInvalidParameter,
         ""},
        {kParametersSize, 1, 1, 1, "cdb://:80", &callbacks, kAll, ZELCDBErrorInvalidParameter, ""},
        {kParametersSize, 1, 1, 1, "cdb://127.0.0.1:65536", &callbacks, kAll,
         ZELCDBErrorInvalidParameter, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(format("size %u mode %d %d.%d %s, table %u", c.size, c.mode, c.major, c.minor,
                            c.url ? c.url : "(null)", c.tableSize));
        lines.clear();
        ZELCDBEndpointParameters parameters = {c.url, c.mode, nullptr, c.major, c.minor};
        ZELCDBEndpoint* endpoint = reinterpret_cast<ZELCDBEndpoint*>(0x10);
        ASSERT_EQ(api().endpointCreate(&endpoint, &parameters, c.size, c.table, c.tableSize),
                  c.result);
        if (c.result != ZELCDBErrorNone) {
            EXPECT_EQ(endpoint, nullptr);
            EXPECT_EQ(lines, Lines{});
            continue;
        }
        EXPECT_EQ(lines, *c.lines ? Lines{kBanner} : Lines{});  // before the call returns
        ASSERT_EQ(api().endpointStart(endpoint), ZELCDBErrorNone);
        api().endpointStop(endpoint);  // a refused client may have ended already
        EXPECT_EQ(api().endpointDestroy(endpoint), ZELCDBErrorNone);
        std::string seen = !lines.empty() && lines.front() == kBanner ? "b" : "";
        for (const auto& l : lines) seen += l.compare(0, 7, "status ") == 0 ? "s" : "";
        EXPECT_EQ(seen, c.lines);
    }
    ZELCDBEndpointParameters parameters = {url.c_str(), 1, nullptr, 1, 1};
    ZELCDBEndpoint* endpoint = nullptr;
    EXPECT_EQ(api().endpointCreate(&endpoint, nullptr, kParametersSize, nullptr, 0),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().endpointCreate(nullptr, &parameters, kParametersSize, nullptr, 0),
              ZELCDBErrorInvalidParameter);
}

// Each entry with a null handle, on an endpoint not running, and running: its codes. The
// payload limit, a null buffer with a size, and a value its field cannot carry are refused
// before anything else.
TEST(EndpointEntries, NullHandleNotRunningAndBadArgumentsGiveTheirCodes) {
    App app(ZELCDBEndpointModeServer, freeUrl());
    ZELCDBSinkCallbacks sink = {};
    ZELSBPSinkCallbacks sbpSink = {};
    static const uint8_t data[8101] = {};
    const ZELCDBSDK& t = api();
    const ZELCDBError kInvalid = ZELCDBErrorInvalidParameter, kNone = ZELCDBErrorNone;
    const ZELCDBError kNotRunning = ZELCDBErrorIllegalWhileNotRunning;
    using Entry = std::function<ZELCDBError(ZELCDBEndpoint*)>;
#define ENTRY(call) [&](ZELCDBEndpoint* e) { return t.call; }
    // Entries that need a running endpoint (Stop last, so that the second round stops it).
    const Entry runningOnly[] = {
        ENTRY(endpointAddSink(e, nullptr, 1, &sink, sizeof sink)),
        ENTRY(sinkCreate(e, nullptr, 1, &sbpSink, sizeof sbpSink)),
        ENTRY(endpointSendStartService(e, 1)),
        ENTRY(endpointSendStopService(e, 1)),
        ENTRY(endpointSendServicePayload(e, 1, data, 8100)),
        ENTRY(endpointSendServicePayload(e, 1, nullptr, 0)),
        ENTRY(endpointSendServiceResponse(e, 1, 1)),
        ENTRY(endpointStop(e)),
    };
    for (const Entry& entry : runningOnly) {
        EXPECT_EQ(entry(nullptr), kInvalid);
        EXPECT_EQ(entry(app.ep), kNotRunning);
    }
    // The rest, with a null handle (always refused) and on this endpoint. SBP data must fit
    // one ServicePayload with its packet: 15 bytes of header, the marker.
    const std::pair<Entry, ZELCDBError> others[] = {
        {ENTRY(endpointSendServicePayload(e, 1, data, 8101)), kInvalid},
        {ENTRY(endpointSendServicePayload(e, 1, nullptr, 1)), kInvalid},
        {ENTRY(sinkSendGet(e, 1, nullptr, 1)), kNone},
        {ENTRY(sinkSendCancel(e, 1, nullptr, 1, 0xB3)), kNone},
        {ENTRY(sinkSendAlive(e, 1, nullptr, 0)), kNone},
        {ENTRY(sinkSendSubscribe(e, 1, nullptr, 1, 0, 0xFFFFFF)), kNone},
        {ENTRY(sinkSendSubscribe(e, 1, nullptr, 1, 0, 0x1000000)), kInvalid},
        {ENTRY(sinkSendSet(e, 1, nullptr, 1, nullptr, 1)), kInvalid},
        {ENTRY(sinkSendServiceAuthResponse(e, 1, nullptr, 0xB1, 1, 0, nullptr, 1)), kInvalid},
        {ENTRY(sourceSendServiceAuthChallenge(e, 1, nullptr, 0xB1, 1, nullptr, 1)), kInvalid},
        {ENTRY(sourceSendGetResponse(e, 1, nullptr, 0xB1, 1, 0, nullptr, 1)), kInvalid},
        {ENTRY(sourceSendGetResponse(e, 1, nullptr, 0xB1, 1, 0x10000000, data, 1)), kInvalid},
        {ENTRY(sourceSendSetResponse(e, 1, nullptr, 1, 0x10000000)), kInvalid},
        {ENTRY(sourceSendSubscribeResponse(e, 1, nullptr, 1, 0x10000000)), kInvalid},
        {ENTRY(sourceSendSubscribeResponse(e, 1, nullptr, 1, 5)), kNone},
        {ENTRY(sinkSendSet(e, 1, nullptr, 1, data, 8084)), kNone},
        {ENTRY(sinkSendSet(e, 1, nullptr, 1, data, 8085)), kInvalid},
        {ENTRY(sinkSendServiceAuthResponse(e, 1, nullptr, 0xB1, 1, 0, data, 8084)), kNone},
        {ENTRY(sinkSendServiceAuthResponse(e, 1, nullptr, 0xB1, 1, 0, data, 8085)), kInvalid},
        {ENTRY(sourceSendGetResponse(e, 1, nullptr, 0xB1, 1, 0, data, 8084)), kNone},
        {ENTRY(sourceSendGetResponse(e, 1, nullptr, 0xB1, 1, 0, data, 8085)), kInvalid},
        {ENTRY(sourceSendServiceAuthChallenge(e, 1, nullptr, 0xB1, 1, data, 8084)), kNone},
        {ENTRY(sourceSendServiceAuthChallenge(e, 1, nullptr, 0xB1, 1, data, 8085)), kInvalid},
    };
#undef ENTRY
    for (size_t i = 0; i < sizeof others / sizeof others[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(others[i].first(nullptr), kInvalid);
        EXPECT_EQ(others[i].first(app.ep), others[i].second);
    }
    EXPECT_EQ(t.endpointDestroy(nullptr), kInvalid);
    EXPECT_EQ(t.endpointStart(nullptr), kInvalid);
    EXPECT_EQ(t.endpointGetContext(nullptr), nullptr);
    EXPECT_EQ(t.endpointGetContext(app.ep), &app);

    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_EQ(app.start(), ZELCDBErrorIllegalWhileRunning);
    EXPECT_TRUE(app.waitFor(
        "log CDBEndpoint/0 Operation failed with CDB SDK error 6 (IllegalWhileRunning)"));
    EXPECT_EQ(app.addSource("late"), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorIllegalWhileRunning);
    EXPECT_EQ(app.addSbpSource("late"), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorIllegalWhileRunning);
    for (const Entry& entry : runningOnly) EXPECT_EQ(entry(app.ep), kNone);
    EXPECT_EQ(app.stop(), kNotRunning);
}

// IDs follow the mode; refusals consume none. One ServicesSupported must carry every source:
// 4 bytes, then 7 plus the name per service, within a 16-bit length. 250 names of 255 bytes
// take 65504; a 24-byte name fills it to exactly 65535.
TEST(EndpointRegistration, IdsFollowTheModeAndRefusalsConsumeNone) {
    std::string longest(255, 'n'), tooLong(256, 'n');
    for (int32_t mode : {ZELCDBEndpointModeClient, ZELCDBEndpointModeServer}) {
        SCOPED_TRACE(mode);
        uint16_t base = mode == ZELCDBEndpointModeClient ? 0x0001 : 0x4001;
        App app(mode, freeUrl());
        EXPECT_EQ(app.addSource("first", 1, 2), base);
        EXPECT_TRUE(
            app.waitFor(format("log CDBEndpoint/30 Added source service 'first', version "
                               "1.2 with service ID %d (0x%04x)",
                               base, base)));
        EXPECT_EQ(app.addSource(tooLong.c_str()), 0);
        EXPECT_EQ(app.lastResult, ZELCDBErrorInvalidParameter);
        EXPECT_EQ(app.addSource(nullptr), 0);
        EXPECT_EQ(app.lastResult, ZELCDBErrorInvalidParameter);
        ZELCDBService service = {0xBEEF, "sized", 3, 4, 0x11, 0x22};
        for (auto size : {kServiceSize - 1, kServiceSize}) {
            EXPECT_EQ(api().endpointAddSourceService(app.ep, nullptr, &service, size, nullptr, 0),
                      size == kServiceSize ? ZELCDBErrorNone : ZELCDBErrorInvalidParameter);
            ZELSBPSourceCallbacks none{};
            EXPECT_EQ(api().sourceCreate(app.ep, nullptr, &service, size - 1, &none, sizeof none),
                      ZELCDBErrorInvalidParameter);
        }
        EXPECT_EQ(
            api().endpointAddSourceService(app.ep, nullptr, nullptr, kServiceSize, nullptr, 0),
            ZELCDBErrorInvalidParameter);
        // Only the size the entry reads is needed, and only the ID is written.
        EXPECT_EQ(service.serviceId, base + 1);
        EXPECT_EQ(service.accessControl, 0x22u);
        EXPECT_EQ(app.addSbpSource(longest.c_str()), base + 2);
    }
    Pair pair;
    App& app = pair.server;
    for (int i = 0; i < 250; ++i) ASSERT_EQ(app.addSource(longest.c_str()), 0x4001 + i);
    EXPECT_EQ(app.addSource(longest.c_str()), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);
    EXPECT_TRUE(app.waitFor("log CDBEndpoint/0 Failed to add source service '" + longest +
                            "' - ServicesSupported would take 65766 bytes, maximum is 65535"));
    EXPECT_EQ(app.addSource(std::string(24, 'f').c_str()), 0x4001 + 250);
    EXPECT_EQ(app.addSource(""), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);
    ASSERT_TRUE(pair.connect());
    std::string added = pair.client.events.startingWith("added ")[0];
    EXPECT_NE(added.find(format("[%d %s 1.0 0x0 0x0]", 0x4001 + 250, std::string(24, 'f').c_str())),
              std::string::npos);
}

// Start returns once the thread runs, so that running-only calls are accepted at once; a
// thread that cannot create its wake-up pipe never runs, and Start says so.
TEST(EndpointStart, ReturnsOnceTheThreadRunsOrSaysItCouldNot) {
    App app(ZELCDBEndpointModeServer, freeUrl());
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(app.start(), ZELCDBErrorNone);
        ASSERT_EQ(app.addSink(1), ZELCDBErrorNone) << "cycle " << i;
        ASSERT_EQ(app.stop(), ZELCDBErrorNone);
    }
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(countEntries("/proc/self/fd") + 16);
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
    EXPECT_EQ(app.events.count("status 1 0"), 20);
    ASSERT_EQ(app.start(), ZELCDBErrorNone);
    EXPECT_TRUE(app.waitFor("status 1 0", 21));
}

}  // namespace
