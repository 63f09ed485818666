// How an SBP service ends, and what a sink or source does outside a started one: a new sink
// is inactive, a malformed packet ends a source as a StopService does, and a packet too long
// for the CDB writer fails its own request, never the link.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "cdb/CDBEndpointHost.h"
#include "cdb/CDBWriter.h"
#include "plat/ManualClock.h"
#include "plat/RecordingLogger.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
constexpr uint16_t kServiceId = 0x4001;
constexpr uint32_t kUid = 0x0A0B0C0D;

Lines heard;  // packets sent ("command value" in hex), CDB answers, application callbacks

std::string hex2(uint32_t a, uint32_t b) {
    char line[32];
    std::snprintf(line, sizeof line, "%x %x", a, b);
    return line;
}

// Hands what it is given to a real CDB writer, so that the writer's limits apply.
struct Host : zelcdbsdk::CDBEndpointHost {
    rdr::MemOutStream out;
    zelcdbsdk::CDBWriter writer{out, nullptr};
    ZELCDBEndpoint* endpointHandle() override { return nullptr; }
    void* endpointContext() override { return nullptr; }
    void enterCallback() override {}
    void leaveCallback() override {}
    bool hasSession() override { return true; }
    void sendServicePayload(uint16_t id, const uint8_t* data, size_t length) override {
        writer.sendServicePayload(id, 0, data, length);
        zelcdbsdk::SBPPacket p;
        ASSERT_EQ(zelcdbsdk::readSBPPacket(data, length, {"test", nullptr}, &p), 0);
        heard.push_back(hex2(p.command, p.commandValue));
    }
    void sendServiceResponse(uint16_t, uint16_t code) override {
        heard.push_back("response " + std::to_string(code));
    }
};

Bytes packet(uint8_t command, uint32_t commandValue, uint16_t packetId = 1) {
    rdr::MemOutStream out;
    zelcdbsdk::writeSBPPacket(out, command, kUid, packetId, commandValue, nullptr, 0);
    return Bytes(out.data(), out.data() + out.length());
}

class SBPServiceEndTest : public ::testing::Test {
protected:
    SBPServiceEndTest() : useClock_(&clock_), useLogger_(&logger_) {
        heard.clear();
        sinkCallbacks_.errorCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t cmd,
                                          uint32_t, ZELCDBError e,
                                          uint32_t) { heard.push_back("error " + hex2(cmd, e)); };
        ZELSBPSourceCallbacks& c = sourceCallbacks_;
        c.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t, void*) {
            heard.push_back("stop");
            return 0;
        };
        c.serviceTerminatedCallback = [](ZELCDBEndpoint*, uint16_t, void*) {
            heard.push_back("terminated");
        };
        // A Get is answered later; a periodic tick and a Subscribe at once, with success.
        c.getCallback = [](ZELCDBEndpoint*, uint16_t, void*, uint32_t cmd, uint32_t,
                           uint32_t* result) -> ZELCDBError {
            heard.push_back("get " + hex2(cmd, 0));
            *result = 0;
            return cmd == zelcdbsdk::kSBPGet ? ZELCDBErrorNone : ZELCDBErrorLocalSBPError;
        };
        c.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void*, uint32_t, uint32_t*, uint32_t*,
                                 uint32_t* result) -> ZELCDBError {
            *result = 0;
            return ZELCDBErrorLocalSBPError;
        };
    }
    ZELSBPSource* newStartedSource() {
        auto* source =
            new ZELSBPSource(&host_, nullptr, &sourceCallbacks_, sizeof sourceCallbacks_);
        source->setServiceId(kServiceId);
        source->startService({1, 0});
        return source;
    }
    void deliver(zelcdbsdk::CDBService::Handler& to, const Bytes& bytes) {
        to.servicePayload(bytes.data(), bytes.size());
    }
    void advance(int ms) {
        clock_.advanceMs(ms);
        timers_.processTimers();
    }
    plat::ManualClock clock_;
    plat::ScopedClock useClock_;
    zeltest::RecordingLogger logger_;
    plat::ScopedCurrentLogger useLogger_;
    plat::TimerManager timers_;
    Host host_;
    ZELSBPSinkCallbacks sinkCallbacks_{};
    ZELSBPSourceCallbacks sourceCallbacks_{};
};

TEST_F(SBPServiceEndTest, NewSinkRefusesPayloadsUntilItsServiceStarts) {
    auto* sink =
        new ZELSBPSink(&host_, kServiceId, nullptr, &sinkCallbacks_, sizeof sinkCallbacks_);
    Bytes answer = packet(zelcdbsdk::kSBPResponse, 5);
    deliver(*sink, answer);
    sink->serviceResponse(1);
    sink->sendGet(nullptr, kUid);
    deliver(*sink, answer);  // now read: the Get's remote error
    EXPECT_EQ(heard, (Lines{"response 258", "b1 0", "error b1 e"}));
    sink->release();
}

TEST_F(SBPServiceEndTest, EveryEndOfAServiceDropsItsRequestsAndTimers) {
    const struct {
        const char* how;
        std::function<void(ZELSBPSource&)> end;
        Lines heard;
    } cases[] = {
        {"StopService", [](ZELSBPSource& s) { s.stopService(); }, {"stop", "response 2"}},
        {"session end", [](ZELSBPSource& s) { s.sessionEnded(); }, {"stop"}},
        {"malformed packet",
         [](ZELSBPSource& s) {
             Bytes junk(zelcdbsdk::kSBPEmptyPacketSize, 0);
             s.servicePayload(junk.data(), junk.size());
         },
         {"terminated", "response 515"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        ZELSBPSource* source = newStartedSource();
        deliver(*source, packet(zelcdbsdk::kSBPSubscribe, 100, 1));  // periodic, every 100 ms
        deliver(*source, packet(zelcdbsdk::kSBPGet, 0, 2));          // answered later
        advance(100);
        ASSERT_EQ(source->requests().size(), 2u);
        heard.clear();
        c.end(*source);
        EXPECT_TRUE(source->requests().empty());
        advance(10000);  // no tick, no interim answer
        EXPECT_EQ(heard, c.heard);
        source->release();
    }
}

TEST_F(SBPServiceEndTest, PacketTooLongForTheWriterFailsOnlyItsRequest) {
    Bytes huge(70000, 1);
    auto* sink =
        new ZELSBPSink(&host_, kServiceId, nullptr, &sinkCallbacks_, sizeof sinkCallbacks_);
    sink->serviceResponse(1);
    sink->sendSet(nullptr, kUid, huge.data(), huge.size());
    EXPECT_TRUE(sink->requests().empty());
    ZELSBPSource* source = newStartedSource();
    const std::function<void()> answers[] = {
        [&] { source->sendGetResponse(zelcdbsdk::kSBPGet, kUid, 0, huge.data(), huge.size()); },
        [&] {
            source->sendServiceAuthChallenge(zelcdbsdk::kSBPGet, kUid, huge.data(), huge.size());
        },
    };
    for (const auto& answer : answers) {
        deliver(*source, packet(zelcdbsdk::kSBPGet, 0));
        answer();
        EXPECT_TRUE(source->requests().empty());
    }
    // The Set's error; each Get failed at once rather than by the sink's time-out.
    EXPECT_EQ(heard, (Lines{"error b2 2", "response 1", "get b1 0", "b9 10000002", "get b1 0",
                            "b9 10000002"}));
    sink->release();
    source->release();
}

}  // namespace
