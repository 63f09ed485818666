// A client session and a server session talking to each other over loopback.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "cdb/SessionTestSupport.h"

namespace {

using namespace sessiontest;
using Lines = std::vector<std::string>;

struct Pair {
    // clock null: the real clock.
    explicit Pair(plat::ManualClock* clock)
        : clock(clock),
          server(Role::Server, port.url(), clock),
          client(Role::Client, port.url(), clock) {
        server.services.emplace_back(0x4001, CDBVersion{1, 0}, 0, 9, "nav", nav.get());
        client.services.emplace_back(0x0001, CDBVersion{2, 0}, 0, 0, "phone", phone.get());
    }
    ~Pair() {
        for (SessionHost* host : {&client, &server}) {
            host->on([](CDBSession& s) { s.terminate(); });
            if (clock) clock->advanceMs(5000);
            if (host->outcome() == "running") {
                ADD_FAILURE() << "a session did not end";
                std::abort();
            }
        }
    }
    // Both connected, each with the other's service in its table.
    void start() {
        server.start();
        server.on([](CDBSession&) {});  // its loop runs, so it listens
        client.start();
        ASSERT_TRUE(client.trace.waitFor("added"));
        ASSERT_TRUE(server.trace.waitFor("added"));
        EXPECT_EQ(client.trace.take(),
                  (Lines{"connected", "removed 1.1 []", "added 1.1 [0x4001 nav 1.0 attr=0 ac=9]"}));
        EXPECT_EQ(server.trace.take(), (Lines{"connected", "removed 1.1 []",
                                              "added 1.1 [0x0001 phone 2.0 attr=0 ac=0]"}));
    }
    uint64_t turns(SessionHost& host) {
        uint64_t n = 0;
        host.on([&](CDBSession& s) { n = s.loopTurns(); });
        return n;
    }

    plat::ManualClock* clock;
    ReservedPort port;
    SessionHost server, client;
    HandlerRef nav = TraceHandler::make(server.trace, 0x4001);
    HandlerRef phone = TraceHandler::make(client.trace, 0x0001);
};

TEST(CDBSessionPair, StartAnswerPayloadsAndByeBye) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    Pair p(&clock);
    p.start();
    HandlerRef sink = TraceHandler::make(p.client.trace, 0x4001);
    p.client.on([&](CDBSession& s) {
        s.addSink(0x4001, sink.get());
        s.startPeerService(0x4001);
        s.sendServicePayload(0x4001, "hi", 2);
    });
    ASSERT_TRUE(p.server.trace.waitFor("payload"));
    EXPECT_EQ(p.server.trace.take(), (Lines{"start 0x4001 1.0", "payload 0x4001 6869"}));
    p.server.on([](CDBSession& s) {
        s.sendServiceResponse(0x4001, 0x0001);
        s.sendServicePayload(0x4001, "\x01", 1);
    });
    ASSERT_TRUE(p.client.trace.waitFor("payload"));
    EXPECT_EQ(p.client.trace.take(), (Lines{"response 0x4001 0x0001", "payload 0x4001 01"}));
    p.client.on([](CDBSession& s) { EXPECT_EQ(s.pendingRequestIds(), std::vector<uint16_t>{}); });

    p.client.on([](CDBSession& s) { s.terminate(); });
    EXPECT_EQ(p.client.outcome(), "Disconnected");
    // The server learns that the client is gone from the closed socket.
    EXPECT_EQ(p.server.outcome(), "Connection lost");
}

// select() could not watch a descriptor numbered 1024 or more; an application that holds
// many descriptors must still get a working session.
TEST(CDBSessionPair, WorksWithDescriptorsAbove1100) {
    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit raised = limit;
    if (raised.rlim_cur < 1200) raised.rlim_cur = std::min<rlim_t>(1200, raised.rlim_max);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> held;
    for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) {
        if (fd > 1100) {
            ::close(fd);
            break;
        }
        held.push_back(fd);
    }
    ASSERT_GT(::dup(0), 1100) << "too few descriptors";
    ::close(::dup(0) - 1);  // dup gave the one just above; give it back
    {
        plat::ManualClock clock;
        plat::ScopedClock useClock(&clock);
        Pair p(&clock);
        p.start();
        p.client.on([](CDBSession& s) { s.terminate(); });
        EXPECT_EQ(p.client.outcome(), "Disconnected");
        EXPECT_EQ(p.server.outcome(), "Connection lost");
    }
    for (int fd : held) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// A connection that cannot be accepted stays pending and keeps the listening socket
// readable; the server must pause instead of spinning on it, and accept it once it can.
TEST(CDBSessionPair, AServerOutOfDescriptorsPausesAndAcceptsLater) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    ReservedPort port;
    SessionHost server(Role::Server, port.url(), &clock);
    server.start();
    server.on([](CDBSession&) {});  // listening
    int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(peer, 0);

    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    int lowestFree = ::dup(0);
    ::close(lowestFree);
    rlimit lowered = limit;
    lowered.rlim_cur = static_cast<rlim_t>(lowestFree) + 4;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    std::vector<int> held;
    for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) held.push_back(fd);

    sockaddr_in address = loopback(port.port());
    EXPECT_EQ(::connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    auto failures = [&] {
        int n = 0;
        for (const std::string& line : server.log.lines("CDBSession", 10))
            n += line.rfind("10 accept() failed: error 24", 0) == 0;
        return n;
    };
    for (int i = 0; i < 500 && failures() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    uint64_t before = 0, after = 0;
    server.on([&](CDBSession& s) { before = s.loopTurns(); });
    // A spinning loop makes thousands of turns in this window; a pausing one makes the
    // turns of the two calls around it.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    server.on([&](CDBSession& s) { after = s.loopTurns(); });
    int failed = failures();

    for (int fd : held) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(failed, 1);
    EXPECT_LE(after - before, 10u);
    clock.advanceMs(100);
    EXPECT_TRUE(server.trace.waitFor("connected"));
    // The peer closes with the server's ServicesRequest unread: a reset or a plain close.
    ::close(peer);
    EXPECT_NE(server.outcome(), "running");
}

// Pings, their answers and the timers are all an idle pair does: with time standing still
// a loop makes no turn of its own, and each virtual second costs a few.
TEST(CDBSessionPair, IdlePairMakesOnlyAFewLoopTurnsASecond) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    Pair p(&clock);
    p.start();
    uint64_t client = p.turns(p.client), server = p.turns(p.server);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_LE(p.turns(p.client) - client, 2u);
    EXPECT_LE(p.turns(p.server) - server, 2u);
    client = p.turns(p.client);
    server = p.turns(p.server);
    for (int second = 0; second < 5; ++second) {
        clock.advanceMs(1000);
        p.client.settle();
        p.server.settle();
    }
    EXPECT_LE(p.turns(p.client) - client, 50u);
    EXPECT_LE(p.turns(p.server) - server, 50u);
    for (SessionHost* host : {&p.client, &p.server}) {
        bool answered = false;
        for (int i = 0; i < 500 && !answered; ++i) {
            answered = host->log.has("100 Received PingResponse, sequence number 0", "CDBReader");
            if (!answered) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_TRUE(answered);
    }
}

}  // namespace
