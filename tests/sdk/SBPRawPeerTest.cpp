// One endpoint through the function table against a scripted peer that speaks raw CDB
// bytes over loopback: the SBP packets the endpoint's source or sink sends are checked byte
// for byte, and the peer sends what no well-behaved SBP peer would. Virtual time.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cdb/SessionTestSupport.h"
#include "sdk/EndpointHarness.h"
#include "sdk/SBPApps.h"

namespace {

using namespace sbptest;
using sdktest::App;
using Lines = std::vector<std::string>;

constexpr uint16_t kService = 0x4001;
constexpr uint8_t kAccess = 0x5a;

void* ctx(const char* text) {
    return const_cast<char*>(text);
}

// "<command> <length> <uid> <packetId> <value>" and the rest, in hex as it travels.
std::string wire(uint8_t command, uint32_t length, uint32_t uid, uint16_t packetId, uint32_t value,
                 const Bytes& payload = {}) {
    return format("%02x%08x%08x%04x%08x", command, length, uid, packetId, value) +
           (payload.empty() ? "00000000" : hex(payload)) + "b0";
}
std::string payloadLine(const std::string& sbp) {
    return format("ServicePayload 0x%04x ac=%d ", kService, kAccess) + sbp;
}

// The scripted end of the connection: pings are answered wherever they turn up.
class Peer {
public:
    sessiontest::RawPeer raw;

    // The next message that is not a ping; "closed" or "nothing" when none comes.
    std::string next() {
        for (;;) {
            std::string message = raw.next();
            if (!answeredPing(message)) return message;
        }
    }
    // What the endpoint sent until it has handled two pings of ours one after the other:
    // by then it has fired every timer due at the current virtual time.
    Lines settle() {
        Lines seen;
        for (int i = 0; i < 2; ++i) {
            for (const std::string& message : raw.sync()) {
                if (!answeredPing(message)) seen.push_back(message);
            }
        }
        return seen;
    }
    // Sends one packet at once.
    void send(const Bytes& sbp) {
        raw.w().sendServicePayload(kService, kAccess, sbp.data(), sbp.size());
        flush();
    }
    // Sends what was written through raw.w() (next() and settle() do so by themselves).
    void flush() { raw.sendRaw({}); }

private:
    bool answeredPing(const std::string& message) {
        int sequence;
        if (std::sscanf(message.c_str(), "Ping %d", &sequence) == 1) {
            raw.w().sendPingResponse(static_cast<uint16_t>(sequence));
            return true;
        }
        return message.compare(0, 13, "PingResponse ") == 0;
    }
};

// ---- The endpoint's source against a raw sink ----------------------------------------------

class SBPRawSinkPeerTest : public ::testing::Test {
protected:
    SBPRawSinkPeerTest()
        : useClock_(&clock_),
          port_(sdktest::freePort()),
          server_(ZELCDBEndpointModeServer, sdktest::loopbackUrl(port_), &clock_) {}

    void SetUp() override {
        ZELSBPSourceCallbacks callbacks = Vehicle::table();
        ZELCDBService service = {0, "vehicle", 1, 0, 0, kAccess};
        ASSERT_EQ(api().sourceCreate(server_.ep, &vehicle_, &service, sizeof service, &callbacks,
                                     sizeof callbacks),
                  ZELCDBErrorNone);
        vehicle_.endpoint = server_.ep;
        vehicle_.serviceId = service.serviceId;
        ASSERT_EQ(server_.start(), ZELCDBErrorNone);
        ASSERT_TRUE(peer_.raw.connect(port_));
        ASSERT_EQ(peer_.next(), "ServicesRequest 1.1");
        peer_.raw.w().sendServicesRequest({1, 1});
        peer_.raw.w().sendServicesSupported({1, 1}, nullptr, 0);
        ASSERT_EQ(peer_.next(), "ServicesSupported 1.1: 0x4001 vehicle 1.0 attr=0 ac=90");
        ASSERT_NO_FATAL_FAILURE(startService());
    }
    void startService() {
        peer_.raw.w().sendStartService(kService, {1, 0});
        ASSERT_EQ(peer_.next(), "ServiceResponse 0x4001 0x0001");
    }
    // Sends one packet and returns what came back.
    std::string ask(const Bytes& sbp) {
        peer_.send(sbp);
        return peer_.next();
    }

    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    Vehicle vehicle_;
    int port_;
    App server_;
    Peer peer_;
};

TEST_F(SBPRawSinkPeerTest, AnswersByteForByte) {
    const uint32_t speed = uidOf("speed"), pressures = uidOf("pressures");
    const Bytes speedValue = vehicle_.value(speed);
    ASSERT_EQ(speedValue.size(), 9u);
    struct Case {
        const char* what;
        Bytes request;
        std::string answer;
    } cases[] = {
        {"Get, data", packet(0xB1, speed, 1, 0), wire(0xB9, 20, speed, 1, 0, speedValue)},
        {"AliveRequest", packet(0xB5, 0, 2, 0), wire(0xB6, 15, 0, 2, 0)},
        {"Subscribe", packet(0xB3, pressures, 3, 500), wire(0xB9, 15, pressures, 3, 0)},
        {"Cancel of nothing", packet(0xB4, speed, 4, 0xB3), wire(0xB9, 15, speed, 4, 0x10000009)},
        {"Cancel of a command out of range", packet(0xB4, pressures, 5, 0xBA),
         wire(0xB9, 15, pressures, 5, 0x10000009)},
        {"unknown command", packet(0xBA, speed, 6, 0), wire(0xB9, 15, speed, 6, 0x1000000D)},
        {"ServiceResponse is the source's", packet(0xB9, speed, 7, 0),
         wire(0xB9, 15, speed, 7, 0x1000000D)},
    };
    for (const Case& c : cases) EXPECT_EQ(ask(c.request), payloadLine(c.answer)) << c.what;

    // The subscription ticks with data, and a Cancel ends it: the subscription hears
    // "cancelled", the Cancel itself 0.
    clock_.advanceMs(500);
    const Bytes pressuresValue = vehicle_.value(pressures);
    EXPECT_EQ(peer_.settle(),
              Lines{payloadLine(wire(0xB9, static_cast<uint32_t>(11 + pressuresValue.size()),
                                     pressures, 3, 0, pressuresValue))});
    peer_.send(packet(0xB4, pressures, 8, 0xB3));
    EXPECT_EQ(peer_.settle(), (Lines{payloadLine(wire(0xB9, 15, pressures, 3, 0x1000000B)),
                                     payloadLine(wire(0xB9, 15, pressures, 8, 0))}));
}

TEST_F(SBPRawSinkPeerTest, LateAnswersInterimsChallengesAndDuplicates) {
    const uint32_t speed = uidOf("speed"), driver = uidOf("driver");
    vehicle_.answerGets(Vehicle::Answer::kLater);
    peer_.send(packet(0xB1, speed, 0x1234, 0));
    ASSERT_TRUE(vehicle_.events.waitFor("get b1 speed"));
    // Same command and element under another packetId: refused, the first stays.
    EXPECT_EQ(ask(packet(0xB1, speed, 0x1235, 0)),
              payloadLine(wire(0xB9, 15, speed, 0x1235, 0x10000008)));
    clock_.advanceMs(3999);
    EXPECT_EQ(peer_.settle(), Lines{});
    clock_.advanceMs(1);
    EXPECT_EQ(peer_.settle(), Lines{payloadLine(wire(0xB9, 15, speed, 0x1234, 0x10000000))});
    ASSERT_EQ(vehicle_.answer(speed), ZELCDBErrorNone);
    const Bytes value = vehicle_.value(speed);
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB9, 20, speed, 0x1234, 0, value)));

    // A challenge carries the marker and the application's data; the answer to it reaches
    // the application, which then answers the Get.
    vehicle_.challengeGets(true);
    const Bytes question = stringValue("challenge", "prove it");
    EXPECT_EQ(ask(packet(0xB1, driver, 9, 0)),
              payloadLine(wire(0xB7, static_cast<uint32_t>(11 + question.size()), driver, 9,
                               0x80000000, question)));
    peer_.send(packet(0xB8, speed, 9, 0, stringValue("answer", "x")));  // wrong element
    EXPECT_EQ(peer_.settle(), Lines{});
    const Bytes proof = stringValue("answer", "proven");
    peer_.send(packet(0xB8, driver, 9, 0x10000002, proof));
    ASSERT_TRUE(vehicle_.events.waitFor("auth-response b1 driver 10000002 answer='proven'"));
    const Bytes name = vehicle_.value(driver);
    EXPECT_EQ(peer_.next(),
              payloadLine(wire(0xB9, static_cast<uint32_t>(11 + name.size()), driver, 9, 0, name)));
    EXPECT_TRUE(server_.waitForLog(
        10,
        format("Warning: auth response with wrong object UID (expected %x, received %x)", driver,
               speed),
        "ZELSBPSource"));
}

TEST_F(SBPRawSinkPeerTest, ReaderFaultsTerminateTheService) {
    const Bytes alive = packet(0xB5, 0, 1, 0);
    Bytes longer = alive, unterminated = alive, trailing = alive;
    longer[4] = 16;  // one byte more than there is
    unterminated.back() = 0x00;
    trailing.push_back(0xB0);
    struct Case {
        const char* what;
        Bytes data;
        bool fault;
    } cases[] = {
        {"truncated command", Bytes(alive.begin(), alive.begin() + 14), true},
        {"truncated packet", longer, true},
        {"missing end marker", unterminated, true},
        {"excess trailing data", trailing, false},
    };
    int terminated = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.fault) {
            EXPECT_EQ(ask(c.data), payloadLine(wire(0xB6, 15, 0, 1, 0)));
            continue;
        }
        EXPECT_EQ(ask(c.data), "ServiceResponse 0x4001 0x0203");
        ASSERT_TRUE(vehicle_.events.waitFor("terminated", ++terminated));
        // The service is over for the peer until it starts it again.
        EXPECT_EQ(ask(alive), "ServiceResponse 0x4001 0x0102");
        ASSERT_NO_FATAL_FAILURE(startService());
        EXPECT_EQ(ask(alive), payloadLine(wire(0xB6, 15, 0, 1, 0)));
    }
}

// ---- The endpoint's sink against a raw source ----------------------------------------------

class SBPRawSourcePeerTest : public ::testing::Test {
protected:
    SBPRawSourcePeerTest()
        : useClock_(&clock_), client_(ZELCDBEndpointModeClient, peer_.raw.listen(), &clock_) {}

    void SetUp() override {
        ASSERT_EQ(client_.start(), ZELCDBErrorNone);
        ASSERT_TRUE(peer_.raw.accept());
        ASSERT_EQ(peer_.next(), "ServicesRequest 1.1");
        zelcdbsdk::CDBService vehicle(kService, {1, 0}, 0, kAccess, "vehicle");
        peer_.raw.w().sendServicesSupported({1, 1}, &vehicle, 1);
        peer_.flush();
        ASSERT_TRUE(client_.events.waitForPrefix("added 1.1 [16385 vehicle"));
        ZELSBPSinkCallbacks callbacks = Dashboard::table();
        ASSERT_EQ(api().sinkCreate(client_.ep, &dashboard_, kService, &callbacks, sizeof callbacks),
                  ZELCDBErrorNone);
        ASSERT_NO_FATAL_FAILURE(startService());
    }
    // A client that says ByeBye waits for the answer on virtual time: the peer hangs up
    // first, and the endpoint ends on the closed connection.
    void TearDown() override {
        peer_.raw.close();
        client_.events.waitForPrefix("status 3 ");
    }
    void startService() {
        ASSERT_EQ(client_.startService(kService), ZELCDBErrorNone);
        ASSERT_EQ(peer_.next(), "StartService 0x4001 1.0");
        peer_.raw.w().sendServiceResponse(kService, 1);
        peer_.flush();
        ASSERT_TRUE(dashboard_.events.waitFor("status 1", ++starts_));
    }

    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    Dashboard dashboard_;
    Peer peer_;
    App client_;
    int starts_ = 0;
};

TEST_F(SBPRawSourcePeerTest, RequestsByteForByteWithPacketIdsCountingUp) {
    const uint32_t speed = uidOf("speed"), position = uidOf("position");
    const Bytes value = positionValue(1.5, -2.5);
    ASSERT_EQ(api().sinkSendGet(client_.ep, kService, ctx("g"), speed), ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendSet(client_.ep, kService, ctx("s"), position, value.data(),
                                static_cast<uint32_t>(value.size())),
              ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendSubscribe(client_.ep, kService, ctx("u"), speed, 1, 0xFFFFFF),
              ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendCancel(client_.ep, kService, ctx("c"), speed, 0xB3), ZELCDBErrorNone);
    ASSERT_EQ(api().sinkSendAlive(client_.ep, kService, ctx("a"), 0), ZELCDBErrorNone);
    // A type the source will judge: it goes into the top byte as given.
    ASSERT_EQ(api().sinkSendSubscribe(client_.ep, kService, ctx("v"), position, 0x7F, 1),
              ZELCDBErrorNone);
    const Lines expected = {
        payloadLine(wire(0xB1, 15, speed, 1, 0)),
        payloadLine(wire(0xB2, static_cast<uint32_t>(11 + value.size()), position, 2, 0, value)),
        payloadLine(wire(0xB3, 15, speed, 3, 0x01FFFFFF)),
        payloadLine(wire(0xB4, 15, speed, 4, 0xB3)),
        payloadLine(wire(0xB5, 15, 0, 5, 0)),
        payloadLine(wire(0xB3, 15, position, 6, 0x7F000001)),
    };
    for (const std::string& line : expected) EXPECT_EQ(peer_.next(), line);

    // A challenge to the Get is answered with the application's data under the Get's
    // packetId; without the application's callback the sink refuses it itself.
    const Bytes question = stringValue("challenge", "?");
    peer_.send(packet(0xB7, speed, 1, 0x80000000, question));
    ASSERT_TRUE(dashboard_.events.waitFor("challenge g b1 speed challenge='?'"));
    const Bytes proof = stringValue("answer", "proven");
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB8, static_cast<uint32_t>(11 + proof.size()), speed,
                                             1, 0, proof)));
    peer_.send(packet(0xB7, speed, 1, 0x12345678));  // not the challenge marker
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB8, 15, speed, 1, 0x10000002)));
}

TEST_F(SBPRawSourcePeerTest, PacketIdsWrapPastThoseInUseAndRunOut) {
    // Every id from 1 to 65535 is handed out once and stays in use.
    constexpr uint32_t kIds = 65535;
    for (uint32_t uid = 1; uid <= kIds; ++uid) {
        ASSERT_EQ(api().sinkSendGet(client_.ep, kService, nullptr, uid), ZELCDBErrorNone);
    }
    for (uint32_t uid = 1; uid <= kIds; ++uid) {
        std::string line = peer_.next();
        if (line != payloadLine(wire(0xB1, 15, uid, static_cast<uint16_t>(uid), 0))) {
            FAIL() << uid << ": " << line;
        }
    }
    ASSERT_EQ(api().sinkSendGet(client_.ep, kService, nullptr, 0x10000), ZELCDBErrorNone);
    ASSERT_TRUE(
        dashboard_.events.waitFor(format("error - b1 %s 13 1000000a", nameOf(0x10000).c_str())));
    // Two answered requests free their ids; the search wraps and finds exactly those.
    for (uint16_t id : {7, 3}) peer_.send(packet(0xB9, id, id, 0));
    ASSERT_TRUE(dashboard_.events.waitFor("data - b1 ", 2));
    for (uint32_t uid : {0x10001, 0x10002, 0x10003}) {
        ASSERT_EQ(api().sinkSendGet(client_.ep, kService, nullptr, uid), ZELCDBErrorNone);
    }
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB1, 15, 0x10001, 3, 0)));
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB1, 15, 0x10002, 7, 0)));
    ASSERT_TRUE(
        dashboard_.events.waitFor(format("error - b1 %s 13 1000000a", nameOf(0x10003).c_str())));
    EXPECT_EQ(peer_.settle(), Lines{});
}

TEST_F(SBPRawSourcePeerTest, AliveRepeatsAndAMissingAnswerStopsTheService) {
    ASSERT_EQ(api().sinkSendAlive(client_.ep, kService, ctx("a"), 3), ZELCDBErrorNone);
    for (uint16_t id = 1; id <= 3; ++id) {
        if (id > 1) clock_.advanceMs(3000);
        ASSERT_EQ(peer_.next(), payloadLine(wire(0xB5, 15, 0, id, 0)));
        if (id == 3) break;  // left unanswered
        peer_.send(packet(0xB6, 0, id, 0));
        ASSERT_TRUE(dashboard_.events.waitFor("alive a", id));
    }
    clock_.advanceMs(3000);  // the next one finds the last still outstanding
    ASSERT_TRUE(dashboard_.events.waitFor("error a b5 0 13 10000008"));
    EXPECT_EQ(peer_.settle(), Lines{});
    EXPECT_EQ(dashboard_.events.count("error a b5 0 12 0"), 0);
    clock_.advanceMs(2000);
    ASSERT_EQ(peer_.next(), "StopService 0x4001");
    ASSERT_TRUE(dashboard_.events.waitFor("error a b5 0 12 0"));
    peer_.raw.w().sendServiceResponse(kService, 2);
    peer_.flush();
    ASSERT_TRUE(dashboard_.events.waitFor("status 2"));
    EXPECT_TRUE(
        client_.waitForLog(10, "Warning: AliveResponse timeout, stopping service", "ZELSBPSink"));
    clock_.advanceMs(6000);
    EXPECT_EQ(peer_.settle(), Lines{});
}

TEST_F(SBPRawSourcePeerTest, UnansweredSubscribeIsCancelledAndTheCancelsAnswerReachesNoCallback) {
    const uint32_t speed = uidOf("speed");
    ASSERT_EQ(api().sinkSendSubscribe(client_.ep, kService, ctx("u"), speed, 0, 500),
              ZELCDBErrorNone);
    ASSERT_EQ(peer_.next(), payloadLine(wire(0xB3, 15, speed, 1, 500)));
    clock_.advanceMs(4000);
    EXPECT_EQ(peer_.settle(), Lines{});
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{});
    clock_.advanceMs(1000);
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB4, 15, speed, 2, 0xB3)));
    ASSERT_TRUE(dashboard_.events.waitFor("error u b3 speed 12 0"));
    peer_.send(packet(0xB9, speed, 2, 0));
    peer_.send(packet(0xB9, speed, 1, 0));  // far too late
    EXPECT_EQ(peer_.settle(), Lines{});
    // The same subscription again: both records are gone, so it goes out.
    ASSERT_EQ(api().sinkSendSubscribe(client_.ep, kService, ctx("v"), speed, 0, 500),
              ZELCDBErrorNone);
    EXPECT_EQ(peer_.next(), payloadLine(wire(0xB3, 15, speed, 3, 500)));
    EXPECT_EQ(dashboard_.events.lines(), (Lines{"status 1", "error u b3 speed 12 0"}));
}

TEST_F(SBPRawSourcePeerTest, ReaderFaultsStopThePeerService) {
    const uint32_t speed = uidOf("speed");
    const Bytes value = intValue("speed", 7);
    // Each case spoils the answer to the Get with the given packetId.
    struct Case {
        const char* what;
        void (*spoil)(Bytes&);
        bool fault;
    } cases[] = {
        {"truncated command", [](Bytes& p) { p.resize(14); }, true},
        {"truncated packet", [](Bytes& p) { p.pop_back(); }, true},
        {"missing end marker", [](Bytes& p) { p.back() = 0xB1; }, true},
        {"excess trailing data", [](Bytes& p) { p.push_back(0); }, false},
    };
    uint16_t id = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(api().sinkSendGet(client_.ep, kService, ctx(c.what), speed), ZELCDBErrorNone);
        ++id;
        ASSERT_EQ(peer_.next(), payloadLine(wire(0xB1, 15, speed, id, 0)));
        Bytes answer = packet(0xB9, speed, id, 0, value);
        c.spoil(answer);
        peer_.send(answer);
        if (!c.fault) {
            ASSERT_TRUE(dashboard_.events.waitFor(std::string("data ") + c.what + " b1 speed=7"));
            continue;
        }
        ASSERT_EQ(peer_.next(), "StopService 0x4001");
        peer_.raw.w().sendServiceResponse(kService, 2);
        peer_.flush();
        ASSERT_TRUE(dashboard_.events.waitFor("status 2", starts_));
        // Stopped, the sink refuses what still comes at the CDB level.
        peer_.send(packet(0xB9, speed, id, 0, value));
        EXPECT_EQ(peer_.next(), "ServiceResponse 0x4001 0x0102");
        ASSERT_NO_FATAL_FAILURE(startService());
    }
    EXPECT_EQ(dashboard_.events.startingWith("data"),
              Lines{"data excess trailing data b1 speed=7"});
    EXPECT_EQ(dashboard_.events.startingWith("error"), Lines{});
}

}  // namespace
