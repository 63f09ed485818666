// The entries' checks, through the C table: what an application can get wrong and the code
// (or log line) it gets back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstddef>

#include "sdk/EndpointHarness.h"

namespace {

using namespace sdktest;

constexpr uint32_t kServiceSize =
    offsetof(ZELCDBService, accessControl) + sizeof(ZELCDBService::accessControl);
const ZELCDBError kNone = ZELCDBErrorNone, kInvalid = ZELCDBErrorInvalidParameter;
const ZELCDBError kNotRunning = ZELCDBErrorIllegalWhileNotRunning;

// What the callbacks saw: b the banner, s a status.
std::string seen;
const ZELCDBEndpointCallbacks kCallbacks = {
    [](ZELCDBEndpoint*, void*, const char*, int32_t, const char* text) {
        seen += std::string(text) == "ZEL CDB and SBP SDK, version: 2.7.0.2565" ? "b" : "";
    },
    [](ZELCDBEndpoint*, void*, int32_t, ZELCDBError) { seen += "s"; }, nullptr, nullptr, nullptr};

// Refused parameters leave no handle and say nothing; an endpoint that is made logs its
// banner before the call returns. The callback table is copied up to its own size, whole
// entries only (ASan sees an over-read of the stack copy).
TEST(EndpointCreate, ChecksParametersAndCopiesTheCallbacksTheSizeCovers) {
    const std::string url = freeUrl();
    const uint32_t kSize = offsetof(ZELCDBEndpointParameters, versionMinor) + 1;
    const uint32_t kLog = sizeof kCallbacks.logCallback, kAll = sizeof kCallbacks;
    const struct {
        uint32_t size;
        ZELCDBEndpointParameters parameters;
        ZELCDBError result;
    } refused[] = {
        {kSize - 1, {url.c_str(), 1, nullptr, 1, 1}, kInvalid},
        {kSize, {url.c_str(), 0, nullptr, 1, 1}, kInvalid},
        {kSize, {url.c_str(), 3, nullptr, 1, 1}, kInvalid},
        {kSize, {url.c_str(), 1, nullptr, 1, 0}, ZELCDBErrorUnsupportedVersion},
        {kSize, {url.c_str(), 2, nullptr, 2, 1}, ZELCDBErrorUnsupportedVersion},
        {kSize, {nullptr, 1, nullptr, 1, 1}, kInvalid},
        {kSize, {"127.0.0.1:80", 1, nullptr, 1, 1}, kInvalid},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(format("mode %d %d.%d", c.parameters.mode, c.parameters.versionMajor,
                            c.parameters.versionMinor));
        ZELCDBEndpoint* endpoint = reinterpret_cast<ZELCDBEndpoint*>(0x10);
        seen.clear();
        EXPECT_EQ(api().endpointCreate(&endpoint, &c.parameters, c.size, &kCallbacks, kAll),
                  c.result);
        EXPECT_EQ(endpoint, nullptr);
        EXPECT_EQ(seen, "");
    }
    const ZELCDBEndpointParameters parameters = {url.c_str(), 2, nullptr, 1, 1};
    EXPECT_EQ(api().endpointCreate(nullptr, &parameters, kSize, nullptr, 0), kInvalid);
    ZELCDBEndpoint* endpoint = nullptr;
    EXPECT_EQ(api().endpointCreate(&endpoint, nullptr, kSize, nullptr, 0), kInvalid);
    // What a server's start and stop report with each size of table (~0u: no table at all).
    const std::pair<uint32_t, const char*> tables[] = {
        {kAll, "bss"},      {kLog, "b"}, {kLog + 1, "b"}, {2 * kLog, "bss"},
        {kAll + 64, "bss"}, {0, ""},     {~0u, ""}};
    for (const auto& table : tables) {
        SCOPED_TRACE(table.first);
        seen.clear();
        ASSERT_EQ(api().endpointCreate(&endpoint, &parameters, kSize,
                                       table.first == ~0u ? nullptr : &kCallbacks, table.first),
                  kNone);
        EXPECT_EQ(seen, std::string(table.second).substr(0, 1));  // before the call returns
        ASSERT_EQ(api().endpointStart(endpoint), kNone);
        EXPECT_EQ(api().endpointStop(endpoint), kNone);
        EXPECT_EQ(api().endpointDestroy(endpoint), kNone);
        EXPECT_EQ(seen, table.second);
    }
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
    using Entry = std::function<ZELCDBError(ZELCDBEndpoint*)>;
#define ENTRY(call) [&](ZELCDBEndpoint* e) { return t.call; }
    // Each entry with a null handle (always refused) and on this endpoint, not running. Those
    // that need it running are called again once it runs (Stop last, which stops it). SBP
    // data must fit one ServicePayload with its packet: 15 bytes of header, the marker.
    const std::pair<Entry, ZELCDBError> entries[] = {
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
        {ENTRY(sourceSendGetResponse(e, 1, nullptr, 0xB1, 1, 0, data, 8085)), kInvalid},
        {ENTRY(endpointAddSink(e, nullptr, 1, &sink, sizeof sink)), kNotRunning},
        {ENTRY(sinkCreate(e, nullptr, 1, &sbpSink, sizeof sbpSink)), kNotRunning},
        {ENTRY(endpointSendStartService(e, 1)), kNotRunning},
        {ENTRY(endpointSendStopService(e, 1)), kNotRunning},
        {ENTRY(endpointSendServicePayload(e, 1, data, 8100)), kNotRunning},
        {ENTRY(endpointSendServicePayload(e, 1, nullptr, 0)), kNotRunning},
        {ENTRY(endpointSendServiceResponse(e, 1, 1)), kNotRunning},
        {ENTRY(endpointStop(e)), kNotRunning},
    };
#undef ENTRY
    for (size_t i = 0; i < sizeof entries / sizeof entries[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(entries[i].first(nullptr), kInvalid);
        EXPECT_EQ(entries[i].first(app.ep), entries[i].second);
    }
    EXPECT_EQ(t.endpointDestroy(nullptr), kInvalid);
    EXPECT_EQ(t.endpointStart(nullptr), kInvalid);
    EXPECT_EQ(t.endpointGetContext(nullptr), nullptr);
    EXPECT_EQ(t.endpointGetContext(app.ep), &app);

    // Start returns once the thread runs, so that running-only calls are accepted at once.
    ASSERT_EQ(app.start(), kNone);
    for (const auto& entry : entries)
        EXPECT_TRUE(entry.second != kNotRunning || entry.first(app.ep) == kNone);
    EXPECT_EQ(app.stop(), kNotRunning);
    ASSERT_EQ(app.start(), kNone);
    EXPECT_EQ(app.start(), ZELCDBErrorIllegalWhileRunning);
    EXPECT_TRUE(app.waitFor(
        "log CDBEndpoint/0 Operation failed with CDB SDK error 6 (IllegalWhileRunning)"));
    EXPECT_EQ(app.addSource("late"), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorIllegalWhileRunning);
    EXPECT_EQ(app.addSbpSource("late"), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorIllegalWhileRunning);
}

// IDs follow the mode; refusals consume none. One ServicesSupported must carry every source:
// 4 bytes, then 7 plus the name per service, within a 16-bit length. 250 names of 255 bytes
// take 65504; a 24-byte name fills it to exactly 65535.
TEST(EndpointRegistration, IdsFollowTheModeAndRefusalsConsumeNone) {
    std::string longest(255, 'n'), tooLong(256, 'n');
    App client(ZELCDBEndpointModeClient, freeUrl());
    EXPECT_EQ(client.addSource("first", 1, 2), 1);
    EXPECT_TRUE(client.waitFor(
        "log CDBEndpoint/30 Added source service 'first', version 1.2 with service ID 1 (0x0001)"));
    for (const char* name : {tooLong.c_str(), static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(client.addSource(name), 0);
        EXPECT_EQ(client.lastResult, kInvalid);
    }
    ZELCDBService service = {0xBEEF, "sized", 3, 4, 0x11, 0x22};
    for (auto size : {kServiceSize - 1, kServiceSize}) {
        EXPECT_EQ(api().endpointAddSourceService(client.ep, nullptr, &service, size, nullptr, 0),
                  size == kServiceSize ? kNone : kInvalid);
        ZELSBPSourceCallbacks none{};
        EXPECT_EQ(api().sourceCreate(client.ep, nullptr, &service, size - 1, &none, sizeof none),
                  kInvalid);
    }
    EXPECT_EQ(api().endpointAddSourceService(client.ep, nullptr, nullptr, kServiceSize, nullptr, 0),
              kInvalid);
    // Only the size the entry reads is needed, and only the ID is written.
    EXPECT_EQ(service.serviceId, 2);
    EXPECT_EQ(service.accessControl, 0x22u);
    EXPECT_EQ(client.addSbpSource(longest.c_str()), 3);
    Pair pair;
    App& app = pair.server;
    for (int i = 0; i < 250; ++i) ASSERT_EQ(app.addSource(longest.c_str()), 0x4001 + i);
    EXPECT_EQ(app.addSource(longest.c_str()), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);
    EXPECT_TRUE(app.waitFor("log CDBEndpoint/0 Failed to add source service '" + longest +
                            "' - ServicesSupported would take 65766 bytes, maximum is 65535"));
    const std::string filler(24, 'f');
    EXPECT_EQ(app.addSource(filler.c_str()), 0x4001 + 250);
    EXPECT_EQ(app.addSource(""), 0);
    EXPECT_EQ(app.lastResult, ZELCDBErrorFailed);
    ASSERT_TRUE(pair.connect());
    EXPECT_NE(pair.client.all("added *")[0].find("[16635 " + filler + " 1.0"), std::string::npos);
}

// A thread that cannot create its wake-up pipe never runs, and Start says so.
TEST(EndpointStart, SaysWhenTheThreadCouldNotStart) {
    App app(ZELCDBEndpointModeServer, freeUrl());
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(countEntries("/proc/self/fd") + 16);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> hogs;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) hogs.push_back(fd);
    ZELCDBError result = app.start();
    for (int fd : hogs) ::close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, ZELCDBErrorFailed);
    EXPECT_EQ(app.count("log CDBEndpoint/0 Failed to initialise the endpoint thread"), 1);
    EXPECT_EQ(app.count("status 1 0"), 0);
    ASSERT_EQ(app.start(), kNone);
    EXPECT_TRUE(app.waitFor("status 1 0"));
}

}  // namespace
