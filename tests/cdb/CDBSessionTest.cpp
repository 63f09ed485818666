// One session at a time against a scripted peer, on the test's thread and virtual time.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "cdb/CDBTestSupport.h"

namespace {

using namespace cdbtest;
using B = Bench;
using W = CDBWriter;

Step start(uint16_t id, CDBVersion v) {
    return B::send([=](W& w) { w.sendStartService(id, v); });
}
Step payload(uint16_t id, uint8_t access, std::string data = "") {
    return B::send([=](W& w) { w.sendServicePayload(id, access, data.data(), data.size()); });
}
Step directory(std::vector<CDBService> list) {
    return B::send([=](W& w) { w.sendServicesSupported({1, 1}, list.data(), list.size()); });
}
Step startPeerService(uint16_t id) {  // with a sink, what came of it forgotten ("*")
    return [id](B& b) { B::sink(id)(b), b.s().startPeerService(id); };
}
const Step kByeBye = B::send([](W& w) { w.sendByeBye(); });
const Step kTerminate = B::on([](CDBSession& s) { s.terminate(); });
std::string byeByeExpired(Role role) {
    return role == Role::kClient
               ? "10 Warning: ByeBye timer expired without receiving response from CDB server"
               : "10 Warning: ByeBye timer expired before without client having disconnected";
}
const Role kRoles[] = {Role::kClient, Role::kServer};

TEST(CDBSession, ExchangesTheServiceDirectory) {
    for (Role role : kRoles) {
        bool client = role == Role::kClient;
        uint16_t mine = client ? 1 : 0x4001, theirs = client ? 0x4001 : 1;
        Bench b(role, {CDBService(mine + 4, {1, 0}, 0, 0, "wrong side"),
                       CDBService(theirs, {1, 2}, 3, 4, "peer")});
        b.addService("svc", {2, 3}, 7, 90);
        b.addService("", {1, 0});
        b.preamble = false;
        // An id from our own range is skipped; the decimal "0x%04d" is the line peers expect.
        EXPECT_EQ(b.play({{[](B&) {},
                           format("connected | removed 1.1 [] | added 1.1 [0x%04x peer 1.2 attr=3 "
                                  "ac=4] | 30 Connection established | 10 Peer endpoint advertised "
                                  "service with invalid ID %s - ignoring it",
                                  theirs, client ? "5 (0x0005)" : "16389 (0x16389)")},
                          {B::send([](W& w) {
                               w.sendServicesRequest({1, 1});
                           }),
                           format("ServicesSupported 1.1: 0x%04x svc 2.3 attr=7 ac=90, 0x%04x  1.0 "
                                  "attr=0 ac=0",
                                  mine, mine + 1)}}),
                  "Connection lost");
    }
}

// A changed minor version (and attribute and access control) alone is no change; a changed
// major version or name is; a service not listed again is gone, and its sink with it.
TEST(CDBSession, RebuildKeepsUnchangedServicesWithTheirSinks) {
    Bench b(Role::kClient,
            {CDBService(0x4001, {1, 0}, 0, 5, "alpha"), CDBService(0x4002, {2, 0}, 0, 0, "beta"),
             CDBService(0x4003, {1, 0}, 0, 0, "gamma"), CDBService(0x4004, {1, 0}, 0, 0, "delta")});
    b.level = -1;  // the lines of the refusals below are another test's business
    const Step again = directory(
        {CDBService(0x4001, {1, 7}, 9, 6, "alpha"), CDBService(0x4002, {3, 0}, 0, 0, "beta"),
         CDBService(0x4003, {1, 0}, 0, 0, "gamma2"), CDBService(0x0005, {1, 0}, 0, 0, "invalid"),
         CDBService(0x4005, {1, 0}, 0, 0, "eps")});
    EXPECT_EQ(b.play({{[](B& b) {
                           for (uint16_t id = 0x4001; id <= 0x4004; ++id) B::sink(id)(b);
                       },
                       "*"},
                      {again,
                       "removed 1.1 [0x4002 beta 2.0 attr=0 ac=0, 0x4003 gamma 1.0 attr=0 ac=0, "
                       "0x4004 delta 1.0 attr=0 ac=0] | added 1.1 [0x4002 beta 3.0 attr=0 ac=0, "
                       "0x4003 gamma2 1.0 attr=0 ac=0, 0x4005 eps 1.0 attr=0 ac=0]"},
                      {B::send([](W& w) {
                           for (uint16_t id = 0x4001; id <= 0x4004; ++id)
                               w.sendServicePayload(id, id == 0x4001 ? 5 : 0, "\x01", 1);
                       }),
                       "ServiceResponse 0x4002 0x0102 | ServiceResponse 0x4003 0x0102 | "
                       "ServiceResponse 0x4004 0x0205 | payload 0x4001 01"},
                      // The same list again changes nothing, and both notifications still come.
                      {again, "removed 1.1 [] | added 1.1 []"},
                      {kByeBye, "closed | ended 0x4001"}}),
              "Disconnected");
}

// The session pings a second after each answer, and every PingResponse that carries the
// expected number counts, asked for or not; the number wraps. Then the peer falls silent:
// the ServicesRequest is given up after five seconds, and an answer after that is ignored;
// the unanswered ping ends the session after ten seconds ("five" in the line), and the
// ByeBye timer five seconds later.
TEST(CDBSession, PingsUntilThePeerFallsSilentThenTimesOut) {
    auto answer = [](int from, int to) {
        return B::send([=](W& w) {
            for (int n = from; n <= to; ++n) w.sendPingResponse(static_cast<uint16_t>(n));
        });
    };
    for (Role role : kRoles) {
        Bench b(role);
        b.answers.clear();
        EXPECT_EQ(b.play({{B::advance(999), ""},
                          {B::advance(1), "@1000 Ping 0"},
                          {answer(0, 65534), ""},
                          {B::advance(999), ""},
                          {B::advance(1), "@2000 Ping 65535"},
                          {answer(65535, 65535), ""},
                          {B::advance(1000), "@3000 Ping 0"},
                          {B::advance(1999), ""},
                          {B::advance(1),
                           "services request timed out | 0 Peer endpoint did not respond to "
                           "ServicesRequest within five seconds"},
                          {directory({}), ""},
                          {B::advance(7999), ""},
                          {B::advance(1),
                           "@13000 ByeBye | 0 Peer endpoint did not respond to ping within five "
                           "seconds - terminating the session"},
                          {B::advance(4999), ""},
                          {B::advance(1), "@18000 closed | " + byeByeExpired(role)}}),
                  "Disconnected");
    }
}

// A client ends at the server's ByeBye; a server answers one (unless it said ByeBye first)
// and waits for the client to close. A peer of another CDB version is told so and said
// ByeBye to. Failures leave run() as exceptions without a ByeBye, after what was already
// written has been flushed; urgent data (an exceptional condition) ends the loop as
// "Disconnected". Ended before it is connected, a session says no ByeBye and leaves at its
// next turn; a server ended as a peer connects must not take the listening socket for a
// connection.
TEST(CDBSession, HowASessionEnds) {
    const Bytes ping7 = written([](W& w) { w.sendPing(7); });
    auto raw = [](const Bytes& bytes, int flags = 0) {
        return [=](B& b) { b.flush(bytes, flags); };
    };
    const std::string connecting = "30 Connecting to URL | " + byeByeExpired(Role::kClient),
                      listening = "30 Listening on URL | " + byeByeExpired(Role::kServer);
    struct Case {
        Role role;
        int tcp;  // 0: a socket pair, 1: loopback, 2: loopback from before the connection
        std::string outcome;
        std::vector<Row> rows;
    };
    const std::string lost = "Connection lost", ended = "Disconnected";
    std::vector<Case> cases = {
        {Role::kClient, 0, ended, {{kByeBye, "closed"}}},
        {Role::kClient, 0, ended, {{kTerminate, "ByeBye"}, {kByeBye, "closed"}}},
        {Role::kServer, 0, lost, {{kByeBye, "ByeBye"}}},
        {Role::kServer, 0, lost, {{kTerminate, "ByeBye"}, {kByeBye, ""}}},
        {Role::kClient, 0, lost, {{[](B& b) { b.closePeer(); }, ""}}},
        {Role::kClient,
         0,
         ended,
         {{B::send([](W& w) { w.sendPingResponse(1); }),
           "ServiceResponse 0x0000 0x0208 | ByeBye | 0 Sequence number in PingResponse is "
           "incorrect! Expected 0, got 1 - terminating CDB"},
          {kByeBye, "closed"}}},
        // In one segment, so the answer is still unsent when the junk behind it throws.
        {Role::kClient,
         0,
         "Unknown message type 45322 (0xb10a)",
         {{raw(ping7 + Bytes{0xb1, 0x0a, 0, 0}), "PingResponse 7 | closed"}}},
        {Role::kClient, 1, ended, {{raw({0x55}, MSG_OOB), "closed | 0 Disconnected"}}},
        {Role::kClient, 2, ended, {{kTerminate, connecting}}},
        {Role::kServer, 2, ended, {{kTerminate, listening}}},
        {Role::kServer,
         2,
         ended,
         {{[](B& b) { b.connectPeer(); }, "-"}, {kTerminate, "closed | " + listening}}},
    };
    for (CDBVersion v : {CDBVersion{1, 0}, CDBVersion{1, 2}, CDBVersion{2, 1}}) {
        for (bool request : {true, false}) {
            auto send = B::send([=](W& w) {
                request ? w.sendServicesRequest(v) : w.sendServicesSupported(v, nullptr, 0);
            });
            cases.push_back({Role::kClient,
                             0,
                             ended,
                             {{send, format("ServiceResponse 0x0000 0x0209 | ByeBye | 0 Peer "
                                            "endpoint has unsupported protocol version %d.%d",
                                            v.majorNumber, v.minorNumber)},
                              {kByeBye, "closed"}}});
        }
    }
    for (const Case& c : cases) {
        Bench b(c.role);
        b.tcp = c.tcp > 0;
        b.preamble = c.tcp < 2;
        EXPECT_EQ(b.play(c.rows), c.outcome);
    }
}

TEST(CDBSession, EachServiceResponseCodeHasItsReaction) {
    const uint16_t kPeer = 0x4001, kOwn = 0x0001;
    const std::string from = "30 Received ServiceResponse(";
    struct Reaction {
        uint16_t id, code;
        std::string seen;
    };
    // The sink hears every code for its service, and our outstanding request is settled.
    std::vector<Reaction> rows = {
        {kPeer, 0x0202,
         "ByeBye | response 0x4001 0x0202 | " + from +
             "ServiceTerminationFailed) from peer - terminating CDB"},
        {kPeer, 0x0206,
         "StopService 0x4001 | response 0x4001 0x0206 | " + from +
             "WrongAccessControl) from peer service 16385 (0x4001) - sending StopService"},
        {0, 0x0208, "ByeBye | " + from + "WrongSequenceNumber) from peer - terminating CDB"},
        {0, 0x0209, "ByeBye | " + from + "WrongCDBVersionNumber) from peer - terminating CDB"},
        {kPeer, 0x020b,
         "ByeBye | response 0x4001 0x020b | " + from +
             "UnsupportedPayloadFormat) from - peer - terminating CDB"},
        // The same codes about one of our own services are only the sink's business.
        {kOwn, 0x0202, ""},
        {kOwn, 0x0206, ""},
        {kOwn, 0x020b, ""},
    };
    for (uint16_t code : {0x0300, 0x0000})
        rows.push_back({kPeer, code,
                        format("ByeBye | response 0x4001 0x%04x | 0 Received undefined response "
                               "value %d in ServiceResponse from service 16385 (0x4001) - "
                               "terminating CDB",
                               code, code)});
    for (uint16_t code :
         {0x0001, 0x0002, 0x0101, 0x0102, 0x0201, 0x0203, 0x0204, 0x0205, 0x0207, 0x020a})
        rows.push_back({kPeer, code, format("response 0x4001 0x%04x", code)});
    for (const Reaction& row : rows) {
        SCOPED_TRACE(format("service 0x%04x, code 0x%04x", row.id, row.code));
        auto pending = B::on([&](CDBSession& s) {
            EXPECT_EQ(s.pendingRequestIds().size(), row.id == kPeer ? 0u : 1u);
        });
        Bench(Role::kClient, {CDBService(kPeer, {1, 0}, 0, 0, "svc")})
            .play({{startPeerService(kPeer), "*"},
                   {B::send([&](W& w) { w.sendServiceResponse(row.id, row.code); }), row.seen},
                   {pending, ""}});
    }
}

// Own service 1 "svc" (2.3, attribute 7, access control 90); the peer offers 0x4001 "peer"
// (1.2, access control 3).
struct Services : Bench {
    Services() : Bench(Role::kClient, {CDBService(0x4001, {1, 2}, 0, 3, "peer")}) {
        addService("svc", {2, 3}, 7, 90);
    }
};

TEST(CDBSession, PeerRequestsAreCheckedInOrderAndOwnSendsAreChecked) {
    auto refused = [](int id, int code, std::string line) {
        return format("ServiceResponse 0x%04x 0x%04x | 10 Received ", id, code) +
               format(line.c_str(), id, id) + " - ignoring it";
    };
    const std::string newer = "StartService for service %d (0x%04x) with version ";
    const std::string unknown = " for unknown service %d (0x%04x)";
    const std::string wrongAccess =
        "ServicePayload for service %d (0x%04x) with wrong access control";
    auto stop = [](uint16_t id) { return B::send([=](W& w) { w.sendStopService(id); }); };
    Services().play({
        // StartService: a requested version not newer than ours is passed on.
        {start(1, {1, 9}), "start 0x0001 1.9"},
        {start(1, {2, 3}), "start 0x0001 2.3"},
        {start(1, {2, 4}), refused(1, 0x20a, newer + "2.4, but service version is 2.3")},
        {start(1, {3, 0}), refused(1, 0x20a, newer + "3.0, but service version is 2.3")},
        {start(2, {1, 0}), refused(2, 0x205, "StartService" + unknown)},
        {start(0x4001, {1, 0}), refused(0x4001, 0x205, "StartService" + unknown)},
        // StopService: passed on, and nothing is answered for it.
        {stop(1), "stop 0x0001"},
        {stop(0x4001), refused(0x4001, 0x205, "StopService" + unknown)},
        // ServicePayload: unknown service, then access control, then a missing sink.
        {payload(0x4009, 3), refused(0x4009, 0x205, "ServicePayload" + unknown)},
        {payload(0, 0), refused(0, 0x205, "ServicePayload" + unknown)},
        {payload(1, 91), refused(1, 0x206, wrongAccess)},
        {payload(0x4001, 4), refused(0x4001, 0x206, wrongAccess)},
        {payload(0x4001, 3), refused(0x4001, 0x102,
                                     "ServicePayload for service %d (0x%04x) but no sink was "
                                     "added for this service")},
        {payload(1, 90, "\xab\xcd"), "payload 0x0001 ABCD"},
        {B::sink(0x4001), "30 Sink added for peer service 16385 (0x4001)"},
        {payload(0x4001, 3, "\x01"), "payload 0x4001 01"},
        // Our own sends: access control from the service's record.
        {B::on([](CDBSession& s) { s.sendServicePayload(0x4001, "\x12", 1); }),
         "ServicePayload 0x4001 ac=3 12"},
        {B::on([](CDBSession& s) { s.sendServicePayload(1, "", 0); }),
         "ServicePayload 0x0001 ac=90 "},
        {B::on([](CDBSession& s) { s.sendServiceResponse(0x4001, 0x0205); }),
         "ServiceResponse 0x4001 0x0205"},
        {B::on([](CDBSession& s) { s.sendServicePayload(0x4009, "", 0); }),
         "0 Failed to send ServicePayload for service 16393 (0x4009) - service does not exist"},
        {B::on([](CDBSession& s) { s.sendServiceResponse(0, 1); }),
         "0 Failed to send ServiceResponse for service 0 (0x0000) - service does not exist or "
         "does not belong to this endpoint"},
        {B::on([](CDBSession& s) { s.stopPeerService(0x4001); }),
         "StopService 0x4001 | 30 Stopping peer service 16385 (0x4001)"},
    });
}

// A peer's StartService is held with "pending" every four seconds until the application
// answers: its own "pending" keeps the request, any other answer ends it, and with no answer
// the request expires at 120 seconds. An answer may come from inside the start handler.
TEST(CDBSession, PeerStartServiceIsHeldUntilAnsweredOrExpired) {
    std::string expiry;
    for (int t = 13000; t < 129000; t += 4000)
        expiry += format("@%d ServiceResponse 0x0001 0x0010 | ", t);
    auto answer = [](uint16_t code) {
        return B::on([code](CDBSession& s) { s.sendServiceResponse(1, code); });
    };
    Services b;
    b.play({{start(1, {2, 0}), "start 0x0001 2.0"},
            {B::advance(5000), "@4000 ServiceResponse 0x0001 0x0010"},
            {answer(0x0010), "ServiceResponse 0x0001 0x0010"},
            {B::advance(3000), "@8000 ServiceResponse 0x0001 0x0010"},
            {answer(0x0001), "ServiceResponse 0x0001 0x0001"},
            {B::advance(1000), ""},
            {start(1, {2, 0}), "start 0x0001 2.0"},
            {B::advance(120000), expiry + "@129000 ServiceResponse 0x0001 0x0201"},
            {B::advance(8000), ""},
            {[](B& b) { b.answerOnStart = true; }, "-"},
            {start(1, {2, 0}), "ServiceResponse 0x0001 0x0001 | start 0x0001 2.0"},
            {B::advance(8000), ""}});
}

// The sink hears the time-out code as if the peer had sent it, then we stop the service;
// the stop's own request expires five seconds later. The peer's "pending" holds the start
// until 120 seconds. A service the peer withdrew meanwhile has nobody to tell, and the stop
// that would follow only reports that it cannot.
TEST(CDBSession, OurStartServiceTimesOutUnlessThePeerKeepsItPending) {
    for (int expiry : {5000, 120000, 0}) {
        Bench b(Role::kClient, {CDBService(0x4001, {1, 2}, 0, 0, "svc")});
        if (expiry == 0) {
            b.play({{startPeerService(0x4001), "*"},
                    {directory({}), "removed 1.1 [0x4001 svc 1.2 attr=0 ac=0] | added 1.1 []"},
                    {B::advance(5000),
                     "0 Failed to stop peer service 16385 (0x4001) - service does not exist"}});
            continue;
        }
        if (expiry > 5000)
            b.answers["Ping "] = [&b](W& w, const std::string& ping) {
                pong(w, ping);
                if (b.elapsedMs < 120000) w.sendServiceResponse(0x4001, 0x0010);
            };
        b.play({{startPeerService(0x4001), "*"},
                {B::advance(expiry - 1), ""},
                {B::advance(1), format("@%d StopService 0x4001 | response 0x4001 0x0201 | 30 "
                                       "Stopping peer service 16385 (0x4001)",
                                       expiry)},
                {B::advance(5000), "response 0x4001 0x0202"}});
    }
}

// With nothing to do the loop blocks until its descriptor wakes it, rather than spinning or
// servicing an empty queue; errno left set by an application callback does not stop it; and
// descriptors beyond select()'s 1024 work.
TEST(CDBSession, LoopWaitsWithoutSpinningAndSurvivesStrayErrno) {
    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit raised = limit;
    raised.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(1200, limit.rlim_max));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> held;
    while (held.empty() || (held.back() >= 0 && held.back() < 1100)) held.push_back(::dup(0));
    {
        Bench b(Role::kClient);
        std::thread waker;
        std::atomic<bool> woken{false};
        auto block = [&](B& b) {
            char byte;
            ASSERT_EQ(::read(b.wake[0], &byte, 1), 1);
            waker = std::thread([&b, &woken] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                woken = true;
                ASSERT_EQ(::write(b.wake[1], "w", 1), 1);
            });
        };
        b.play({{block, "-"},
                {[&](B&) { EXPECT_TRUE(woken); }, "-"},
                {[](B&) { errno = EINTR; }, ""},
                {B::send([](W& w) { w.sendPing(3); }), "PingResponse 3"}});
        waker.join();
    }
    for (int fd : held) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// While the server listens, sends are dropped and the burst is logged once. A connection
// that cannot be accepted stays pending and keeps the listening socket readable: the server
// pauses instead of trying again each turn, and accepts once it can. The peer reads the
// directory first, and nothing of a send made before it came.
TEST(CDBSession, ServerWhileListening) {
    Bench b(Role::kServer);
    b.tcp = true;
    b.preamble = false;
    b.addService("svc", {1, 0});
    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    auto exhaust = [&](B& b) {
        b.connectPeer();
        int lowestFree = ::dup(0);
        ::close(lowestFree);
        rlimit lowered = limit;
        lowered.rlim_cur = static_cast<rlim_t>(lowestFree);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    };
    const Step send = B::on([&](CDBSession& s) {
        s.sendServicePayload(0x4001, "\x01\x02\x03", 3);
        s.sendServicePayload(0x4001, "\x01\x02\x03", 3);
        s.sendServiceResponse(0x4001, 1);
    });
    b.level = 100;  // the drops are counted in debug lines
    b.play({{send,
             "30 Listening on URL | 100 Dropping ServicePayload for service 16385 (0x4001) - not "
             "connected; counting until connected"},
            {exhaust, format("10 accept() failed: error %d: %s", EMFILE, std::strerror(EMFILE))},
            {[&](B&) { ::setrlimit(RLIMIT_NOFILE, &limit); }, ""},
            {B::advance(99), ""},
            {B::advance(1),
             "connected | removed 1.1 [] | added 1.1 [] | 30 Connection established | 100 Dropped "
             "3 ServicePayload and ServiceResponse messages while not connected"},
            {send,
             "ServicePayload 0x4001 ac=0 010203 | ServicePayload 0x4001 ac=0 010203 | "
             "ServiceResponse 0x4001 0x0001"}});
}

}  // namespace
