// SBP packets, the request table, and the per-request rules of sinks and sources: what the
// peer or the application does, and what the unit must send and report because of it.
#include <gtest/gtest.h>

#include "SBPScript.h"
#include "plat/RecordingLogger.h"
#include "sbp/SBPRequest.h"

namespace sbptest {
namespace {

using zelcdbsdk::SBPRequest;

TEST(SBPPacket, LayoutPayloadInPlaceAndEachFaultWithItsDebugLine) {
    EXPECT_EQ(encode("Subscribe #506 1020304 100000a"),
              zeltest::parseHex("B3 0000000F 01020304 0506 0100000A 00000000 B0"));
    EXPECT_EQ(encode("Response #1 7 +1"),
              zeltest::parseHex("B9 0000000C 00000007 0001 00000000 01 B0"));
    // A length of 15 or less means "no payload" to every peer, so one to four payload bytes
    // are written but not delivered; SBP data is never that short.
    for (size_t n : {0, 1, 4, 5, 8100}) {
        std::string text = format("Response #ffff deadbeef 10000000 +%zu", n);
        Bytes wire = encode(text);
        zelcdbsdk::SBPPacket p;
        ASSERT_EQ(zelcdbsdk::readSBPPacket(wire.data(), wire.size(), {"test", nullptr}, &p), 0);
        EXPECT_EQ(wire.size(), n == 0 ? 20 : 16 + n);
        EXPECT_EQ(describe(p), n > 4 ? text : "Response #ffff deadbeef 10000000");
        EXPECT_EQ(p.payload, n > 4 ? wire.data() + 15 : nullptr);
    }
    const char* const faults[][2] = {
        {"", "Truncated SBP command"},  // a null buffer
        {"B1 0000000F 00000005 0009 000000", "Truncated SBP command"},
        {"B1 00000010 00000005 0009 00000000 00000000 B0", "Truncated SBP packet"},
        {"B1 0000000F 00000005 0009 00000000 00000000 B1", "SBP command missing end marker"},
        {"B1 0000000F 00000005 0009 00000000 00000000 B0 B0",
         "Excess trailing data after SBP packet"},
    };
    for (auto [hex, line] : faults) {
        zeltest::RecordingLogger logger;
        zelcdbsdk::SBPPacket p;
        Bytes wire = zeltest::parseHex(hex);
        EXPECT_EQ(zelcdbsdk::readSBPPacket(wire.empty() ? nullptr : wire.data(),
                                           wire.empty() ? 20 : wire.size(), {"S", &logger}, &p),
                  line[0] == 'E' ? ZELCDBErrorNone : ZELCDBErrorInvalidSBPPacket);
        ASSERT_FALSE(logger.lines.empty());
        EXPECT_EQ(logger.lines.back().text, line);
        EXPECT_EQ(logger.lines.back().level, plat::kLogDebug);
    }
}

// Sinks and sources never give the table a clash, so these rules only show from here.
TEST(SBPRequestTable, BothIndexesAlwaysAgree) {
    struct Owner : zelcdbsdk::SBPRequestOwner {
        int requestTimedOut(SBPRequest&) override { return 0; }
    } owner, other;
    plat::TimerManager timers;
    zelcdbsdk::SBPRequestTable table;
    auto add = [&](uint32_t command, uint32_t uid, uint16_t id, Owner& by) -> SBPRequest& {
        return table.add(table.newRequest(&by, command, uid, id), 5000);
    };
    add(0xB1, 10, 1, owner);
    add(0xB3, 10, 2, owner);
    // Same (command, uid) under a new packetId: the old record goes entirely.
    add(0xB1, 10, 3, owner);
    EXPECT_EQ(table.findByPacketId(1), nullptr);
    EXPECT_EQ(table.find(0xB1, 10)->packetId, 3);
    // Same packetId for another (command, uid): the old key must not find the new record.
    add(0xB2, 11, 2, owner);
    EXPECT_EQ(table.find(0xB3, 10), nullptr);
    EXPECT_EQ(table.size(), 2u);
    // The record kept from a removal goes back only to its own owner.
    table.remove(*table.findByPacketId(3));
    EXPECT_EQ(table.find(0xB1, 10), nullptr);
    EXPECT_EQ(add(0xB1, 12, 4, other).owner(), &other);
    EXPECT_EQ(add(0xB1, 10, 5, owner).owner(), &owner);
    table.clear();
    EXPECT_FALSE(timers.hasTimers());  // no timer outlives its record
}

struct Row {
    const char* rule;
    const char* steps;
    const char* trace;
};

const Row kSinkRows[] = {
    {"requests go out with packetIds counting up; the type goes into the top byte as given",
     "get 5; set 6 +8; subscribe 5 1 ffffff; cancel 5 b3; alive 0; subscribe 6 7f 1",
     "Get #1 5 | Set #2 6 +8 | Subscribe #3 5 1ffffff | Cancel #4 5 b3 | "
     "AliveRequest #5 0 | Subscribe #6 6 7f000001"},
    {"answers reach the application with each request's context",
     "get 5 @g; Response #1 5 0 +8; set 6 +5 @s; Response #2 6; alive 0 @a; "
     "AliveResponse #3 0",
     "Get #1 5 | data@g b1 5 +8 | Set #2 6 +5 | setdone@s 6 | AliveRequest #3 0 | alive@a"},
    {"a subscription is acknowledged, updated with no time-out, cancelled, then forgotten",
     "subscribe 7 0 3e8 @u; Response #1 7; Response #1 7 0 +6; +10000; cancel 7 b3 @c; "
     "Response #1 7 1000000b; Response #2 7; subscribe 7 0 3e8",
     "Subscribe #1 7 3e8 | subscribed@u 7 | data@u b3 7 +6 | Cancel #2 7 b3 | "
     "error@u b3 7 14 1000000b | cancelled@c b3 7 | Subscribe #3 7 3e8"},
    {"a second request for the same element is refused before it leaves; a refusal below the "
     "in-progress mark stops the service",
     "get 5; get 5 @d; set 5 +6; Response #1 5 fffffff; Response #2 5 10000009",
     "Get #1 5 | error@d b1 5 13 10000008 | Set #2 5 +6 | error b1 5 14 fffffff | StopService | "
     "error b2 5 14 10000009"},
    {"answers to another element or packetId are ignored; in progress restarts the 5 s",
     "get 5; Response #1 6; Response #9 5; +4999; Response #1 5 10000000; +4999; +1; get 5",
     "Get #1 5 | 9999: error b1 5 12 0 | Get #2 5"},
    {"an unanswered Subscribe is cancelled and the Cancel's answer reaches no one",
     "subscribe 5 0 3e8 @u; +4999; +1; Response #2 5; Response #1 5; subscribe 5 0 3e8",
     "Subscribe #1 5 3e8 | 5000: error@u b3 5 12 0 | 5000: Cancel #2 5 b3 | "
     "Subscribe #3 5 3e8"},
    {"a reused record forgets that its Cancel was sent",
     "subscribe 5 0 3e8; +5000; get 9; Response #2 5; Response #3 9; get 6; "
     "Response #4 6 0 +6",
     "Subscribe #1 5 3e8 | 5000: error b3 5 12 0 | 5000: Cancel #2 5 b3 | Get #3 9 | "
     "data b1 9 | Get #4 6 | data b1 6 +6"},
    {"Alive repeats, is refused while one is unanswered, and silence stops the service",
     "alive 3 @a; AliveResponse #1 0; +3000; AliveResponse #2 0; +3000; +3000; +1999; +1; "
     "+30000",
     "AliveRequest #1 0 | alive@a | 3000: AliveRequest #2 0 | alive@a | "
     "6000: AliveRequest #3 0 | 9000: error@a b5 0 13 10000008 | "
     "11000: error@a b5 0 12 0 | 11000: StopService | "
     "11000: ! Warning: AliveResponse timeout, stopping service"},
    {"Alive 0 sends one and stops repeating, a negative interval only stops",
     "alive 1; AliveResponse #1 0; alive 0; AliveResponse #2 0; +1000; alive 1; "
     "AliveResponse #3 0; alive -1; +3000",
     "AliveRequest #1 0 | alive | AliveRequest #2 0 | alive | AliveRequest #3 0 | alive"},
    {"a challenge stops the clock until the application answers it",
     "get 5 @g; Challenge #1 5 80000000 +6; +9000; auth b1 5 0 +6; +4999; +1; auth b2 5 0",
     "Get #1 5 | challenge@g b1 5 +6 | AuthResponse #1 5 +6 | "
     "14000: error@g b1 5 12 0 | error b2 5 13 10000009"},
    {"a challenge without its marker is refused by the sink; strangers are ignored",
     "get 5; Challenge #1 5 12345678; Challenge #1 6 80000000; Challenge #7 5 80000000",
     "Get #1 5 | AuthResponse #1 5 10000002"},
    {"stopped, it drops its requests and refuses payloads; the link's end is a stop",
     "get 5; status 2; Response #1 5 0 +8; status 1; Response #1 5 0 +8; get 5; alive 3; "
     "end; +10000; end; status 102; Response #1 5",
     "Get #1 5 | status 2 | ServiceResponse 102 | status 1 | Get #2 5 | "
     "AliveRequest #3 0 | status 2 | status 102 | ServiceResponse 102"},
    {"a new sink refuses payloads until its service starts",
     "new; Response #1 5 1000000c; status 1; get 5; Response #1 5 1000000c",
     "ServiceResponse 102 | status 1 | Get #1 5 | error b1 5 14 1000000c"},
    {"a packet too long for the link fails only its own request", "set 5 +70000; get 5",
     "! CDB message too long: 70019 payload bytes, at most 65535 | error b2 5 2 0 | Get #2 5"},
    {"the longest Alive interval is kept, not clamped",
     "alive 20c49b; AliveResponse #1 0; +2147482999; +1",
     "AliveRequest #1 0 | alive | 2147483000: AliveRequest #2 0"},
    {"a malformed packet stops the peer's service", "raw B5 00; nosession; raw B5 00",
     "! Warning: bad SBP packet in sink | StopService | ! Warning: bad SBP packet in sink"},
};

const Row kSourceRows[] = {
    {"a Get answered at once, refused, or failed; Alive answered by the source itself",
     "Get #1 5; answer now 1000000c; Get #2 6; answer fail; Set #3 7 +6; AliveRequest #4 0",
     "get b1 5 | Response #1 5 | get b1 6 | Response #2 6 1000000c | set 7 +6 | "
     "Response #3 7 10000002 | AliveResponse #4 0"},
    {"an answer owed is kept alive with in-progress every 4 s",
     "answer later; Get #1 5; +3999; +1; +4000; reply b1 5 0 +9; +4000; reply b1 5 0",
     "get b1 5 | 4000: Response #1 5 10000000 | 8000: Response #1 5 10000000 | "
     "Response #1 5 +9"},
    {"a Set answered later, a second answer finds no record; a packetId the peer reuses "
     "replaces the request that held it",
     "answer later; Set #2 6 +5; setdone 6 1000000c; setdone 6 0; Get #1 5; Set #1 6 +6; "
     "reply b1 5 0; setdone 6 0",
     "set 6 +5 | Response #2 6 1000000c | get b1 5 | set 6 +6 | Response #1 6"},
    {"a second request for a pending element is refused; a Cancel ends the first",
     "answer later; Get #1 5; Get #2 5; Set #3 5 +6; Cancel #4 5 b1; Get #5 5",
     "get b1 5 | ! command 177 / 5 already pending | Response #2 5 10000008 | set 5 +6 | "
     "Response #1 5 1000000b | cancel b1 5 | Response #4 5 | get b1 5"},
    {"unknown commands, a Response, and Cancels of nothing are answered so",
     "0xba #1 5; Response #2 5; Cancel #3 5 b3; Cancel #4 5 ba; Cancel #5 5 b0",
     "Response #1 5 1000000d | Response #2 5 1000000d | Response #3 5 10000009 | "
     "Response #4 5 10000009 | Response #5 5 10000009"},
    {"a periodic subscription ticks with the application's updates until cancelled",
     "Subscribe #1 5 3e8; +1000; answer later; +1000; reply b3 5 0 +9; +1000; "
     "Cancel #2 5 b3; +5000",
     "subscribe 5 0 3e8 | Response #1 5 | 1000: get b3 5 | 1000: Response #1 5 | "
     "2000: get b3 5 | Response #1 5 +9 | 3000: get b3 5 | Response #1 5 1000000b | "
     "cancel b3 5 | Response #2 5"},
    {"an update that failed keeps the subscription only when it says so",
     "Subscribe #1 5 3e8; answer now 10000006; +1000; answer now 1000000c; +1000; +1000",
     "subscribe 5 0 3e8 | Response #1 5 | 1000: get b3 5 | 1000: Response #1 5 10000006 | "
     "2000: get b3 5 | 2000: Response #1 5 1000000c"},
    {"an update the application cannot give ends the subscription",
     "Subscribe #1 6 3e8; answer fail; +1000; +1000",
     "subscribe 6 0 3e8 | Response #1 6 | 1000: get b3 6 | "
     "1000: ! Warning: error getting update for period subscription | "
     "1000: Response #1 6 10000006"},
    {"intervals: 0 unless the application sets one, at most 24 bits, none needed on change",
     "Subscribe #1 5; Subscribe #2 6 1000001; Subscribe #3 7 1ffffff; interval 1000000; "
     "Subscribe #4 8 3e8; interval 3e8; Subscribe #5 9; +1000",
     "subscribe 5 0 0 | ! Warning: invalid interval requested | Response #1 5 10000003 | "
     "subscribe 6 1 1 | Response #2 6 | subscribe 7 1 ffffff | Response #3 7 | "
     "subscribe 8 0 3e8 | ! Warning: invalid interval requested | Response #4 8 10000003 | "
     "subscribe 9 0 0 | Response #5 9 | 1000: get b3 9 | 1000: Response #5 9"},
    {"type 2 the application must make periodic or on change; type 3 never reaches it",
     "Subscribe #1 5 2000064; Subscribe #2 6 30003e8; type 1; Subscribe #3 7 20003e8; type 0; "
     "Subscribe #4 8 20003e8; +1000",
     "subscribe 5 2 64 | ! Warning: application failed to indicate subscription type | "
     "Response #1 5 10000004 | ! Warning: invalid subscription type requested | "
     "Response #2 6 10000004 | subscribe 7 2 3e8 | Response #3 7 | subscribe 8 2 3e8 | "
     "Response #4 8 | 1000: get b3 8 | 1000: Response #4 8"},
    {"a subscription refused, failed, or refused later is forgotten",
     "answer now 1000000c; Subscribe #1 5 3e8; answer fail; Subscribe #2 6 3e8; answer later; "
     "Subscribe #3 7 3e8; subscribed 7 10000002; +8000",
     "subscribe 5 0 3e8 | Response #1 5 1000000c | subscribe 6 0 3e8 | Response #2 6 10000002 | "
     "subscribe 7 0 3e8 | Response #3 7 10000002"},
    {"a subscription accepted later ticks from then on; a second answer is ignored",
     "answer later; Subscribe #1 5 3e8; +4000; answer now 0; subscribed 5 0; "
     "subscribed 5 0; +1000; subscribed 9 0",
     "subscribe 5 0 3e8 | 4000: Response #1 5 10000000 | Response #1 5 | "
     "! Warning: ignoring second response to subscribe | 5000: get b3 5 | "
     "5000: Response #1 5"},
    {"a challenge's answer reaches the application, which then owes the data",
     "answer later; Get #1 6; challenge b1 6 +6; AuthResponse #1 5 +6; AuthResponse #2 6; "
     "AuthResponse #1 6 10000002 +6; AuthResponse #1 6; +3999; +1; reply b1 6 0 +9",
     "get b1 6 | Challenge #1 6 80000000 +6 | "
     "! Warning: auth response with wrong object UID (expected 6, received 5) | "
     "! Warning: auth response when no challenge pending | auth b1 6 10000002 +6 | "
     "! Warning: auth response when no challenge pending | "
     "4000: Response #1 6 10000000 | Response #1 6 +9"},
    {"an unanswered challenge times out after 5 s and frees the request",
     "answer later; Get #1 6; challenge b1 6; challenge b1 7; +4999; +1; Get #2 6",
     "get b1 6 | Challenge #1 6 80000000 | "
     "5000: ! Sink failed to respond to authentication challenge | "
     "5000: Response #1 6 10000007 | get b1 6"},
    {"a new source refuses payloads until its service starts", "new; Get #1 5; start; Get #2 5",
     "ServiceResponse 102 | started | ServiceResponse 1 | get b1 5 | Response #2 5"},
    {"an answer too long for the link fails only its own request",
     "answer later; Get #1 5; reply b1 5 0 +70000; Get #2 6; challenge b1 6 +70000; +10000; "
     "Get #3 5; Get #4 6",
     "get b1 5 | ! CDB message too long: 70019 payload bytes, at most 65535 | "
     "! Error building Get response: 2 | Response #1 5 10000002 | get b1 6 | "
     "! CDB message too long: 70019 payload bytes, at most 65535 | "
     "! Error building service auth challenge: 2 | Response #2 6 10000002 | get b1 5 | "
     "get b1 6"},
    {"a stop drops the requests and timers",
     "Subscribe #1 6 3e8; answer later; Get #2 5; stop; +10000; start; Get #3 5; "
     "Subscribe #4 6 3e8",
     "subscribe 6 0 3e8 | Response #1 6 | get b1 5 | stopped | ServiceResponse 2 | started | "
     "ServiceResponse 1 | get b1 5 | subscribe 6 0 3e8"},
    {"start and stop, each twice, and a stop the application refuses",
     "start; stop; stop; Get #1 5; start; refuse; stop; Get #2 5",
     "ServiceResponse 101 | stopped | ServiceResponse 2 | ServiceResponse 102 | "
     "ServiceResponse 102 | started | ServiceResponse 1 | stopped | ServiceResponse 202 | "
     "ServiceResponse 102"},
    {"a malformed packet terminates the service until the peer starts it again",
     "Subscribe #1 6 3e8; answer later; +1000; raw B5 00; +10000; Get #2 6; start; "
     "Subscribe #3 6 3e8",
     "subscribe 6 0 3e8 | Response #1 6 | 1000: get b3 6 | ! Warning: bad SBP packet in sink | "
     "terminated | ServiceResponse 203 | ServiceResponse 102 | started | ServiceResponse 1 | "
     "subscribe 6 0 3e8"},
    {"the link's end stops the service silently and drops its requests",
     "answer later; Get #1 5; Subscribe #2 6 3e8; end; +10000; end; Get #3 5",
     "get b1 5 | subscribe 6 0 3e8 | stopped | ServiceResponse 102"},
    {"the link's end also drops what a stopped service still held",
     "answer later; Get #1 5; raw B5 00; end; start; Get #2 5",
     "get b1 5 | ! Warning: bad SBP packet in sink | terminated | ServiceResponse 203 | "
     "started | ServiceResponse 1 | get b1 5"},
    {"without a session nothing is sent, and each attempt is logged",
     "nosession; AliveRequest #1 0; stop; start; Get #2 5",
     "! Error building alive response: 7 | "
     "! Warning: service stop with no active session | "
     "! Warning: service start with no active session | get b1 5 | "
     "! Error building Get response: 7"},
};

TEST(SBPServiceTest, SinkRows) {
    for (const Row& row : kSinkRows)
        EXPECT_EQ(SBPScript(true).run(row.steps), row.trace) << row.rule;
}

TEST(SBPServiceTest, SourceRows) {
    for (const Row& row : kSourceRows)
        EXPECT_EQ(SBPScript(false).run(row.steps), row.trace) << row.rule;
}

TEST(SBPServiceTest, WithoutTheCallbackTheSinkRefusesEveryChallenge) {
    SBPScript script(true);
    script.sinkCallbacks.authChallengeCallback = nullptr;
    EXPECT_EQ(script.run("get 5; Challenge #1 5 80000000 +6; +4999; +1"),
              "Get #1 5 | AuthResponse #1 5 10000002 | 5000: error b1 5 12 0");
}

TEST(SBPServiceTest, SinkPacketIdsWrapPastThoseInUseAndRunOut) {
    SBPScript script(true);
    script.run("");
    for (uint32_t uid = 1; uid <= 0xFFFF; ++uid) script.sink->sendGet(nullptr, uid);
    EXPECT_EQ(script.run("get 10000; Response #7 7; Response #3 3; get 10001; get 10002; "
                         "get 10003"),
              "error b1 10000 13 1000000a | data b1 7 | data b1 3 | Get #3 10001 | "
              "Get #7 10002 | error b1 10003 13 1000000a");
}

}  // namespace
}  // namespace sbptest
