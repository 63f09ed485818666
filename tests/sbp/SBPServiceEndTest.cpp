// How an SBP service ends and what a sink or source does outside a started service: a sink
// starts inactive, a malformed packet ends a source the way a StopService does, and a
// packet too long for the CDB writer fails its own request, never the link.
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
#include "rdr/MemOutStream.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr uint16_t kServiceId = 0x4001;
constexpr uint32_t kUid = 0x0A0B0C0D;

// Writes what it is given with a real CDB writer, so that its limits apply; records each
// packet as "command value" in hex and each CDB answer as "response code".
struct Host : zelcdbsdk::CDBEndpointHost {
    Lines sent;
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
        char line[32];
        std::snprintf(line, sizeof line, "%x %x", p.command, p.commandValue);
        sent.push_back(line);
    }
    void sendServiceResponse(uint16_t, uint16_t code) override {
        sent.push_back("response " + std::to_string(code));
    }
};

Bytes packet(uint8_t command, uint32_t commandValue, uint16_t packetId = 1) {
    rdr::MemOutStream out;
    zelcdbsdk::writeSBPPacket(out, command, kUid, packetId, commandValue, nullptr, 0);
    return Bytes(out.data(), out.data() + out.length());
}

Lines calls;  // the applications' callbacks, in order

class SBPServiceEndTest : public ::testing::Test {
protected:
    SBPServiceEndTest() : useClock_(&clock_), useLogger_(&logger_) { calls.clear(); }
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
};

TEST_F(SBPServiceEndTest, NewSinkRefusesPayloadsUntilItsServiceStarts) {
    ZELSBPSinkCallbacks callbacks{};
    callbacks.errorCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t, uint32_t,
                                 ZELCDBError, uint32_t) { calls.push_back("error"); };
    ZELSBPSink* sink = new ZELSBPSink(&host_, kServiceId, nullptr, &callbacks, sizeof callbacks);
    Bytes answer = packet(zelcdbsdk::kSBPResponse, 5);
    sink->servicePayload(answer.data(), answer.size());
    EXPECT_EQ(host_.sent, (Lines{"response 258"}));
    sink->serviceResponse(1);
    sink->sendGet(nullptr, kUid);
    sink->servicePayload(answer.data(), answer.size());
    EXPECT_EQ(host_.sent, (Lines{"response 258", "b1 0"}));
    EXPECT_EQ(calls, (Lines{"error"}));  // the Get's remote error: the payload was read
    sink->release();
}

TEST_F(SBPServiceEndTest, EveryEndOfAServiceDropsItsRequestsAndTimers) {
    ZELSBPSourceCallbacks callbacks{};
    callbacks.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t, void*) {
        calls.push_back("stop");
        return 0;
    };
    callbacks.serviceTerminatedCallback = [](ZELCDBEndpoint*, uint16_t, void*) {
        calls.push_back("terminated");
    };
    callbacks.getCallback = [](ZELCDBEndpoint*, uint16_t, void*, uint32_t cmd, uint32_t,
                               uint32_t* result) -> ZELCDBError {
        calls.push_back("get " + std::to_string(cmd));
        *result = 0;
        return cmd == zelcdbsdk::kSBPGet ? ZELCDBErrorNone : ZELCDBErrorLocalSBPError;
    };
    callbacks.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void*, uint32_t, uint32_t*,
                                     uint32_t*, uint32_t* result) -> ZELCDBError {
        *result = 0;
        return ZELCDBErrorLocalSBPError;
    };
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
        ZELSBPSource* source = new ZELSBPSource(&host_, nullptr, &callbacks, sizeof callbacks);
        source->setServiceId(kServiceId);
        source->startService({1, 0});
        Bytes subscribe = packet(zelcdbsdk::kSBPSubscribe, 100, 1);  // periodic, every 100 ms
        Bytes get = packet(zelcdbsdk::kSBPGet, 0, 2);                // answered later
        source->servicePayload(subscribe.data(), subscribe.size());
        source->servicePayload(get.data(), get.size());
        advance(100);
        ASSERT_EQ(source->requests().size(), 2u);
        host_.sent.clear();
        calls.clear();
        c.end(*source);
        EXPECT_TRUE(source->requests().empty());
        advance(10000);  // no tick, no interim answer, no application call
        calls.insert(calls.end(), host_.sent.begin(), host_.sent.end());
        EXPECT_EQ(calls, c.heard);
        host_.sent.clear();
        source->release();
    }
}

TEST_F(SBPServiceEndTest, PacketTooLongForTheWriterFailsOnlyItsRequest) {
    Bytes huge(70000, 1);
    ZELSBPSinkCallbacks sinkCallbacks{};
    sinkCallbacks.errorCallback = [](ZELCDBEndpoint*, uint16_t, void*, void*, uint32_t cmd,
                                     uint32_t, ZELCDBError e, uint32_t) {
        calls.push_back("error " + std::to_string(cmd) + " " + std::to_string(e));
    };
    ZELSBPSink* sink =
        new ZELSBPSink(&host_, kServiceId, nullptr, &sinkCallbacks, sizeof sinkCallbacks);
    sink->serviceResponse(1);
    sink->sendSet(nullptr, kUid, huge.data(), huge.size());
    EXPECT_EQ(calls, (Lines{"error 178 2"}));
    EXPECT_TRUE(sink->requests().empty());

    ZELSBPSourceCallbacks sourceCallbacks{};
    sourceCallbacks.getCallback = [](ZELCDBEndpoint*, uint16_t, void*, uint32_t, uint32_t,
                                     uint32_t*) -> ZELCDBError { return ZELCDBErrorNone; };
    ZELSBPSource* source =
        new ZELSBPSource(&host_, nullptr, &sourceCallbacks, sizeof sourceCallbacks);
    source->setServiceId(kServiceId);
    source->startService({1, 0});
    const std::function<void()> answers[] = {
        [&] { source->sendGetResponse(zelcdbsdk::kSBPGet, kUid, 0, huge.data(), huge.size()); },
        [&] {
            source->sendServiceAuthChallenge(zelcdbsdk::kSBPGet, kUid, huge.data(), huge.size());
        },
    };
    for (const auto& answer : answers) {
        Bytes get = packet(zelcdbsdk::kSBPGet, 0);
        source->servicePayload(get.data(), get.size());
        host_.sent.clear();
        answer();
        EXPECT_EQ(host_.sent, (Lines{"b9 10000002"}));  // the sink hears at once
        EXPECT_TRUE(source->requests().empty());
    }
    sink->release();
    source->release();
}

}  // namespace
