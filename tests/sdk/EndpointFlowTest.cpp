// Two real endpoints over loopback, driven through the C table as an application drives
// them, on a virtual clock: nothing here waits for a protocol time-out in real time, and no
// ping or request timer fires unless a test moves the clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

using sdktest::api;
using sdktest::App;
using sdktest::format;
using Lines = std::vector<std::string>;

constexpr uint16_t kEcho = 0x4001;  // the server's first service
constexpr uint16_t kUp = 0x0001;    // the client's first service

std::string sessionLine(int level, const std::string& text) {
    return format("log CDBSession/%d %s", level, text.c_str());
}
std::string noSuchPeerService(uint16_t id) {
    return sessionLine(
        0, format("Failed to start peer service %d (0x%04x) - service does not exist", id, id));
}

class EndpointFlow : public ::testing::Test {
protected:
    // Registers the services every test here uses and connects the pair.
    void connectWithServices() {
        ASSERT_EQ(server.addSource("echo", 1, 2, 0x1234, 0x0507), kEcho);
        ASSERT_EQ(server.addSource("second", 2, 0), kEcho + 1);
        ASSERT_EQ(client.addSource("client.svc", 3, 1, 0, 9), kUp);
        ASSERT_TRUE(pair.connect());
        ASSERT_EQ(client.addSink(kEcho), ZELCDBErrorNone);
        ASSERT_TRUE(client.waitFor(sessionLine(30, "Sink added for peer service 16385 (0x4001)")));
    }

    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    sdktest::Pair pair{&clock};
    App& server = pair.server;
    App& client = pair.client;
};

TEST_F(EndpointFlow, WholePlainCdbFlowBetweenTwoEndpoints) {
    connectWithServices();
    // After every ServicesSupported the removed list comes first, then the added one; only
    // the low 8 bits of attribute and access control travel.
    const std::string advertised = "added 1.1 [16385 echo 1.2 0x34 0x7] [16386 second 2.0 0x0 0x0]";
    EXPECT_EQ(client.events.startingWith("added "), Lines{advertised});
    EXPECT_EQ(client.events.startingWith("removed "), Lines{"removed 1.1"});
    EXPECT_LT(client.events.indexOf("removed 1.1"), client.events.indexOf(advertised));
    EXPECT_EQ(server.events.startingWith("added "), Lines{"added 1.1 [1 client.svc 3.1 0x0 0x9]"});

    // A sink for a service the peer never advertised: accepted, and the log says why nothing
    // will come of it.
    EXPECT_EQ(client.addSink(0x4005), ZELCDBErrorNone);
    EXPECT_TRUE(client.waitFor(sessionLine(
        0, "Failed to add sink for peer service 16389 (0x4005) - service does not exist")));

    // StartService carries the advertised version; the source's answer reaches the sink.
    EXPECT_EQ(client.startService(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("start 16385 1.2"));
    EXPECT_EQ(server.respond(kEcho, 0x0001), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("response 16385 0x0001"));

    // Payloads both ways, empty and at the limit included.
    const std::string largest(8100, 'x');
    for (const std::string& text : {std::string("ping"), std::string(), largest}) {
        EXPECT_EQ(client.send(kEcho, text), ZELCDBErrorNone);
        ASSERT_TRUE(server.waitFor("source-payload 16385 " + text));
    }
    EXPECT_EQ(server.send(kEcho, "pong"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("sink-payload 16385 pong"));

    EXPECT_EQ(client.stopService(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("stop 16385"));
    EXPECT_EQ(server.respond(kEcho, 0x0001), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("response 16385 0x0001", 2));

    // Stop and start again: the same services are advertised anew, sinks must be added anew.
    EXPECT_EQ(client.stop(), ZELCDBErrorNone);
    EXPECT_EQ(client.events.count("status 3 0"), 1);
    ASSERT_TRUE(server.events.waitForPrefix("status 3 "));
    EXPECT_EQ(client.stop(), ZELCDBErrorIllegalWhileNotRunning);
    EXPECT_TRUE(client.waitFor(
        "log CDBEndpoint/0 Operation failed with CDB SDK error 7 (IllegalWhileNotRunning)"));
    ASSERT_TRUE(pair.connect(2));
    EXPECT_EQ(client.events.startingWith("added "), (Lines{advertised, advertised}));
    EXPECT_EQ(client.addSink(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor(sessionLine(30, "Sink added for peer service 16385 (0x4001)"), 2));
    EXPECT_EQ(server.send(kEcho, "pong again"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("sink-payload 16385 pong again"));

    // Destroyed while connected: the ByeBye exchange ends both sides at once.
    EXPECT_EQ(client.destroy(), ZELCDBErrorNone);
    EXPECT_TRUE(server.events.waitForPrefix("status 3 ", 2));
    EXPECT_EQ(server.destroy(), ZELCDBErrorNone);
}

// Each trigger, seen once on the client, makes the hook ask for two peer services that do
// not exist. Performed at once, their error lines would come before the hook ends (or, in
// the status 1 callback, not at all, since no session exists yet); queued, they follow it.
TEST_F(EndpointFlow, CallsFromInsideEveryCallbackRunAfterItReturnsInOrder) {
    struct Trigger {
        std::string prefix;
        uint16_t firstId;
        bool fired;
    };
    std::vector<Trigger> triggers = {
        {"status 1 0", 0x7000, false},
        {"status 2 0", 0x7002, false},
        {"log CDBSession/30 Connection established", 0x7004, false},
        {"removed ", 0x7006, false},
        {"added ", 0x7008, false},
        {"start 1 ", 0x700A, false},
        {"stop 1", 0x700C, false},
        {"source-payload 1 ", 0x700E, false},
        {"sink-payload 16385 ", 0x7010, false},
        {"response 16385 ", 0x7012, false},
    };
    sdktest::ScopedHook hook(client, [&](App& app, const std::string& line) {
        for (Trigger& t : triggers) {
            if (t.fired || line.compare(0, t.prefix.size(), t.prefix) != 0) continue;
            t.fired = true;
            ZELCDBError first = app.startService(t.firstId);
            ZELCDBError second = app.startService(t.firstId + 1);
            app.events.add(format("hook-end %s %d %d", t.prefix.c_str(), first, second));
        }
    });
    connectWithServices();
    ASSERT_EQ(server.addSink(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.startService(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.stopService(kUp), ZELCDBErrorNone);
    ASSERT_EQ(server.send(kUp, "to the client's source"), ZELCDBErrorNone);
    ASSERT_EQ(server.send(kEcho, "to the client's sink"), ZELCDBErrorNone);
    ASSERT_EQ(client.startService(kEcho), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("start 16385 1.2"));
    ASSERT_EQ(server.respond(kEcho, 0x0001), ZELCDBErrorNone);

    for (const Trigger& t : triggers) {
        SCOPED_TRACE(t.prefix);
        std::string end = format("hook-end %s 0 0", t.prefix.c_str());
        ASSERT_TRUE(client.waitFor(noSuchPeerService(t.firstId + 1)));
        int hookEnd = client.events.indexOf(end);
        int first = client.events.indexOf(noSuchPeerService(t.firstId));
        int second = client.events.indexOf(noSuchPeerService(t.firstId + 1));
        ASSERT_GE(hookEnd, 0);
        EXPECT_LT(hookEnd, first);
        EXPECT_LT(first, second);
    }
}

TEST_F(EndpointFlow, PayloadBufferReusedRightAfterTheCallIsSentUnchanged) {
    // From inside a callback the send is queued behind the callback, so the copy is all that
    // is left of the bytes when they go out: the buffer is overwritten and freed first.
    client.setHook([](App& app, const std::string& line) {
        if (line != "sink-payload 16385 send from inside") return;
        std::vector<uint8_t>* buffer = new std::vector<uint8_t>(20, 'a');
        EXPECT_EQ(api().endpointSendServicePayload(app.ep, kEcho, buffer->data(), 20),
                  ZELCDBErrorNone);
        std::fill(buffer->begin(), buffer->end(), 'X');
        delete buffer;
    });
    connectWithServices();
    ASSERT_EQ(server.send(kEcho, "send from inside"), ZELCDBErrorNone);
    ASSERT_TRUE(server.waitFor("source-payload 16385 " + std::string(20, 'a')));

    // From another thread, overwritten at once, many times; they also arrive in order.
    char buffer[32];
    for (int i = 0; i < 50; ++i) {
        int length = std::snprintf(buffer, sizeof buffer, "message %02d", i);
        ASSERT_EQ(
            api().endpointSendServicePayload(client.ep, kEcho, reinterpret_cast<uint8_t*>(buffer),
                                             static_cast<uint32_t>(length)),
            ZELCDBErrorNone);
        std::memset(buffer, '#', sizeof buffer);
    }
    ASSERT_TRUE(server.waitFor("source-payload 16385 message 49"));
    Lines received = server.events.startingWith("source-payload 16385 message");
    ASSERT_EQ(received.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(received[i], format("source-payload 16385 message %02d", i));
    }
}

TEST_F(EndpointFlow, StopFromInsideACallbackEndsTheThreadWithoutWaitingForItself) {
    int baseline = sdktest::threadCount();
    client.setHook([](App& app, const std::string& line) {
        if (line == "sink-payload 16385 stop")
            app.events.add(format("stop returned %d", app.stop()));
    });
    connectWithServices();
    ASSERT_EQ(server.send(kEcho, "stop"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("stop returned 0"));
    ASSERT_TRUE(client.waitFor("status 3 0"));
    EXPECT_LT(client.events.indexOf("stop returned 0"), client.events.indexOf("status 3 0"));
    ASSERT_TRUE(server.events.waitForPrefix("status 3 "));
    // The ended threads are joined by the next stop (or start, or destroy), which finds them
    // ended (IllegalWhileNotRunning) or still finishing (None).
    for (App* app : {&client, &server}) {
        ZELCDBError result = app->stop();
        EXPECT_TRUE(result == ZELCDBErrorNone || result == ZELCDBErrorIllegalWhileNotRunning);
    }
    EXPECT_LE(sdktest::threadCountSettledAt(baseline), baseline);
    ASSERT_TRUE(pair.connect(2));
}

TEST_F(EndpointFlow, DestroyFromInsideACallbackIsRefusedAndTheEndpointGoesOn) {
    const std::string refused =
        "log CDBEndpoint/0 Operation failed with CDB SDK error 6 (IllegalWhileRunning)";
    client.setHook([](App& app, const std::string& line) {
        if (line == "sink-payload 16385 destroy") {
            app.events.add(format("destroy returned %d", api().endpointDestroy(app.ep)));
        }
    });
    connectWithServices();
    ASSERT_EQ(server.send(kEcho, "destroy"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("destroy returned 6"));
    EXPECT_EQ(client.events.count(refused), 1);
    ASSERT_EQ(server.send(kEcho, "still here"), ZELCDBErrorNone);
    ASSERT_TRUE(client.waitFor("sink-payload 16385 still here"));
}

TEST_F(EndpointFlow, ServicesRequestTimeoutReachesTheApplicationAndItsCallsAreQueued) {
    sdktest::SilentPeer peer;
    App lonely(ZELCDBEndpointModeClient, peer.url(), &clock);
    lonely.setHook([](App& app, const std::string& line) {
        if (line != "timeout") return;
        ZELCDBError result = app.startService(0x7100);
        app.events.add(format("hook-end timeout %d", result));
    });
    ASSERT_EQ(lonely.start(), ZELCDBErrorNone);
    ASSERT_TRUE(peer.accept());
    ASSERT_TRUE(lonely.waitFor("status 2 0"));
    ASSERT_TRUE(sdktest::advanceUntil(clock, lonely, "timeout", 5000));
    EXPECT_TRUE(lonely.waitFor(
        sessionLine(0, "Peer endpoint did not respond to ServicesRequest within five seconds")));
    ASSERT_TRUE(lonely.waitFor(noSuchPeerService(0x7100)));
    EXPECT_LT(lonely.events.indexOf("hook-end timeout 0"),
              lonely.events.indexOf(noSuchPeerService(0x7100)));
    peer.hangUp();  // else the stop would wait for a ByeBye that virtual time never ends
    EXPECT_TRUE(lonely.events.waitForPrefix("status 3 "));
}

}  // namespace
