// Two real endpoints over loopback, driven through the C table as an application drives
// them, on a virtual clock: no ping or request timer fires unless a test moves the clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using namespace sdktest;

constexpr uint16_t kEcho = 0x4001;  // the server's first service
constexpr uint16_t kUp = 0x0001;    // the client's first service

std::string noSuchPeerService(uint16_t id) {
    return format(
        "log CDBSession/0 Failed to start peer service %d (0x%04x) - service does not exist", id,
        id);
}

class EndpointFlow : public ::testing::Test {
protected:
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    Pair pair{&clock};
    App& server = pair.server;
    App& client = pair.client;
};

// Services and commands both ways, with calls from inside every kind of the client's
// callbacks. Each trigger makes the hook ask for two peer services that do not exist:
// performed at once, their error lines would come before the hook ends (or, in the status 1
// callback, not at all, since no session exists yet); queued, they follow it, in order.
TEST_F(EndpointFlow, WholePlainCdbFlowWithCallsFromInsideEveryCallback) {
    const std::vector<std::pair<std::string, uint16_t>> triggers = {
        {"status 1 0", 0x7000},         {"status 2 0", 0x7002},
        {"removed *", 0x7006},          {"added *", 0x7008},
        {"start 1 *", 0x700A},          {"stop 1", 0x700C},
        {"source-payload 1 *", 0x700E}, {"sink-payload 16385 *", 0x7010},
        {"response 16385 *", 0x7012},   {"log CDBSession/30 Connection*", 0x7004},
    };
    std::vector<bool> fired(triggers.size());
    ScopedHook hook(client, [&](App& app, const std::string& line) {
        for (size_t i = 0; i < triggers.size(); ++i) {
            if (fired[i] || !matches(line, triggers[i].first)) continue;
            fired[i] = true;
            ZELCDBError first = app.startService(triggers[i].second);
            ZELCDBError second = app.startService(triggers[i].second + 1);
            app.add(format("hook-end %s %d %d", triggers[i].first.c_str(), first, second));
        }
        if (line == "sink-payload 16385 destroy")
            app.add(format("destroy returned %d", api().endpointDestroy(app.ep)));
        if (line == "sink-payload 16385 stop" || line == "log CDBWriter/100 Sending ByeBye")
            app.add(format("stop returned %d", app.stop()));
    });
    ASSERT_EQ(server.addSource("echo", 1, 2, 0x1234, 0x0507), kEcho);
    ASSERT_EQ(server.addSource("second", 2, 0), kEcho + 1);
    ASSERT_EQ(client.addSource("client.svc", 3, 1, 0, 9), kUp);
    ASSERT_TRUE(pair.connect());
    // The removed list comes first, then the added one; only the low 8 bits of attribute
    // and access control travel.
    const std::string advertised = "added 1.1 [16385 echo 1.2 0x34 0x7] [16386 second 2.0 0x0 0x0]";
    EXPECT_EQ(client.all("added *"), Lines{advertised});
    EXPECT_LT(client.indexOf("removed 1.1"), client.indexOf(advertised));
    EXPECT_EQ(server.all("added *"), Lines{"added 1.1 [1 client.svc 3.1 0x0 0x9]"});

    ASSERT_EQ(client.addSink(kEcho), ZELCDBErrorNone);
    EXPECT_EQ(client.startService(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("start 16385 1.2"));
    EXPECT_EQ(server.respond(kEcho, 0x0001), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("response 16385 0x0001"));
    // Payloads both ways: empty, one byte and at the limit included, each from a buffer the
    // caller overwrites as soon as the call returns: the queued copy is what goes out.
    for (std::string text : {std::string("p"), std::string(), std::string(8100, 'x')}) {
        std::string sent = text;
        EXPECT_EQ(client.send(kEcho, text), ZELCDBErrorNone);
        std::fill(text.begin(), text.end(), '#');
        ASSERT_TRUE(server.waitFor("source-payload 16385 " + sent));
    }
    EXPECT_EQ(server.send(kEcho, "pong"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("sink-payload 16385 pong"));
    EXPECT_EQ(client.stopService(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("stop 16385"));
    ASSERT_EQ(server.addSink(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.startService(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.stopService(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.send(kUp, "to the client's source"), ZELCDBErrorNone);
    for (const auto& t : triggers) {
        SCOPED_TRACE(t.first);
        ASSERT_TRUE(client.waitFor(noSuchPeerService(t.second + 1)));
        int hookEnd = client.indexOf(format("hook-end %s 0 0", t.first.c_str()));
        ASSERT_GE(hookEnd, 0);
        EXPECT_LT(hookEnd, client.indexOf(noSuchPeerService(t.second)));
        EXPECT_LT(client.indexOf(noSuchPeerService(t.second)),
                  client.indexOf(noSuchPeerService(t.second + 1)));
    }

    // Destroy from inside a callback is refused and the endpoint goes on; Stop from inside
    // one ends the thread without waiting for itself, and the next Stop joins it.
    int baseline = threadCount();
    ASSERT_EQ(server.send(kEcho, "destroy"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("destroy returned 6"));
    EXPECT_EQ(client.count(
                  "log CDBEndpoint/0 Operation failed with CDB SDK error 6 (IllegalWhileRunning)"),
              1);
    ASSERT_EQ(server.send(kEcho, "stop"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("status 3 0"));
    EXPECT_LT(client.indexOf("stop returned 0"), client.indexOf("status 3 0"));
    ASSERT_TRUE(server.waitFor("status 3 *"));
    // Each thread may still be reporting its end: this Stop joins it either way.
    client.stop();
    server.stop();
    EXPECT_EQ(client.stop(), ZELCDBErrorIllegalWhileNotRunning);
    EXPECT_LE(threadCount(baseline), baseline);

    // Started again: the same services are advertised anew, sinks must be added anew.
    ASSERT_TRUE(pair.connect(2));
    EXPECT_EQ(client.all("added *"), (Lines{advertised, advertised}));
    EXPECT_EQ(client.addSink(kEcho), ZELCDBErrorNone);
    EXPECT_EQ(server.send(kEcho, "pong again"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("sink-payload 16385 pong again"));
    // Timer lines go through the endpoint thread's current logger, which must be the endpoint.
    clock.advanceMs(5 * 60 * 1000);
    EXPECT_TRUE(client.waitFor("log TimerManager/30 Time has jumped forwards - restarting timers"));

    // Destroyed while connected: the ByeBye exchange ends both sides at once. The endpoint
    // thread must never wait for what the destroying thread holds: a Stop from a callback
    // meanwhile just returns.
    EXPECT_EQ(client.destroy(), ZELCDBErrorNone);
    EXPECT_TRUE(server.waitFor("status 3 *", 2));
    EXPECT_EQ(client.all("stop returned *"), Lines(3, "stop returned 0"));
}

// SBP from the client's sink to the server's source: each request kind through the table,
// answered from inside the source's callbacks from buffers spoilt at once; one fault per
// side, each ending the service, which the sink starts again. When the link ends, what is
// owed is dropped unreported and a new peer starts the service afresh.
TEST_F(EndpointFlow, SbpRequestsAnswersFaultsAndANewPeer) {
    // Opaque to the library; as an encoded element would be, each is longer than 4 bytes.
    server.values = {{uidOf("speed"), "88 km/h"}};
    ASSERT_EQ(server.addSbpSource("vehicle"), kEcho);
    ASSERT_TRUE(pair.connect());
    auto startService = [&](App& app) {
        int started = app.count("status 1");
        ASSERT_EQ(app.startService(kEcho), ZELCDBErrorNone);
        ASSERT_TRUE(app.waitFor("status 1", started + 1));
    };
    // Fires every timer due then, and waits until the sink has heard what the source sent
    // because of them: two Alive round trips, since the first may overtake the server's
    // wake-up.
    auto advance = [&](int ms, App& app) {
        clock.advanceMs(ms);
        for (int i = 0; i < 2; ++i) {
            int before = app.count("alive sync");
            ASSERT_EQ(api().sinkSendAlive(app.ep, kEcho, ctx("sync"), 0), ZELCDBErrorNone);
            ASSERT_TRUE(app.waitFor("alive sync", before + 1));
        }
    };
    auto subscribe = [&](App& app) {
        ASSERT_EQ(api().sinkSendSubscribe(app.ep, kEcho, ctx("u"), uidOf("speed"), 0, 500),
                  ZELCDBErrorNone);
        ASSERT_TRUE(app.waitFor("subscribed u"));
    };
    ASSERT_EQ(client.addSbpSink(kEcho), ZELCDBErrorNone);
    ASSERT_NO_FATAL_FAILURE(startService(client));
    ASSERT_EQ(api().sinkSendGet(client.ep, kEcho, ctx("g"), uidOf("speed")), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("data g b1 88 km/h"));
    std::string value = "95 km/h";
    ASSERT_EQ(api().sinkSendSet(client.ep, kEcho, ctx("s"), uidOf("speed"),
                                reinterpret_cast<const uint8_t*>(value.data()), 7),
              ZELCDBErrorNone);
    value.assign(7, '#');
    ASSERT_TRUE(client.waitFor("set-done s"));
    EXPECT_EQ(server.count("set 95 km/h"), 1);

    // A periodic subscription ticks with the value until cancelled.
    ASSERT_NO_FATAL_FAILURE(subscribe(client));
    EXPECT_EQ(server.count("subscribe 0 500"), 1);
    for (int tick = 0; tick < 2; ++tick) ASSERT_NO_FATAL_FAILURE(advance(500, client));
    EXPECT_EQ(client.count("data u b3 95 km/h"), 2);
    ASSERT_EQ(api().sinkSendCancel(client.ep, kEcho, ctx("c"), uidOf("speed"), 0xB3),
              ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("cancelled c b3"));
    EXPECT_EQ(server.count("cancel b3"), 1);
    ASSERT_NO_FATAL_FAILURE(advance(500, client));
    EXPECT_EQ(client.count("data u b3 95 km/h"), 2);

    // Fault at the source: it terminates the service for the peer (status 0x0203).
    ASSERT_EQ(client.send(kEcho, "bad"), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("terminated"));
    ASSERT_TRUE(client.waitFor("status 515"));
    ASSERT_NO_FATAL_FAILURE(startService(client));
    // Fault at the sink: it stops the service.
    ASSERT_EQ(server.send(kEcho, "bad"), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("sbp-stop"));
    ASSERT_TRUE(client.waitFor("status 2"));
    ASSERT_NO_FATAL_FAILURE(startService(client));
    EXPECT_EQ(server.count("sbp-start"), 3);

    ASSERT_NO_FATAL_FAILURE(subscribe(client));
    Lines errors = client.all("error *");
    ASSERT_EQ(client.destroy(), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("status 3 *"));
    EXPECT_EQ(client.count("status 2"), 2);
    EXPECT_EQ(server.count("sbp-stop"), 2);
    EXPECT_EQ(client.all("error *"), errors);
    ASSERT_EQ(server.start(), ZELCDBErrorNone);
    ASSERT_TRUE(waitListening(pair.port));
    clock.advanceMs(500);  // a tick of the old subscription would find no one
    App second(ZELCDBEndpointModeClient, pair.url, &clock);
    ASSERT_EQ(second.start(), ZELCDBErrorNone);
    ASSERT_TRUE(second.waitFor("added *"));
    ASSERT_EQ(second.addSbpSink(kEcho), ZELCDBErrorNone);
    ASSERT_NO_FATAL_FAILURE(startService(second));
    ASSERT_NO_FATAL_FAILURE(subscribe(second));
    ASSERT_NO_FATAL_FAILURE(advance(500, second));
    EXPECT_EQ(second.count("data u b3 95 km/h"), 1);
    EXPECT_EQ(second.all("error *"), Lines{});
    ASSERT_EQ(second.stop(), ZELCDBErrorNone);
}

}  // namespace
