// SBP between two endpoints over loopback, through the function table alone, on virtual
// time. The server offers the vehicle service (an SBP source), a scripted service (a plain
// CDB source whose packets the test writes, standing in for an SBP source that misbehaves)
// and a twin of the vehicle service; the client's dashboard attaches an SBP sink to the
// vehicle service, a probe sink to the scripted service, and a plain CDB sink ("wire") to
// the twin, through which the test sends packets that no SBP sink would.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "sdk/EndpointHarness.h"
#include "sdk/SBPApps.h"

namespace {

using namespace sbptest;
using sdktest::App;

void* ctx(const char* text) {
    return const_cast<char*>(text);
}

// A plain CDB service or sink that shows each SBP packet it receives as
// "packet <command> <name> <packetId> <value>" and sends what the test writes. As a source
// it answers StartService (1) and StopService (2) itself.
class Scripted {
public:
    sdktest::Recorder events;
    ZELCDBEndpoint* endpoint = nullptr;
    uint16_t serviceId = 0;

    ZELCDBError send(const Bytes& bytes) {
        return api().endpointSendServicePayload(endpoint, serviceId, bytes.data(),
                                                static_cast<uint32_t>(bytes.size()));
    }
    static void record(void* c, const uint8_t* data, uint32_t length) {
        Fields f = fieldsOf(data, length);
        of(c).events.add(
            format("packet %x %s %u %x", f.command, nameOf(f.uid).c_str(), f.packetId, f.value));
    }
    static ZELCDBSourceServiceCallbacks sourceTable() {
        return {[](ZELCDBEndpoint* e, void*, uint16_t id, void* c, uint8_t, uint8_t) {
                    of(c).events.add("start");
                    EXPECT_EQ(api().endpointSendServiceResponse(e, id, 1), ZELCDBErrorNone);
                },
                [](ZELCDBEndpoint* e, void*, uint16_t id, void* c) {
                    of(c).events.add("stop");
                    EXPECT_EQ(api().endpointSendServiceResponse(e, id, 2), ZELCDBErrorNone);
                },
                [](ZELCDBEndpoint*, void*, uint16_t, void* c, const uint8_t* data,
                   uint32_t length) { record(c, data, length); }};
    }
    static ZELCDBSinkCallbacks sinkTable() {
        return {[](ZELCDBEndpoint*, void*, uint16_t, void* c, const uint8_t* data,
                   uint32_t length) { record(c, data, length); },
                [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t code) {
                    of(c).events.add(format("response %d", code));
                }};
    }

private:
    static Scripted& of(void* c) { return *static_cast<Scripted*>(c); }
};

class SBPFlowTest : public ::testing::Test {
protected:
    SBPFlowTest() : useClock_(&clock_), pair_(&clock_) {}

    void SetUp() override {
        ZELSBPSourceCallbacks vehicle = Vehicle::table();
        ZELCDBService service = {0, "vehicle", 1, 0, 0, 0};
        ASSERT_EQ(api().sourceCreate(server(), &vehicle_, &service, sizeof service, &vehicle,
                                     sizeof vehicle),
                  ZELCDBErrorNone);
        vehicle_.endpoint = server();
        vehicle_.serviceId = service.serviceId;
        ZELCDBSourceServiceCallbacks scripted = Scripted::sourceTable();
        service = {0, "scripted", 1, 0, 0, 0};
        ASSERT_EQ(api().endpointAddSourceService(server(), &scripted_, &service, sizeof service,
                                                 &scripted, sizeof scripted),
                  ZELCDBErrorNone);
        scripted_.endpoint = server();
        scripted_.serviceId = service.serviceId;
        service = {0, "twin", 1, 0, 0, 0};
        ASSERT_EQ(api().sourceCreate(server(), &twin_, &service, sizeof service, &vehicle,
                                     sizeof vehicle),
                  ZELCDBErrorNone);
        twin_.endpoint = server();
        twin_.serviceId = service.serviceId;
        ASSERT_TRUE(pair_.connect());
        ASSERT_NO_FATAL_FAILURE(attach(pair_.client, dashboard_));
    }

    // What the applications heard, for the failure's report.
    void TearDown() override {
        if (!HasFailure()) return;
        for (auto* recorder : {&dashboard_.events, &vehicle_.events, &probe_.events,
                               &scripted_.events, &wire_.events, &twin_.events}) {
            std::fprintf(stderr, "--\n");
            for (const std::string& line : recorder->lines()) {
                std::fprintf(stderr, "  %s\n", line.c_str());
            }
        }
    }

    ZELCDBEndpoint* server() { return pair_.server.ep; }
    ZELCDBEndpoint* client() { return pair_.client.ep; }

    // Attaches the dashboard's sink to the vehicle service and starts the service.
    void attach(App& app, Dashboard& dashboard) {
        ZELSBPSinkCallbacks callbacks = Dashboard::table();
        ASSERT_EQ(
            api().sinkCreate(app.ep, &dashboard, vehicle_.serviceId, &callbacks, sizeof callbacks),
            ZELCDBErrorNone);
        ASSERT_EQ(app.startService(vehicle_.serviceId), ZELCDBErrorNone);
        ASSERT_TRUE(dashboard.events.waitFor("status 1"));
    }
    void startProbe() {
        ZELSBPSinkCallbacks callbacks = Dashboard::table();
        ASSERT_EQ(
            api().sinkCreate(client(), &probe_, scripted_.serviceId, &callbacks, sizeof callbacks),
            ZELCDBErrorNone);
        ASSERT_EQ(pair_.client.startService(scripted_.serviceId), ZELCDBErrorNone);
        ASSERT_TRUE(probe_.events.waitFor("status 1"));
    }
    void startWire() {
        ZELCDBSinkCallbacks callbacks = Scripted::sinkTable();
        ASSERT_EQ(
            api().endpointAddSink(client(), &wire_, twin_.serviceId, &callbacks, sizeof callbacks),
            ZELCDBErrorNone);
        wire_.endpoint = client();
        wire_.serviceId = twin_.serviceId;
        ASSERT_EQ(pair_.client.startService(twin_.serviceId), ZELCDBErrorNone);
        ASSERT_TRUE(wire_.events.waitFor("response 1"));
    }

    // Returns once both endpoints have fired every timer due at the current virtual time
    // and the dashboard has heard everything the vehicle sent because of them: two Alive
    // round trips one after the other, since the first may overtake the server's wake-up.
    void settle(App& app, Dashboard& dashboard) {
        for (int i = 0; i < 2; ++i) {
            int before = dashboard.events.count("alive sync");
            ASSERT_EQ(api().sinkSendAlive(app.ep, vehicle_.serviceId, ctx("sync"), 0),
                      ZELCDBErrorNone);
            ASSERT_TRUE(dashboard.events.waitFor("alive sync", before + 1));
        }
    }
    void settle() { settle(pair_.client, dashboard_); }
    // Steps stay below the ten seconds after which an unanswered Ping ends a session.
    void advance(int ms) {
        clock_.advanceMs(ms);
        settle();
    }

    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    Vehicle vehicle_, twin_;
    Scripted scripted_, wire_;
    Dashboard dashboard_, probe_;
    sdktest::Pair pair_;
};

using Lines = std::vector<std::string>;

TEST_F(SBPFlowTest, GetAnsweredAtOnceAndAfterTenSeconds) {
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g1"), uidOf("speed")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("data g1 b1 speed=88"));

    vehicle_.answerGets(Vehicle::Answer::kLater);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g2"), uidOf("position")),
              ZELCDBErrorNone);
    ASSERT_TRUE(vehicle_.events.waitFor("get b1 position"));
    // The source starts its in-progress timer only after the callback has returned: time
    // may not move before it has.
    settle();
    for (int second = 1; second <= 10; ++second) advance(1000);
    // In-progress answers at 4 s and 8 s kept the request alive past the sink's 5 s.
    int interim = 0;
    const std::string inProgress =
        format("command=b9, uid=%x, commandValue=10000000", uidOf("position"));
    for (const std::string& line : pair_.client.events.startingWith("log ZELSBPSink/100 SBP")) {
        interim += line.find(inProgress) != std::string::npos;
    }
    EXPECT_EQ(interim, 2);
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{});
    ASSERT_EQ(vehicle_.answer(uidOf("position")), ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("data g2 b1 position(latitude=48.137 longitude=11.575)"));
}

TEST_F(SBPFlowTest, SetValuesReadBackByGet) {
    struct Case {
        const char* element;
        Bytes value;
        const char* shown;
    } cases[] = {
        {"speed", intValue("speed", -95), "speed=-95"},
        {"driver", stringValue("driver", "Bob Smith"), "driver='Bob Smith'"},
        {"position", positionValue(-33.5, 151.25), "position(latitude=-33.5 longitude=151.25)"},
        {"pressures", pressuresValue({1.5f, -0.25f}), "pressures(1.5 -0.25)"},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(api().sinkSendSet(client(), vehicle_.serviceId, ctx("s"), uidOf(c.element),
                                    c.value.data(), static_cast<uint32_t>(c.value.size())),
                  ZELCDBErrorNone);
        ASSERT_TRUE(vehicle_.events.waitFor(std::string("set ") + c.shown)) << c.element;
        ASSERT_TRUE(dashboard_.events.waitFor(std::string("set-done s ") + c.element));
        ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g"), uidOf(c.element)),
                  ZELCDBErrorNone);
        ASSERT_TRUE(dashboard_.events.waitFor(std::string("data g b1 ") + c.shown));
    }
}

TEST_F(SBPFlowTest, PeriodicSubscriptionRunsUntilCancelledThenBothRecordsAreGone) {
    const uint32_t pressures = uidOf("pressures");
    ASSERT_EQ(api().sinkSendSubscribe(client(), vehicle_.serviceId, ctx("u1"), pressures, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("subscribed u1 pressures"));
    EXPECT_EQ(vehicle_.events.count("subscribe pressures 0 500"), 1);
    for (int tick = 1; tick <= 3; ++tick) advance(500);
    EXPECT_EQ(dashboard_.events.count("data u1 b3 pressures(2.25 2.25 2.5)"), 3);
    EXPECT_EQ(vehicle_.events.count("get b3 pressures"), 3);

    ASSERT_EQ(api().sinkSendCancel(client(), vehicle_.serviceId, ctx("c1"), pressures, 0xB3),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("cancelled c1 b3 pressures"));
    // The subscription itself is answered "cancelled".
    EXPECT_EQ(dashboard_.events.count("error u1 b3 pressures 14 1000000b"), 1);
    EXPECT_EQ(vehicle_.events.count("cancel b3 pressures"), 1);
    for (int tick = 1; tick <= 2; ++tick) advance(500);
    EXPECT_EQ(vehicle_.events.count("get b3 pressures"), 3);

    // The source's record is gone: a second Cancel finds nothing; the sink's too: the same
    // subscription is not refused as a duplicate.
    ASSERT_EQ(api().sinkSendCancel(client(), vehicle_.serviceId, ctx("c2"), pressures, 0xB3),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("error c2 b4 pressures 14 10000009"));
    ASSERT_EQ(api().sinkSendSubscribe(client(), vehicle_.serviceId, ctx("u2"), pressures, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("subscribed u2 pressures"));
    EXPECT_EQ(dashboard_.events.startingWith("error u2"), Lines{});
}

TEST_F(SBPFlowTest, OnChangeUpdatesComeFromTheApplication) {
    const uint32_t speed = uidOf("speed");
    ASSERT_EQ(api().sinkSendSubscribe(client(), vehicle_.serviceId, ctx("u"), speed, 1, 1000),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("subscribed u speed"));
    advance(3000);
    EXPECT_EQ(vehicle_.events.count("get b3 speed"), 0);  // no ticks
    for (int value : {100, 101}) {
        vehicle_.setValue(speed, intValue("speed", value));
        ASSERT_EQ(vehicle_.answer(speed, 0xB3), ZELCDBErrorNone);
        ASSERT_TRUE(dashboard_.events.waitFor(format("data u b3 speed=%d", value)));
    }
}

TEST_F(SBPFlowTest, SubscriptionTypesAndIntervals) {
    struct Case {
        const char* context;
        uint32_t type, interval, chosen;
        const char* outcome;  // the dashboard's line after the context
        bool ticks;
    } cases[] = {
        {"either-periodic", 2, 500, 0, "subscribed", true},
        {"either-on-change", 2, 500, 1, "subscribed", false},
        {"either-unchosen", 2, 500, 2, "error %s b3 %s 14 10000004", false},
        {"interval-0", 0, 0, 2, "error %s b3 %s 14 10000003", false},
        {"type-3", 3, 500, 2, "error %s b3 %s 14 10000004", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.context);
        const std::string element = std::string("e-") + c.context;
        vehicle_.chooseType(c.chosen);
        ASSERT_EQ(api().sinkSendSubscribe(client(), vehicle_.serviceId, ctx(c.context),
                                          uidOf(element), c.type, c.interval),
                  ZELCDBErrorNone);
        std::string name = nameOf(uidOf(element));
        std::string outcome = c.outcome == std::string("subscribed")
                                  ? "subscribed " + std::string(c.context) + " " + name
                                  : format(c.outcome, c.context, name.c_str());
        ASSERT_TRUE(dashboard_.events.waitFor(outcome));
        advance(500);
        EXPECT_EQ(dashboard_.events.count(std::string("data ") + c.context + " b3 "), c.ticks);
    }
}

TEST_F(SBPFlowTest, DuplicateRequestsAreRefusedOnBothSides) {
    vehicle_.answerGets(Vehicle::Answer::kLater);
    const uint32_t speed = uidOf("speed");
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g1"), speed), ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g2"), speed), ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("error g2 b1 speed 13 10000008"));
    settle();
    EXPECT_EQ(vehicle_.events.count("get b1 speed"), 1);  // the second never left
    ASSERT_EQ(vehicle_.answer(speed), ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("data g1 b1 speed=88"));

    // A second Get with a packetId of its own while the first is outstanding: the source
    // answers it at once and keeps serving the first.
    ASSERT_NO_FATAL_FAILURE(startWire());
    twin_.answerGets(Vehicle::Answer::kLater);
    ASSERT_EQ(wire_.send(packet(0xB1, speed, 7, 0)), ZELCDBErrorNone);
    ASSERT_TRUE(twin_.events.waitFor("get b1 speed"));
    ASSERT_EQ(wire_.send(packet(0xB1, speed, 8, 0)), ZELCDBErrorNone);
    ASSERT_TRUE(wire_.events.waitFor("packet b9 speed 8 10000008"));
    ASSERT_EQ(twin_.answer(speed), ZELCDBErrorNone);
    ASSERT_TRUE(wire_.events.waitFor("packet b9 speed 7 0"));
    EXPECT_EQ(twin_.events.count("get b1 speed"), 1);
}

TEST_F(SBPFlowTest, AuthenticationChallengeAnsweredAndUnanswered) {
    vehicle_.challengeGets(true);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g1"), uidOf("speed")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("challenge g1 b1 speed challenge='prove it'"));
    ASSERT_TRUE(vehicle_.events.waitFor("auth-response b1 speed 0 answer='proven'"));
    ASSERT_TRUE(dashboard_.events.waitFor("data g1 b1 speed=88"));

    dashboard_.answerChallenges(false);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g2"), uidOf("position")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("challenge g2 b1 position challenge='prove it'"));
    advance(4000);
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{});
    advance(1000);
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{"error g2 b1 position 14 10000007"});
    // Both sides let the request go: the same Get goes out and is answered.
    vehicle_.challengeGets(false);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g3"), uidOf("position")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("data g3 b1 position(latitude=48.137 longitude=11.575)"));
}

TEST_F(SBPFlowTest, AliveRepeatsAndAMissingAnswerStopsTheService) {
    ASSERT_NO_FATAL_FAILURE(startProbe());
    ASSERT_EQ(api().sinkSendAlive(client(), scripted_.serviceId, ctx("a"), 3), ZELCDBErrorNone);
    for (uint16_t id = 1; id <= 2; ++id) {
        if (id > 1) advance(3000);
        ASSERT_TRUE(scripted_.events.waitFor(format("packet b5 0 %u 0", id)));
        ASSERT_EQ(scripted_.send(packet(0xB6, 0, id, 0)), ZELCDBErrorNone);
        ASSERT_TRUE(probe_.events.waitFor("alive a", id));
    }
    advance(3000);
    ASSERT_TRUE(scripted_.events.waitFor("packet b5 0 3 0"));
    advance(3000);  // the next one finds the last still outstanding
    ASSERT_TRUE(probe_.events.waitFor("error a b5 0 13 10000008"));
    EXPECT_EQ(probe_.events.count("error a b5 0 12 0"), 0);
    advance(2000);
    ASSERT_TRUE(probe_.events.waitFor("error a b5 0 12 0"));
    ASSERT_TRUE(scripted_.events.waitFor("stop"));
    ASSERT_TRUE(probe_.events.waitFor("status 2"));
    EXPECT_TRUE(pair_.client.waitForLog(10, "Warning: AliveResponse timeout, stopping service",
                                        "ZELSBPSink"));
    advance(6000);
    EXPECT_EQ(scripted_.events.startingWith("packet b5").size(), 3u);
}

TEST_F(SBPFlowTest, UnansweredSubscribeIsCancelledAndTheCancelsAnswerReachesNoCallback) {
    ASSERT_NO_FATAL_FAILURE(startProbe());
    const uint32_t speed = uidOf("speed");
    ASSERT_EQ(api().sinkSendSubscribe(client(), scripted_.serviceId, ctx("u"), speed, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(scripted_.events.waitFor("packet b3 speed 1 1f4"));
    advance(4000);
    EXPECT_EQ(probe_.events.startingWith("error"), Lines{});
    advance(1000);
    ASSERT_TRUE(probe_.events.waitFor("error u b3 speed 12 0"));
    ASSERT_TRUE(scripted_.events.waitFor("packet b4 speed 2 b3"));
    ASSERT_EQ(scripted_.send(packet(0xB9, speed, 2, 0)), ZELCDBErrorNone);
    ASSERT_EQ(scripted_.send(packet(0xB9, speed, 1, 0)), ZELCDBErrorNone);  // far too late
    settle();
    // The same subscription again: both records are gone, so it goes out.
    ASSERT_EQ(api().sinkSendSubscribe(client(), scripted_.serviceId, ctx("v"), speed, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(scripted_.events.waitFor("packet b3 speed 3 1f4"));
    EXPECT_EQ(probe_.events.lines(), (Lines{"status 1", "error u b3 speed 12 0"}));
}

TEST_F(SBPFlowTest, AnErrorBelowTheInProgressMarkStopsTheService) {
    vehicle_.answerGets(Vehicle::Answer::kRefuse, 0x10000002);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g1"), uidOf("speed")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("error g1 b1 speed 14 10000002"));
    settle();  // the service goes on
    vehicle_.answerGets(Vehicle::Answer::kRefuse, 5);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g2"), uidOf("speed")),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("error g2 b1 speed 14 5"));
    ASSERT_TRUE(vehicle_.events.waitFor("stop"));
    ASSERT_TRUE(dashboard_.events.waitFor("status 2"));
}

TEST_F(SBPFlowTest, ANewPeerStartsTheServiceAgainAfterADisconnect) {
    const uint32_t pressures = uidOf("pressures"), position = uidOf("position");
    ASSERT_EQ(api().sinkSendSubscribe(client(), vehicle_.serviceId, ctx("u"), pressures, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("subscribed u pressures"));
    advance(500);
    vehicle_.answerGets(Vehicle::Answer::kLater);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g"), position), ZELCDBErrorNone);
    ASSERT_TRUE(vehicle_.events.waitFor("get b1 position"));

    // The client goes; the server's one connection ends with it and the server starts again.
    ASSERT_EQ(pair_.client.destroy(), ZELCDBErrorNone);
    ASSERT_TRUE(pair_.server.events.waitForPrefix("status 3 "));
    // Both ends heard the link end as a stop, each answer left owed dropped unreported.
    EXPECT_EQ(dashboard_.events.count("status 2"), 1);
    EXPECT_EQ(vehicle_.events.count("stop"), 1);
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{});
    ASSERT_EQ(pair_.server.start(), ZELCDBErrorNone);
    ASSERT_TRUE(sdktest::waitListening(pair_.port));
    vehicle_.answerGets(Vehicle::Answer::kAtOnce);
    clock_.advanceMs(500);  // a tick of the old subscription would find no one

    Dashboard dashboard;
    App second(ZELCDBEndpointModeClient, pair_.url, &clock_);
    ASSERT_EQ(second.start(), ZELCDBErrorNone);
    ASSERT_TRUE(second.waitFor("status 2 0"));
    ASSERT_TRUE(second.events.waitForPrefix("added "));
    ASSERT_NO_FATAL_FAILURE(attach(second, dashboard));
    ASSERT_EQ(api().sinkSendSubscribe(second.ep, vehicle_.serviceId, ctx("u"), pressures, 0, 500),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard.events.waitFor("subscribed u pressures"));
    clock_.advanceMs(500);
    ASSERT_NO_FATAL_FAILURE(settle(second, dashboard));
    EXPECT_EQ(dashboard.events.count("data u b3 pressures(2.25 2.25 2.5)"), 1);
    ASSERT_EQ(api().sinkSendGet(second.ep, vehicle_.serviceId, ctx("g"), position),
              ZELCDBErrorNone);
    ASSERT_TRUE(dashboard.events.waitFor("data g b1 position(latitude=48.137 longitude=11.575)"));
    EXPECT_EQ(dashboard.events.startingWith("error"), Lines{});
    ASSERT_EQ(second.stop(), ZELCDBErrorNone);
}

}  // namespace
