// An SBP sink and an SBP source back to back on one thread: each one's host hands its
// packets straight to the other, and a manual clock drives every time-out.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cdb/CDBEndpointHost.h"
#include "plat/ManualClock.h"
#include "plat/RecordingLogger.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"

namespace {

using zelcdbsdk::SBPPacket;
using Bytes = std::vector<uint8_t>;

constexpr uint16_t kServiceId = 0x4001;
constexpr uint32_t kUid = 0x11223344;

// What one side sent: SBP packets (parsed) and CDB-level answers.
struct Host : zelcdbsdk::CDBEndpointHost {
    zelcdbsdk::CDBService::Handler* peer = nullptr;  // receives our payloads
    bool deliver = true;
    std::vector<SBPPacket> packets;
    std::vector<uint16_t> responses;
    int stops = 0;
    int depth = 0;

    ZELCDBEndpoint* endpointHandle() override { return nullptr; }
    void* endpointContext() override { return this; }
    void enterCallback() override { ++depth; }
    void leaveCallback() override { --depth; }
    bool hasSession() override { return true; }
    void sendServicePayload(uint16_t, const uint8_t* data, size_t length) override {
        SBPPacket p;
        EXPECT_EQ(zelcdbsdk::readSBPPacket(data, length, {"test", nullptr}, &p), 0);
        packets.push_back(p);
        if (deliver) outbox.emplace_back(data, data + length);
    }
    std::vector<Bytes> outbox;  // delivered by the test's pump(), as a network would later
    void sendServiceResponse(uint16_t, uint16_t code) override { responses.push_back(code); }
    void stopPeerService(uint16_t) override { ++stops; }
    std::vector<uint32_t> values() const {
        std::vector<uint32_t> v;
        for (const SBPPacket& p : packets) v.push_back(p.commandValue);
        return v;
    }
};

// Everything the sink's application hears, as lines.
struct SinkApp {
    std::vector<std::string> events;
    static SinkApp* of(void* c) { return static_cast<SinkApp*>(c); }
    static std::string hex(uint32_t v) {
        char b[16];
        std::snprintf(b, sizeof b, "%x", v);
        return b;
    }
    static ZELSBPSinkCallbacks table() {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t s) {
            of(c)->events.push_back("status " + std::to_string(s));
        };
        t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t cmd, uint32_t,
                            const uint8_t*, int32_t size) {
            of(c)->events.push_back("data " + hex(cmd) + " " + std::to_string(size));
        };
        t.subscribedCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t) {
            of(c)->events.push_back("subscribed");
        };
        t.cancelledCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t cmd,
                                 uint32_t) { of(c)->events.push_back("cancelled " + hex(cmd)); };
        t.errorCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t cmd, uint32_t,
                             ZELCDBError e, uint32_t v) {
            of(c)->events.push_back("error " + hex(cmd) + " " + std::to_string(e) + " " + hex(v));
        };
        t.authChallengeCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t cmd,
                                     uint32_t, const uint8_t*, int32_t size) {
            of(c)->events.push_back("challenge " + hex(cmd) + " " + std::to_string(size));
        };
        t.aliveResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*) {
            of(c)->events.push_back("alive");
        };
        return t;
    }
};

// The source's application: answers as the test tells it.
struct SourceApp {
    ZELCDBError answer = ZELCDBErrorLocalSBPError;
    uint32_t result = 0;
    uint32_t setInterval = 0;  // 0: leave the interval as requested
    std::vector<std::string> events;
    static SourceApp* of(void* c) { return static_cast<SourceApp*>(c); }
    static ZELSBPSourceCallbacks table() {
        ZELSBPSourceCallbacks t{};
        t.getCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t cmd, uint32_t,
                           uint32_t* result) {
            of(c)->events.push_back("get " + SinkApp::hex(cmd));
            *result = of(c)->result;
            return of(c)->answer;
        };
        t.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t, uint32_t*,
                                 uint32_t* interval, uint32_t* result) {
            SourceApp* app = of(c);
            if (app->setInterval) *interval = app->setInterval;
            *result = app->result;
            return app->answer;
        };
        t.cancelCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t cmd, uint32_t) {
            of(c)->events.push_back("cancel " + SinkApp::hex(cmd));
        };
        return t;
    }
};

class SBPServiceTest : public ::testing::Test {
protected:
    SBPServiceTest() : useClock_(&clock_), useLogger_(&logger_) {
        sinkCallbacks_ = SinkApp::table();
        sourceCallbacks_ = SourceApp::table();
        sink_ = new ZELSBPSink(&sinkHost_, kServiceId, &sinkApp_, &sinkCallbacks_,
                               sizeof sinkCallbacks_);
        source_ =
            new ZELSBPSource(&sourceHost_, &sourceApp_, &sourceCallbacks_, sizeof sourceCallbacks_);
        source_->setServiceId(kServiceId);
        sinkHost_.peer = source_;
        sourceHost_.peer = sink_;
    }
    ~SBPServiceTest() override {
        sink_->release();
        source_->release();
    }
    // Starts the service as the session would: the source answers, the sink hears it.
    void startService() {
        source_->startService({1, 0});
        ASSERT_EQ(sourceHost_.responses.back(), 1);
        sink_->serviceResponse(1);
        sinkApp_.events.clear();
    }
    void advance(int ms) {
        clock_.advanceMs(ms);
        timers_.processTimers();
        pump();
    }
    // Delivers what each side sent to the other until both are quiet.
    void pump() {
        for (bool moved = true; moved;) {
            moved = false;
            for (Host* host : {&sinkHost_, &sourceHost_}) {
                if (host->outbox.empty()) continue;
                Bytes packet = host->outbox.front();
                host->outbox.erase(host->outbox.begin());
                host->peer->servicePayload(packet.data(), packet.size());
                moved = true;
            }
        }
    }
    bool logged(const std::string& text) const {
        for (const auto& line : logger_.lines) {
            if (line.text == text) return true;
        }
        return false;
    }

    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    zeltest::RecordingLogger logger_;
    plat::ScopedCurrentLogger useLogger_;
    plat::TimerManager timers_;
    Host sinkHost_, sourceHost_;
    SinkApp sinkApp_;
    SourceApp sourceApp_;
    ZELSBPSinkCallbacks sinkCallbacks_;
    ZELSBPSourceCallbacks sourceCallbacks_;
    ZELSBPSink* sink_;
    ZELSBPSource* source_;
};

using Events = std::vector<std::string>;

TEST_F(SBPServiceTest, SlowGetIsKeptAliveAndADuplicateRefusedLocally) {
    startService();
    sourceApp_.answer = ZELCDBErrorNone;  // answer later, so the Get stays outstanding
    sink_->sendGet(nullptr, kUid);
    pump();
    sink_->sendGet(nullptr, kUid);
    pump();
    EXPECT_EQ(sinkHost_.packets.size(), 1u);  // the duplicate never left
    EXPECT_EQ(sinkApp_.events, (Events{"error b1 13 10000008"}));
    for (int s = 1; s <= 10; ++s) advance(1000);  // the application needs 10 s
    // 0x10000000 at 4 s and 8 s; each gives the sink another 5 s.
    EXPECT_EQ(sourceHost_.values(), (std::vector<uint32_t>{0x10000000, 0x10000000}));
    EXPECT_EQ(sinkApp_.events.size(), 1u);
    source_->sendGetResponse(0xB1, kUid, 0, Bytes(8, 1).data(), 8);
    pump();
    EXPECT_EQ(sinkApp_.events.back(), "data b1 8");
    EXPECT_TRUE(sink_->requests().empty());
    EXPECT_TRUE(source_->requests().empty());
}

TEST_F(SBPServiceTest, UnansweredSubscribeTimesOutAndItsCancelIsSwallowed) {
    startService();
    sinkHost_.deliver = false;  // the source never hears it
    sink_->sendSubscribe(nullptr, kUid, 0, 100);
    pump();
    advance(4999);
    EXPECT_TRUE(sinkApp_.events.empty());
    advance(1);
    EXPECT_EQ(sinkApp_.events, (Events{"error b3 12 0"}));
    ASSERT_EQ(sinkHost_.packets.size(), 2u);
    EXPECT_EQ(sinkHost_.packets[1].command, 0xB4);
    EXPECT_EQ(sinkHost_.packets[1].commandValue, 0xB3u);
    // The source answers the Cancel: no application callback hears of it.
    rdr::MemOutStream out;
    zelcdbsdk::writeSBPPacket(out, 0xB9, kUid, sinkHost_.packets[1].packetId, 0, nullptr, 0);
    sink_->servicePayload(out.data(), out.length());
    EXPECT_EQ(sinkApp_.events.size(), 1u);
    EXPECT_TRUE(sink_->requests().empty());
}

TEST_F(SBPServiceTest, PeriodicSubscriptionTicksUntilCancelled) {
    startService();
    sink_->sendSubscribe(nullptr, kUid, 0, 250);
    pump();
    EXPECT_EQ(sinkApp_.events, (Events{"subscribed"}));
    sourceApp_.events.clear();
    advance(250);
    advance(250);
    EXPECT_EQ(sourceApp_.events, (Events{"get b3", "get b3"}));
    EXPECT_EQ(sinkApp_.events, (Events{"subscribed", "data b3 0", "data b3 0"}));
    sink_->sendCancel(nullptr, kUid, 0xB3);
    pump();
    // The subscription hears 0x1000000B (an error to the sink), the Cancel hears 0.
    EXPECT_EQ(sinkApp_.events.back(), "cancelled b3");
    EXPECT_EQ(sourceApp_.events.back(), "cancel b3");
    EXPECT_TRUE(sink_->requests().empty());
    EXPECT_TRUE(source_->requests().empty());
    advance(1000);
    EXPECT_EQ(sourceApp_.events.back(), "cancel b3");  // no tick after the Cancel
}

TEST_F(SBPServiceTest, SubscribeRefusals) {
    startService();
    struct Case {
        uint32_t type, interval, setInterval;
        ZELCDBError answer;
        uint32_t result, expected;
    } cases[] = {
        {0, 0, 0, ZELCDBErrorLocalSBPError, 0, 0x10000003},    // interval 0
        {0, 0, 500, ZELCDBErrorLocalSBPError, 0, 0},           // the app fixes it
        {2, 100, 0, ZELCDBErrorLocalSBPError, 0, 0x10000004},  // type left at 2
        {3, 100, 0, ZELCDBErrorLocalSBPError, 0, 0x10000004},  // no such type
        {1, 100, 0, ZELCDBErrorLocalSBPError, 0x10000002, 0x10000002},
        {1, 100, 0, ZELCDBErrorFailed, 0, 0x10000002},
    };
    uint32_t uid = 1;
    for (const Case& c : cases) {
        sourceApp_.setInterval = c.setInterval;
        sourceApp_.answer = c.answer;
        sourceApp_.result = c.result;
        sink_->sendSubscribe(nullptr, ++uid, c.type, c.interval);
        pump();
        EXPECT_EQ(sourceHost_.packets.back().commandValue, c.expected) << uid;
    }
}

TEST_F(SBPServiceTest, RemoteErrorsBelowTheInProgressMarkStopTheService) {
    startService();
    sourceApp_.result = 5;
    sink_->sendGet(nullptr, kUid);
    pump();
    EXPECT_EQ(sinkApp_.events, (Events{"error b1 14 5"}));
    EXPECT_EQ(sinkHost_.stops, 1);
    sourceApp_.result = 0x10000009;
    sink_->sendGet(nullptr, kUid + 1);
    pump();
    EXPECT_EQ(sinkHost_.stops, 1);
}

TEST_F(SBPServiceTest, AliveRepeatsAndAMissingAnswerStopsTheService) {
    startService();
    sink_->sendAlive(nullptr, 3);
    pump();
    EXPECT_EQ(sinkApp_.events, (Events{"alive"}));  // answered without any source callback
    advance(3000);
    advance(3000);
    EXPECT_EQ(sinkApp_.events.size(), 3u);
    sinkHost_.deliver = false;
    advance(3000);
    advance(3000);  // the next one finds the last still outstanding
    EXPECT_EQ(sinkApp_.events.back(), "error b5 13 10000008");
    advance(2000);
    EXPECT_EQ(sinkApp_.events.back(), "error b5 12 0");
    EXPECT_EQ(sinkHost_.stops, 1);
    EXPECT_TRUE(logged("Warning: AliveResponse timeout, stopping service"));
    size_t sent = sinkHost_.packets.size();
    advance(30000);
    EXPECT_EQ(sinkHost_.packets.size(), sent);  // the periodic Alive stopped
}

TEST_F(SBPServiceTest, StatusAndActivity) {
    // Before any start both sides refuse payloads at the CDB level.
    sink_->sendGet(nullptr, kUid);
    pump();
    EXPECT_EQ(sinkHost_.responses, (std::vector<uint16_t>{}));
    EXPECT_EQ(sourceHost_.responses, (std::vector<uint16_t>{0x0102}));
    source_->startService({1, 0});
    source_->startService({1, 0});
    source_->stopService();
    source_->stopService();
    EXPECT_EQ(sourceHost_.responses, (std::vector<uint16_t>{0x0102, 1, 0x0101, 2, 0x0102}));
    startService();
    sourceApp_.answer = ZELCDBErrorNone;
    sink_->sendGet(nullptr, 7);
    pump();
    EXPECT_EQ(sink_->requests().size(), 2u);  // the first Get, unanswered, is still there
    sink_->serviceResponse(2);
    EXPECT_TRUE(sink_->requests().empty());
    EXPECT_FALSE(sink_->active());
    EXPECT_EQ(sinkApp_.events, (Events{"status 2"}));
    sourceHost_.packets.clear();
    advance(10000);
    // The source still asks for patience; the sink, inactive, answers the CDB way.
    EXPECT_EQ(sinkHost_.responses.back(), 0x0102);
}

TEST_F(SBPServiceTest, ChallengeGoesToTheApplicationOrIsRefusedAtOnce) {
    startService();
    sourceApp_.answer = ZELCDBErrorNone;
    sink_->sendGet(nullptr, kUid);
    pump();
    source_->sendServiceAuthChallenge(0xB1, kUid, Bytes(3, 7).data(), 3);
    pump();
    EXPECT_EQ(sinkApp_.events, (Events{"challenge b1 0"}));  // a payload of 3 reads as none
    sink_->sendServiceAuthResponse(nullptr, 0xB1, kUid, 0, Bytes(6, 1).data(), 6);
    pump();
    EXPECT_FALSE(logged("Warning: auth response when no challenge pending"));
    sink_->sendServiceAuthResponse(nullptr, 0xB2, kUid, 0, nullptr, 0);
    pump();
    EXPECT_EQ(sinkApp_.events.back(), "error b2 13 10000009");
    // Without the callback the sink refuses the challenge itself.
    sinkCallbacks_.authChallengeCallback = nullptr;
    ZELSBPSink* plain =
        new ZELSBPSink(&sinkHost_, kServiceId, &sinkApp_, &sinkCallbacks_, sizeof sinkCallbacks_);
    sourceHost_.peer = plain;
    plain->serviceResponse(1);
    sinkHost_.packets.clear();
    plain->sendGet(nullptr, 9);
    pump();
    source_->sendServiceAuthChallenge(0xB1, 9, nullptr, 0);
    pump();
    ASSERT_EQ(sinkHost_.packets.size(), 2u);
    EXPECT_EQ(sinkHost_.packets[1].command, 0xB8);
    EXPECT_EQ(sinkHost_.packets[1].commandValue, 0x10000002u);
    sourceHost_.peer = sink_;
    plain->release();
}

TEST_F(SBPServiceTest, BadPacketsEndTheSourceAndStopTheSink) {
    startService();
    Bytes junk(20, 0);
    sink_->servicePayload(junk.data(), junk.size());
    EXPECT_EQ(sinkHost_.stops, 1);
    EXPECT_TRUE(logged("Warning: bad SBP packet in sink"));
    source_->servicePayload(junk.data(), junk.size());
    EXPECT_FALSE(source_->active());
    EXPECT_EQ(sourceHost_.responses.back(), 0x0203);
}

}  // namespace
