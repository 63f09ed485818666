// SBP through the function table, as an application uses it: a server endpoint offers an
// SBP source, a client endpoint attaches an SBP sink to it over loopback and exercises
// every request kind.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using sdktest::api;
using sdktest::format;
using sdktest::Recorder;

constexpr uint32_t kSpeed = 0x5EED;

// The source's application: answers Gets at once with a 6-byte value, Sets later, and
// accepts every subscription as periodic.
struct SourceApp {
    Recorder events;
    ZELCDBEndpoint* ep = nullptr;
    uint16_t id = 0;
    bool answerLater = false;

    static SourceApp& of(void* c) { return *static_cast<SourceApp*>(c); }
    static ZELSBPSourceCallbacks table() {
        ZELSBPSourceCallbacks t{};
        t.serviceStartCallback = [](ZELCDBEndpoint*, void*, uint16_t id, void* c, uint8_t major,
                                    uint8_t minor) {
            of(c).events.add(format("start %d %d.%d", id, major, minor));
            return 0;
        };
        t.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t id, void* c) {
            of(c).events.add(format("stop %d", id));
            return 0;
        };
        t.getCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t command, uint32_t uid,
                           uint32_t* result) -> ZELCDBError {
            SourceApp& app = of(c);
            app.events.add(format("get %x %x", command, uid));
            if (command == 0xB3 || app.answerLater) {
                // Answered through the table from inside the callback: queued, sent later.
                static const uint8_t value[6] = {1, 2, 3, 4, 5, 6};
                EXPECT_EQ(api().sourceSendGetResponse(e, s, nullptr, command, uid, 0, value, 6),
                          ZELCDBErrorNone);
                return ZELCDBErrorNone;
            }
            *result = 0x10000002;
            return ZELCDBErrorLocalSBPError;
        };
        t.setCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid,
                           const uint8_t* data, int32_t size, uint32_t*) -> ZELCDBError {
            of(c).events.add(format("set %x %.*s", uid, size, reinterpret_cast<const char*>(data)));
            EXPECT_EQ(api().sourceSendSetResponse(e, s, nullptr, uid, 0), ZELCDBErrorNone);
            return ZELCDBErrorNone;
        };
        t.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t uid, uint32_t* type,
                                 uint32_t* interval, uint32_t* result) -> ZELCDBError {
            of(c).events.add(format("subscribe %x %u %u", uid, *type, *interval));
            *type = 0;
            *result = 0;
            return ZELCDBErrorLocalSBPError;
        };
        t.cancelCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid) {
            of(c).events.add(format("cancel %x %x", command, uid));
        };
        return t;
    }
};

struct SinkApp {
    Recorder events;
    static SinkApp& of(void* c) { return *static_cast<SinkApp*>(c); }
    static ZELSBPSinkCallbacks table() {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t status) {
            of(c).events.add(format("status %d", status));
        };
        t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                            uint32_t uid, const uint8_t*, int32_t size) {
            of(c).events.add(
                format("data %s %x %x %d", static_cast<const char*>(r), command, uid, size));
        };
        t.setDoneCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t uid) {
            of(c).events.add(format("set-done %s %x", static_cast<const char*>(r), uid));
        };
        t.subscribedCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t uid) {
            of(c).events.add(format("subscribed %x", uid));
        };
        t.cancelledCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t command,
                                 uint32_t uid) {
            of(c).events.add(format("cancelled %x %x", command, uid));
        };
        t.errorCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t command,
                             uint32_t uid, ZELCDBError error, uint32_t value) {
            of(c).events.add(format("error %x %x %d %x", command, uid, error, value));
        };
        t.aliveResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*) {
            of(c).events.add("alive");
        };
        return t;
    }
};

class SBPEndpointTest : public ::testing::Test {
protected:
    SBPEndpointTest() : useClock_(&clock_), pair_(&clock_) {}

    // Registers the source, connects, attaches the sink and starts the service.
    void SetUp() override {
        ZELSBPSourceCallbacks callbacks = SourceApp::table();
        ZELCDBService service = {0, "vehicle", 1, 2, 0, 7};
        ASSERT_EQ(api().sourceCreate(pair_.server.ep, &source_, &service, sizeof service,
                                     &callbacks, sizeof callbacks),
                  ZELCDBErrorNone);
        id_ = service.serviceId;
        ASSERT_EQ(id_, 0x4001);
        ASSERT_TRUE(pair_.connect());
        ZELSBPSinkCallbacks sinkCallbacks = SinkApp::table();
        ASSERT_EQ(
            api().sinkCreate(pair_.client.ep, &sink_, id_, &sinkCallbacks, sizeof sinkCallbacks),
            ZELCDBErrorNone);
        ASSERT_EQ(pair_.client.startService(id_), ZELCDBErrorNone);
        ASSERT_TRUE(source_.events.waitFor("start 16385 1.2"));
        ASSERT_TRUE(sink_.events.waitFor("status 1"));
    }
    ZELCDBEndpoint* client() { return pair_.client.ep; }

    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    // The applications outlive the endpoints, which call them while they stop.
    SourceApp source_;
    SinkApp sink_;
    sdktest::Pair pair_;
    uint16_t id_ = 0;
};

TEST_F(SBPEndpointTest, GetSetSubscribeCancelAndAlive) {
    static char get[] = "g", set[] = "s", sub[] = "u";
    ASSERT_EQ(api().sinkSendGet(client(), id_, get, kSpeed), ZELCDBErrorNone);
    ASSERT_TRUE(sink_.events.waitFor(format("error b1 %x 14 10000002", kSpeed)));
    source_.answerLater = true;
    ASSERT_EQ(api().sinkSendGet(client(), id_, get, kSpeed), ZELCDBErrorNone);
    ASSERT_TRUE(sink_.events.waitFor(format("data g b1 %x 6", kSpeed)));

    uint8_t value[] = {'4', '2', ' ', 'k', 'm', 'h'};
    ASSERT_EQ(api().sinkSendSet(client(), id_, set, kSpeed, value, 6), ZELCDBErrorNone);
    value[0] = 'X';  // the message owns its copy already
    ASSERT_TRUE(source_.events.waitFor(format("set %x 42 kmh", kSpeed)));
    ASSERT_TRUE(sink_.events.waitFor(format("set-done s %x", kSpeed)));

    ASSERT_EQ(api().sinkSendSubscribe(client(), id_, sub, kSpeed, 0, 500), ZELCDBErrorNone);
    ASSERT_TRUE(sink_.events.waitFor(format("subscribed %x", kSpeed)));
    for (int tick = 1; tick <= 3; ++tick) {
        clock_.advanceMs(500);
        ASSERT_TRUE(sink_.events.waitFor(format("data u b3 %x 6", kSpeed), tick)) << tick;
    }
    ASSERT_EQ(api().sinkSendCancel(client(), id_, nullptr, kSpeed, 0xB3), ZELCDBErrorNone);
    ASSERT_TRUE(sink_.events.waitFor(format("cancelled b3 %x", kSpeed)));
    ASSERT_TRUE(source_.events.waitFor(format("cancel b3 %x", kSpeed)));

    ASSERT_EQ(api().sinkSendAlive(client(), id_, nullptr, 0), ZELCDBErrorNone);
    ASSERT_TRUE(sink_.events.waitFor("alive"));

    ASSERT_EQ(pair_.client.stopService(id_), ZELCDBErrorNone);
    ASSERT_TRUE(source_.events.waitFor(format("stop %d", id_)));
    ASSERT_TRUE(sink_.events.waitFor("status 2"));
}

TEST_F(SBPEndpointTest, EntryChecks) {
    EXPECT_EQ(api().sinkSendGet(nullptr, id_, nullptr, 1), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().sinkSendSubscribe(client(), id_, nullptr, 1, 0, 0x1000000),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().sinkSendSet(client(), id_, nullptr, 1, nullptr, 3),
              ZELCDBErrorInvalidParameter);
    for (auto* entry : {api().sourceSendSetResponse, api().sourceSendSubscribeResponse}) {
        EXPECT_EQ(entry(pair_.server.ep, id_, nullptr, 1, 0x10000000), ZELCDBErrorInvalidParameter);
    }
    EXPECT_EQ(
        api().sourceSendGetResponse(pair_.server.ep, id_, nullptr, 0xB1, 1, 0x10000000, nullptr, 0),
        ZELCDBErrorInvalidParameter);
    ZELCDBService service = {0, "late", 1, 0, 0, 0};
    ZELSBPSourceCallbacks callbacks{};
    EXPECT_EQ(api().sourceCreate(pair_.server.ep, nullptr, &service, sizeof service, &callbacks,
                                 sizeof callbacks),
              ZELCDBErrorIllegalWhileRunning);
    const uint32_t readSize = offsetof(ZELCDBService, accessControl) + sizeof(uint32_t);
    EXPECT_EQ(api().sourceCreate(pair_.server.ep, nullptr, &service, readSize - 1, &callbacks,
                                 sizeof callbacks),
              ZELCDBErrorInvalidParameter);
}

}  // namespace
