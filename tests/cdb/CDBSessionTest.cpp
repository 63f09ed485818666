// One session at a time against a scripted peer over loopback, on virtual time.
#include <gtest/gtest.h>

#include "cdb/SessionTestSupport.h"

namespace {

using namespace sessiontest;
using Lines = std::vector<std::string>;
using zelcdbsdk::CDBWriter;
using cdbtest::operator+;

// Own service 0 "svc" (2.3, attribute 7, access control 90); the peer offers "peer" (1.2,
// access control 3) as its service 0.
void setUpServices(Session& s) {
    s.addService("svc", {2, 3}, 7, 90);
    s.exchange({CDBService(s.theirs(0), {1, 2}, 0, 3, "peer")});
}

// The session's lines at level 30 or more severe, logged since `from` of them.
Lines linesSince(Session& s, size_t from) {
    Lines lines = s.host->log.lines();
    return Lines(lines.begin() + static_cast<long>(std::min(from, lines.size())), lines.end());
}

std::vector<uint16_t> pending(Session& s) {
    std::vector<uint16_t> ids;
    s.host->on([&](CDBSession& session) { ids = session.pendingRequestIds(); });
    return ids;
}

std::string byeByeTimerExpired(const Session& s) {
    return s.isClient() ? "10 Warning: ByeBye timer expired without receiving response from CDB "
                          "server"
                        : "10 Warning: ByeBye timer expired before without client having "
                          "disconnected";
}

class SessionRoles : public ::testing::TestWithParam<Role> {};
INSTANTIATE_TEST_SUITE_P(CDBSession, SessionRoles, ::testing::Values(Role::Client, Role::Server),
                         [](const ::testing::TestParamInfo<Role>& info) {
                             return info.param == Role::Client ? "Client" : "Server";
                         });

TEST_P(SessionRoles, ExchangesTheServiceDirectory) {
    Session s(GetParam());
    s.addService("svc", {2, 3}, 7, 90);
    s.addService("", {1, 0});
    s.connect();
    s.peer.w().sendServicesRequest({1, 1});
    EXPECT_EQ(s.peer.sync(), Lines{fmt("ServicesSupported 1.1: 0x%04x svc 2.3 attr=7 ac=90, "
                                       "0x%04x  1.0 attr=0 ac=0",
                                       s.own(0), s.own(1))});

    // An id from our own range is skipped; the decimal "0x%04d" is the line peers expect.
    std::vector<CDBService> theirs = {CDBService(s.own(4), {1, 0}, 0, 0, "wrong side"),
                                      CDBService(s.theirs(0), {1, 2}, 3, 4, "peer")};
    s.peer.w().sendServicesSupported({1, 1}, theirs.data(), theirs.size());
    EXPECT_EQ(s.peer.sync(), Lines{});
    EXPECT_TRUE(s.host->trace.waitFor("added"));
    EXPECT_EQ(
        s.host->trace.take(),
        (Lines{"removed 1.1 []", fmt("added 1.1 [0x%04x peer 1.2 attr=3 ac=4]", s.theirs(0))}));
    EXPECT_TRUE(s.host->log.has(s.isClient() ? "10 Peer endpoint advertised service with invalid "
                                               "ID 5 (0x0005) - ignoring it"
                                             : "10 Peer endpoint advertised service with invalid "
                                               "ID 16389 (0x16389) - ignoring it"));
    EXPECT_TRUE(s.host->log.has("30 Connection established"));
}

TEST(CDBSession, UnsupportedPeerVersionIsAnsweredThenByeBye) {
    struct Row {
        bool request;  // ServicesRequest, else ServicesSupported
        CDBVersion version;
    };
    for (Row row : {Row{true, {1, 0}}, Row{false, {1, 0}}, Row{true, {1, 2}}, Row{false, {2, 1}}}) {
        SCOPED_TRACE(
            fmt("%d %d.%d", row.request, row.version.majorNumber, row.version.minorNumber));
        Session s(Role::Client);
        s.connect();
        if (row.request) s.peer.w().sendServicesRequest(row.version);
        if (!row.request) s.peer.w().sendServicesSupported(row.version, nullptr, 0);
        EXPECT_EQ(s.peer.sync(), (Lines{"ServiceResponse 0x0000 0x0209", "ByeBye"}));
        EXPECT_EQ(s.host->log.lines().back(),
                  fmt("0 Peer endpoint has unsupported protocol version %d.%d",
                      row.version.majorNumber, row.version.minorNumber));
        s.peer.w().sendByeBye();
        EXPECT_EQ(s.peer.next(), "closed");
        EXPECT_EQ(s.host->outcome(), "Disconnected");
        EXPECT_EQ(s.host->trace.take(), Lines{});
    }
}

// Every PingResponse that carries the expected number counts, asked for or not, and the
// number wraps; a wrong one ends the session.
TEST(CDBSession, PingsASecondAfterConnectingAndAfterEachAnswerAndChecksTheNumber) {
    Session s(Role::Client);
    s.exchange({});
    EXPECT_EQ(s.advance(999, false), Lines{});
    EXPECT_EQ(s.advance(1, false), Lines{"1000 Ping 0"});
    for (int n = 0; n < 65535; ++n) s.peer.w().sendPingResponse(static_cast<uint16_t>(n));
    EXPECT_EQ(s.advance(999, false), Lines{});
    EXPECT_EQ(s.advance(1, false), Lines{"2000 Ping 65535"});
    s.peer.w().sendPingResponse(65535);
    EXPECT_EQ(s.advance(1000, false), Lines{"3000 Ping 0"});
    s.peer.w().sendPingResponse(1);
    EXPECT_EQ(s.peer.sync(), (Lines{"ServiceResponse 0x0000 0x0208", "ByeBye"}));
    EXPECT_EQ(
        s.host->log.lines().back(),
        "0 Sequence number in PingResponse is incorrect! Expected 0, got 1 - terminating CDB");
}

// Ten seconds for the answer, "five" in the line; then five seconds for the ByeBye.
TEST_P(SessionRoles, UnansweredPingEndsTheSession) {
    Session s(GetParam());
    s.exchange({});
    EXPECT_EQ(s.advance(1000, false), Lines{"1000 Ping 0"});
    EXPECT_EQ(s.advance(9999, false), Lines{});
    EXPECT_EQ(s.advance(1, false), Lines{"11000 ByeBye"});
    EXPECT_EQ(s.host->log.lines().back(),
              "0 Peer endpoint did not respond to ping within five seconds - terminating the "
              "session");
    EXPECT_EQ(s.advance(4999, false), Lines{});
    s.clock.advanceMs(1);
    EXPECT_EQ(s.host->outcome(), "Disconnected");
    EXPECT_EQ(s.host->log.lines().back(), byeByeTimerExpired(s));
}

TEST_P(SessionRoles, ByeByeEndsTheSession) {
    for (bool weStart : {false, true}) {
        SCOPED_TRACE(weStart ? "terminate()" : "peer's ByeBye");
        Session s(GetParam());
        s.exchange({});
        if (weStart) {
            s.host->on([](CDBSession& session) { session.terminate(); });
            EXPECT_EQ(s.peer.next(), "ByeBye");
        }
        s.peer.w().sendByeBye();
        if (s.isClient()) {
            // The server's ByeBye ends it at once; nothing more is said.
            EXPECT_EQ(s.peer.next(), "closed");
            EXPECT_EQ(s.host->outcome(), "Disconnected");
        } else {
            // A server answers (unless it already said ByeBye) and waits for the client to go.
            EXPECT_EQ(s.peer.sync(), weStart ? Lines{} : Lines{"ByeBye"});
            s.peer.close();
            EXPECT_EQ(s.host->outcome(), "Connection lost");
        }
    }
}

TEST_P(SessionRoles, TerminateBeforeTheConnectionEndsAtTheNextTurn) {
    Session s(GetParam());
    if (s.isClient()) s.host->beforeRun = [](CDBSession& session) { session.terminate(); };
    s.host->start();
    if (!s.isClient()) s.host->on([](CDBSession& session) { session.terminate(); });
    EXPECT_EQ(s.host->outcome(), "Disconnected");
    EXPECT_EQ(s.host->trace.take(), Lines{});
    EXPECT_EQ(s.host->log.lines().back(), byeByeTimerExpired(s));
}

// A stop that arrives in the same turn as a peer's connect: the listening socket is readable
// but is no connection to read from.
TEST(CDBSession, ServerStoppedAsAPeerConnectsEndsCleanly) {
    Session s(Role::Server);
    bool armed = true;
    s.host->afterServiceMessages = [&] {
        if (!armed) return;
        armed = false;
        s.peer.connect(s.port());
        s.host->post([](CDBSession& session) { session.terminate(); });
    };
    s.host->start();
    s.host->on([](CDBSession&) {});
    EXPECT_EQ(s.host->outcome(), "Disconnected");
}

// Failures leave run() as exceptions without a ByeBye, after what was already written has
// been flushed; urgent data (an exceptional condition) ends the loop as "Disconnected".
TEST(CDBSession, HowASessionEnds) {
    struct Row {
        std::function<void(RawPeer&)> act;
        std::string outcome;
        Lines peerSees;
    };
    const Row rows[] = {
        {[](RawPeer& p) { p.close(); }, "Connection lost", {}},
        {[](RawPeer& p) {
             p.sendRaw({0xb1, 0x00, 0, 0});
         },
         "Unknown message type 45312 (0xb100)",
         {"closed"}},
        // In one segment, so the answer is still unsent when the junk behind it throws.
        {[](RawPeer& p) {
             p.sendRaw(cdbtest::written([](CDBWriter& w) { w.sendPing(7); }) +
                       Bytes{0xb1, 0x0a, 0, 0});
         },
         "Unknown message type 45322 (0xb10a)",
         {"PingResponse 7", "closed"}},
        {[](RawPeer& p) { p.sendRaw({0x55}, MSG_OOB); }, "Disconnected", {"closed"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.outcome);
        Session s(Role::Client);
        s.exchange({});
        row.act(s.peer);
        EXPECT_EQ(s.host->outcome(), row.outcome);
        Lines seen;
        while (!row.peerSees.empty() && seen.size() < row.peerSees.size())
            seen.push_back(s.peer.next());
        EXPECT_EQ(seen, row.peerSees);
    }
}

TEST(CDBSession, LateServicesSupportedIsIgnored) {
    Session s(Role::Client);
    s.connect();
    EXPECT_EQ(s.advance(4999), Lines{});
    EXPECT_EQ(s.host->trace.take(), Lines{});
    EXPECT_EQ(s.advance(1), Lines{});
    EXPECT_EQ(s.host->trace.take(), Lines{"services request timed out"});
    EXPECT_EQ(s.host->log.lines().back(),
              "0 Peer endpoint did not respond to ServicesRequest within five seconds");
    s.advance(1000);
    CDBService late(0x4001, {1, 0}, 0, 0, "late");
    s.peer.w().sendServicesSupported({1, 1}, &late, 1);
    EXPECT_EQ(s.advance(3000), Lines{});  // and the link stays up
    EXPECT_EQ(s.host->trace.take(), Lines{});
    s.host->on([](CDBSession& session) { EXPECT_EQ(session.findPeerService(0x4001), nullptr); });
}

TEST(CDBSession, RebuildKeepsUnchangedServicesWithTheirSinks) {
    Session s(Role::Client);
    s.exchange({CDBService(0x4001, {1, 0}, 0, 5, "alpha"), CDBService(0x4002, {2, 0}, 0, 0, "beta"),
                CDBService(0x4003, {1, 0}, 0, 0, "gamma"),
                CDBService(0x4004, {1, 0}, 0, 0, "delta")});
    for (uint16_t id = 0x4001; id <= 0x4004; ++id) s.addSink(id);
    // A changed minor version (and attribute and access control) alone is no change; a
    // changed major version or name is; a service not listed again is gone.
    std::vector<CDBService> again = {
        CDBService(0x4001, {1, 7}, 9, 6, "alpha"), CDBService(0x4002, {3, 0}, 0, 0, "beta"),
        CDBService(0x4003, {1, 0}, 0, 0, "gamma2"), CDBService(0x0005, {1, 0}, 0, 0, "invalid"),
        CDBService(0x4005, {1, 0}, 0, 0, "eps")};
    s.peer.w().sendServicesSupported({1, 1}, again.data(), again.size());
    EXPECT_EQ(s.peer.sync(), Lines{});
    EXPECT_EQ(s.host->trace.take(),
              (Lines{"removed 1.1 [0x4002 beta 2.0 attr=0 ac=0, 0x4003 gamma 1.0 attr=0 ac=0, "
                     "0x4004 delta 1.0 attr=0 ac=0]",
                     "added 1.1 [0x4002 beta 3.0 attr=0 ac=0, 0x4003 gamma2 1.0 attr=0 ac=0, "
                     "0x4005 eps 1.0 attr=0 ac=0]"}));
    for (uint16_t id = 0x4001; id <= 0x4004; ++id)
        s.peer.w().sendServicePayload(id, id == 0x4001 ? 5 : 0, "\x01", 1);
    EXPECT_EQ(s.peer.sync(),
              (Lines{"ServiceResponse 0x4002 0x0102", "ServiceResponse 0x4003 0x0102",
                     "ServiceResponse 0x4004 0x0205"}));
    EXPECT_EQ(s.host->trace.take(), Lines{"payload 0x4001 01"});

    // The same list again changes nothing, and both notifications still come.
    s.peer.w().sendServicesSupported({1, 1}, again.data(), again.size());
    s.peer.sync();
    EXPECT_EQ(s.host->trace.take(), (Lines{"removed 1.1 []", "added 1.1 []"}));
}

TEST(CDBSession, ServiceResponseReactions) {
    const uint16_t kPeer = 0x4001, kOwn = 0x0001;
    const Lines bye = {"ByeBye"};
    const std::string from = "30 Received ServiceResponse(";
    struct Row {
        uint16_t id, code;
        Lines sent;
        std::string line;  // the session's line at level 30 or below, if any
    };
    std::vector<Row> rows = {
        {kPeer, 0x0202, bye, from + "ServiceTerminationFailed) from peer - terminating CDB"},
        {kPeer,
         0x0206,
         {"StopService 0x4001"},
         from + "WrongAccessControl) from peer service 16385 (0x4001) - sending StopService"},
        {0, 0x0208, bye, from + "WrongSequenceNumber) from peer - terminating CDB"},
        {0, 0x0209, bye, from + "WrongCDBVersionNumber) from peer - terminating CDB"},
        {kPeer, 0x020b, bye, from + "UnsupportedPayloadFormat) from - peer - terminating CDB"},
        {kPeer, 0x0300, bye,
         "0 Received undefined response value 768 in ServiceResponse from service 16385 "
         "(0x4001) - terminating CDB"},
        {kPeer, 0x0000, bye,
         "0 Received undefined response value 0 in ServiceResponse from service 16385 "
         "(0x4001) - terminating CDB"},
    };
    // The same codes about one of our own services are only the sink's business.
    for (uint16_t code : {0x0202, 0x0206, 0x020b}) rows.push_back({kOwn, code, {}, ""});
    for (uint16_t code :
         {0x0001, 0x0002, 0x0101, 0x0102, 0x0201, 0x0203, 0x0204, 0x0205, 0x0207, 0x020a})
        rows.push_back({kPeer, code, {}, ""});
    for (const Row& row : rows) {
        SCOPED_TRACE(fmt("service 0x%04x, code 0x%04x", row.id, row.code));
        Session s(Role::Client);
        s.exchange({CDBService(kPeer, {1, 0}, 0, 0, "svc")});
        s.addSink(kPeer);
        s.host->on([&](CDBSession& session) { session.startPeerService(kPeer); });
        EXPECT_EQ(s.peer.sync(), Lines{"StartService 0x4001 1.0"});
        size_t before = s.host->log.lines().size();

        s.peer.w().sendServiceResponse(row.id, row.code);
        EXPECT_EQ(s.peer.sync(), row.sent);
        EXPECT_EQ(linesSince(s, before), row.line.empty() ? Lines{} : Lines{row.line});
        // The sink hears every code for its service; our outstanding request is settled.
        EXPECT_EQ(s.host->trace.take(),
                  row.id == kPeer ? Lines{fmt("response 0x4001 0x%04x", row.code)} : Lines{});
        EXPECT_EQ(pending(s),
                  row.id == kPeer ? std::vector<uint16_t>{} : std::vector<uint16_t>{kPeer});
    }
}

using Send = std::function<void(CDBWriter&)>;
Send start(uint16_t id, CDBVersion v) {
    return [=](CDBWriter& w) { w.sendStartService(id, v); };
}
Send stop(uint16_t id) {
    return [=](CDBWriter& w) { w.sendStopService(id); };
}
Send payload(uint16_t id, uint8_t access, std::string data = "") {
    return [=](CDBWriter& w) { w.sendServicePayload(id, access, data.data(), data.size()); };
}

TEST(CDBSession, PeerRequestsAreCheckedInOrder) {
    Session s(Role::Client);
    setUpServices(s);
    const std::string newer = "10 Received StartService for service 1 (0x0001) with version ";
    auto unknown = [](const char* what, int id) {
        return fmt("10 Received %s for unknown service %d (0x%04x) - ignoring it", what, id, id);
    };
    auto wrongAccess = [](int id) {
        return fmt(
            "10 Received ServicePayload for service %d (0x%04x) with wrong access control "
            "- ignoring it",
            id, id);
    };
    const struct {
        Send send;
        Lines sent, trace;
        std::string line;
    } rows[] = {
        // StartService: a requested version not newer than ours is passed on.
        {start(1, {1, 9}), {}, {"start 0x0001 1.9"}, ""},
        {start(1, {2, 3}), {}, {"start 0x0001 2.3"}, ""},
        {start(1, {2, 4}),
         {"ServiceResponse 0x0001 0x020a"},
         {},
         newer + "2.4, but service version is 2.3 - ignoring it"},
        {start(1, {3, 0}),
         {"ServiceResponse 0x0001 0x020a"},
         {},
         newer + "3.0, but service version is 2.3 - ignoring it"},
        {start(2, {1, 0}), {"ServiceResponse 0x0002 0x0205"}, {}, unknown("StartService", 2)},
        {start(0x4001, {1, 0}),
         {"ServiceResponse 0x4001 0x0205"},
         {},
         unknown("StartService", 0x4001)},
        // StopService: passed on, and nothing is answered for it.
        {stop(1), {}, {"stop 0x0001"}, ""},
        {stop(0x4001), {"ServiceResponse 0x4001 0x0205"}, {}, unknown("StopService", 0x4001)},
        // ServicePayload: unknown service, then access control, then a missing sink.
        {payload(0x4009, 3),
         {"ServiceResponse 0x4009 0x0205"},
         {},
         unknown("ServicePayload", 0x4009)},
        {payload(0, 0), {"ServiceResponse 0x0000 0x0205"}, {}, unknown("ServicePayload", 0)},
        {payload(1, 91), {"ServiceResponse 0x0001 0x0206"}, {}, wrongAccess(1)},
        {payload(0x4001, 4), {"ServiceResponse 0x4001 0x0206"}, {}, wrongAccess(0x4001)},
        {payload(0x4001, 3),
         {"ServiceResponse 0x4001 0x0102"},
         {},
         "10 Received ServicePayload for service 16385 (0x4001) but no sink was added for this "
         "service - ignoring it"},
        {payload(1, 90, "\xab\xcd"), {}, {"payload 0x0001 abcd"}, ""},
    };
    for (const auto& row : rows) {
        size_t before = s.host->log.lines().size();
        row.send(s.peer.w());
        EXPECT_EQ(s.peer.sync(), row.sent) << row.line;
        EXPECT_EQ(s.host->trace.take(), row.trace) << row.line;
        EXPECT_EQ(linesSince(s, before), row.line.empty() ? Lines{} : Lines{row.line});
    }
    s.addSink(0x4001);
    payload(0x4001, 3, "\x01")(s.peer.w());
    EXPECT_EQ(s.peer.sync(), Lines{});
    EXPECT_EQ(s.host->trace.take(), Lines{"payload 0x4001 01"});
}

TEST(CDBSession, OwnOperations) {
    Session s(Role::Client);
    setUpServices(s);
    struct Row {
        std::function<void(CDBSession&)> op;
        Lines sent;
        std::string line;
    };
    const Row rows[] = {
        {[](CDBSession& x) { x.sendServicePayload(0x4001, "\x12", 1); },
         {"ServicePayload 0x4001 ac=3 12"},
         ""},
        {[](CDBSession& x) { x.sendServicePayload(1, "", 0); },
         {"ServicePayload 0x0001 ac=90 "},
         ""},
        {[](CDBSession& x) { x.sendServiceResponse(0x4001, 0x0205); },
         {"ServiceResponse 0x4001 0x0205"},
         ""},
        {[](CDBSession& x) { x.sendServicePayload(0x4009, "", 0); },
         {},
         "0 Failed to send ServicePayload for service 16393 (0x4009) - service does not exist"},
        {[](CDBSession& x) { x.sendServiceResponse(0, 1); },
         {},
         "0 Failed to send ServiceResponse for service 0 (0x0000) - service does not exist or "
         "does not belong to this endpoint"},
        {[](CDBSession& x) { x.stopPeerService(0x4001); },
         {"StopService 0x4001"},
         "30 Stopping peer service 16385 (0x4001)"},
    };
    for (const Row& row : rows) {
        size_t before = s.host->log.lines().size();
        s.host->on(row.op);
        EXPECT_EQ(s.peer.sync(), row.sent) << row.line;
        EXPECT_EQ(linesSince(s, before), row.line.empty() ? Lines{} : Lines{row.line});
    }
}

// A peer's StartService is held with "pending" every four seconds until the application
// answers: its own "pending" keeps the request, any other answer ends it, and with no answer
// the request expires at 120 seconds.
TEST(CDBSession, PeerStartServiceIsHeldUntilAnsweredOrExpired) {
    Session s(Role::Client);
    setUpServices(s);
    s.peer.w().sendStartService(1, {2, 0});
    EXPECT_EQ(s.advance(5000), Lines{"4000 ServiceResponse 0x0001 0x0010"});
    s.host->on([](CDBSession& x) { x.sendServiceResponse(1, 0x0010); });
    EXPECT_EQ(s.advance(3000),
              (Lines{"5000 ServiceResponse 0x0001 0x0010", "8000 ServiceResponse 0x0001 0x0010"}));
    s.host->on([](CDBSession& x) { x.sendServiceResponse(1, 0x0001); });
    EXPECT_EQ(s.advance(1000), Lines{"8000 ServiceResponse 0x0001 0x0001"});

    s.peer.w().sendStartService(1, {2, 0});  // at 9 s; the answered request stays quiet
    Lines expected;
    for (int t = 13000; t < 129000; t += 4000)
        expected.push_back(fmt("%d ServiceResponse 0x0001 0x0010", t));
    expected.push_back("129000 ServiceResponse 0x0001 0x0201");
    EXPECT_EQ(s.advance(130000), expected);
    EXPECT_EQ(s.host->trace.take(), (Lines{"start 0x0001 2.0", "start 0x0001 2.0"}));
    EXPECT_EQ(pending(s), std::vector<uint16_t>{});
}

// A service may answer from inside its start handler, before the session's call returns.
TEST(CDBSession, AnswerGivenDuringStartServiceEndsIt) {
    Session s(Role::Client);
    CDBSession* session = nullptr;
    s.host->beforeRun = [&](CDBSession& x) { session = &x; };
    s.addService("svc", {1, 0});
    static_cast<TraceHandler*>(s.handlers[0].get())->onStart = [&] {
        session->sendServiceResponse(1, 0x0001);
    };
    s.exchange({});
    s.peer.w().sendStartService(1, {1, 0});
    EXPECT_EQ(s.advance(8000), Lines{"0 ServiceResponse 0x0001 0x0001"});
}

TEST(CDBSession, OurStartServiceTimesOutUnlessThePeerKeepsItPending) {
    for (bool peerSaysPending : {false, true}) {
        SCOPED_TRACE(peerSaysPending ? "pending every 4 s" : "silent");
        Session s(Role::Client);
        s.exchange({CDBService(0x4001, {1, 2}, 0, 0, "svc")});
        s.addSink(0x4001);
        s.host->on([](CDBSession& x) { x.startPeerService(0x4001); });
        EXPECT_EQ(s.peer.sync(), Lines{"StartService 0x4001 1.2"});
        Lines seen;
        for (int t = 0; t < 120000; t += 4000) {
            if (peerSaysPending) s.peer.w().sendServiceResponse(0x4001, 0x0010);
            for (const std::string& m : s.advance(4000)) seen.push_back(m);
        }
        // The sink hears the time-out code as if the peer had sent it, then we stop the
        // service; the stop's own request expires five seconds later.
        EXPECT_EQ(seen,
                  Lines{peerSaysPending ? "120000 StopService 0x4001" : "5000 StopService 0x4001"});
        Lines trace = s.host->trace.take();
        EXPECT_EQ(trace.at(0), "response 0x4001 0x0201");
        EXPECT_EQ(trace.size(), peerSaysPending ? 1u : 2u);
        if (peerSaysPending) {
            EXPECT_EQ(s.advance(5000), Lines{});
            EXPECT_EQ(s.host->trace.take(), Lines{"response 0x4001 0x0202"});
        }
    }
}

// The peer withdraws the service while our StartService is outstanding: the time-out has
// nobody to tell, and the StopService that would follow only reports that it cannot.
TEST(CDBSession, RequestForAWithdrawnServiceExpiresQuietly) {
    Session s(Role::Client);
    s.exchange({CDBService(0x4001, {1, 0}, 0, 0, "svc")});
    s.addSink(0x4001);
    s.host->on([](CDBSession& x) { x.startPeerService(0x4001); });
    s.peer.w().sendServicesSupported({1, 1}, nullptr, 0);
    EXPECT_EQ(s.advance(5000), Lines{"0 StartService 0x4001 1.0"});
    EXPECT_EQ(s.host->trace.take(),
              (Lines{"removed 1.1 [0x4001 svc 1.0 attr=0 ac=0]", "added 1.1 []"}));
    EXPECT_EQ(s.host->log.lines().back(),
              "0 Failed to stop peer service 16385 (0x4001) - service does not exist");
}

}  // namespace
