// SBP between two endpoints over loopback, through the function table alone, on virtual
// time: the server's vehicle service (an SBP source) used by the client's dashboard (an SBP
// sink).
#include <gtest/gtest.h>

#include <cstddef>
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
        ASSERT_TRUE(pair_.connect());
        ASSERT_NO_FATAL_FAILURE(attach(pair_.client, dashboard_));
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
    Vehicle vehicle_;
    Dashboard dashboard_;
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

TEST_F(SBPFlowTest, DuplicateRequestIsRefusedBeforeItLeaves) {
    vehicle_.answerGets(Vehicle::Answer::kLater);
    const uint32_t speed = uidOf("speed");
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g1"), speed), ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendGet(client(), vehicle_.serviceId, ctx("g2"), speed), ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("error g2 b1 speed 13 10000008"));
    settle();
    EXPECT_EQ(vehicle_.events.count("get b1 speed"), 1);  // the second never left
    ASSERT_EQ(vehicle_.answer(speed), ZELCDBErrorNone);
    ASSERT_TRUE(dashboard_.events.waitFor("data g1 b1 speed=88"));
}

TEST_F(SBPFlowTest, UnansweredChallengeTimesOutAndFreesTheRequest) {
    // The answered challenge is checked byte for byte against a raw peer; here it is left
    // unanswered and times out on both sides.
    vehicle_.challengeGets(true);
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

TEST_F(SBPFlowTest, EntriesRefuseValuesTheirFieldsCannotCarry) {
    const uint16_t id = vehicle_.serviceId;
    EXPECT_EQ(api().sinkSendGet(nullptr, id, nullptr, 1), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().sinkSendSubscribe(client(), id, nullptr, 1, 0, 0x1000000),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().sinkSendSet(client(), id, nullptr, 1, nullptr, 3), ZELCDBErrorInvalidParameter);
    for (auto* entry : {api().sourceSendSetResponse, api().sourceSendSubscribeResponse}) {
        EXPECT_EQ(entry(server(), id, nullptr, 1, 0x10000000), ZELCDBErrorInvalidParameter);
    }
    EXPECT_EQ(api().sourceSendGetResponse(server(), id, nullptr, 0xB1, 1, 0x10000000, nullptr, 0),
              ZELCDBErrorInvalidParameter);
    ZELCDBService service = {0, "late", 1, 0, 0, 0};
    ZELSBPSourceCallbacks callbacks{};
    EXPECT_EQ(api().sourceCreate(server(), nullptr, &service, sizeof service, &callbacks,
                                 sizeof callbacks),
              ZELCDBErrorIllegalWhileRunning);
    const uint32_t readSize = offsetof(ZELCDBService, accessControl) + sizeof(uint32_t);
    EXPECT_EQ(
        api().sourceCreate(server(), nullptr, &service, readSize - 1, &callbacks, sizeof callbacks),
        ZELCDBErrorInvalidParameter);
}

}  // namespace
