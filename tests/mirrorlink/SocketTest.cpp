// Connecting, listening and accepting, and the socket streams, over loopback.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "mirrorlink/SocketInStream.h"
#include "mirrorlink/SocketOutStream.h"
#include "mirrorlink/TcpConnector.h"
#include "plat/Exception.h"
#include "plat/RecordingLogger.h"
#include "plat/ThrownText.h"
#include "rdr/Exceptions.h"

namespace {

using mirrorlink::SocketInStream;
using mirrorlink::SocketOutStream;
using mirrorlink::TcpConnector;
using mirrorlink::TcpSocket;

// "<strerror> (<err>)", the tail of every system error text.
std::string errText(int err) {
    return std::string(std::strerror(err)) + " (" + std::to_string(err) + ")";
}
// Bounded, so that a stuck test fails instead of hanging.
bool waitFor(const TcpSocket& socket, short events, int timeoutMs = 5000) {
    pollfd entry = {socket.fd(), events, 0};
    return ::poll(&entry, 1, timeoutMs) == 1;
}
int localPort(const TcpSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}
bool closedOnExec(const TcpSocket& socket) {
    return ::fcntl(socket.fd(), F_GETFD) == FD_CLOEXEC;
}
// Small messages must leave at once, not wait for the peer's acknowledgement.
bool noDelay(const TcpSocket& socket) {
    int on = 0;
    socklen_t length = sizeof on;
    return ::getsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &on, &length) == 0 && on;
}
// A server listening on an ephemeral loopback port, and a client to connect to it.
struct Loopback : ::testing::Test {
    zeltest::RecordingLogger logger;
    plat::LoggerRef log{"CDBSession", &logger};
    TcpSocket server, client;
    std::string url;  // the server's

    void listen() {
        TcpConnector(server, log).startListening("cdb://127.0.0.1:0");
        url = "cdb://127.0.0.1:" + std::to_string(localPort(server));
    }
    // Client connect and server accept, both driven as the session drives them; both ends
    // must come out non-blocking (a blocking one would hang the tests, and the session).
    bool connect() {
        TcpConnector clientSide(client, log);
        clientSide.startConnect(url.c_str());
        return waitFor(server, POLLIN) && TcpConnector(server, log).acceptPeer() &&
               waitFor(client, POLLOUT) && clientSide.completeConnect() && !client.blocking() &&
               !server.blocking() && (::fcntl(client.fd(), F_GETFL) & O_NONBLOCK) &&
               (::fcntl(server.fd(), F_GETFL) & O_NONBLOCK);
    }
    std::string logged() {
        std::string text;
        for (const auto& l : logger.lines) text += std::to_string(l.level) + " " + l.text + "\n";
        return text;
    }
};

struct Connected : Loopback {
    void SetUp() override {
        listen();
        ASSERT_TRUE(connect());
    }
    // Sends text and waits until the server end has it all.
    void deliver(const std::string& text) {
        ASSERT_EQ(client.sendAll(text.data(), text.size()), 0);
        int queued = 0;
        for (int i = 0; i < 1000 && queued < static_cast<int>(text.size()); ++i) {
            ASSERT_TRUE(waitFor(server, POLLIN));
            ASSERT_EQ(ioctl(server.fd(), FIONREAD, &queued), 0);
        }
        ASSERT_EQ(queued, static_cast<int>(text.size()));
    }
};

// Takes whatever is there now, as the session's batch of reads after a wait does.
std::string take(SocketInStream& in) {
    std::string got;
    while (in.available() > 0 || in.overrun(false, 1)) {
        got.append(reinterpret_cast<const char*>(in.ptr()), in.available());
        in.skip(in.available());
        in.setCheckpoint();
    }
    return got;
}

// The listener gives way to the one peer it accepts; none of the library's sockets may leak
// into a program the application executes.
TEST_F(Loopback, ServerAcceptsExactlyOnePeerAndEverySocketIsClosedOnExec) {
    listen();
    int port = localPort(server);
    EXPECT_TRUE(closedOnExec(server));
    // Nobody waiting yet: a warning, and the socket goes on listening.
    EXPECT_FALSE(TcpConnector(server, log).acceptPeer());
    ASSERT_TRUE(connect());
    EXPECT_EQ(localPort(server), port);  // the peer took the listener's place
    EXPECT_TRUE(closedOnExec(client) && noDelay(client));
    EXPECT_TRUE(closedOnExec(server) && noDelay(server));
    TcpSocket plain;
    ASSERT_EQ(plain.create(AF_INET, SOCK_STREAM), 0);
    EXPECT_TRUE(closedOnExec(plain));
    errno = EINTR;  // a close that succeeds reports 0, whatever errno held before
    EXPECT_EQ(plain.close(), 0);

    TcpSocket second;
    TcpConnector secondSide(second, log);
    std::string text = zeltest::thrownText([&] {
        secondSide.startConnect(url.c_str());
        ASSERT_TRUE(waitFor(second, POLLOUT));
        secondSide.completeConnect();
    });
    // Refused at once or on completion, depending on the kernel.
    EXPECT_TRUE(text == "Connection error: " + errText(ECONNREFUSED) ||
                text == "connect() failed: " + errText(ECONNREFUSED))
        << text;
    EXPECT_EQ(logged(), "30 Listening on cdb://127.0.0.1:0\n10 accept() failed: error " +
                            std::to_string(EAGAIN) + ": " + std::strerror(EAGAIN) +
                            "\n30 Connecting to " + url + "\n30 Connecting to " + url + "\n");
}

TEST_F(Loopback, FailuresCarryTheirTexts) {
    auto start = [this](void (TcpConnector::*fn)(const char*), std::string url) {
        TcpSocket socket;
        return zeltest::thrownText([&] { (TcpConnector(socket, log).*fn)(url.c_str()); });
    };
    const auto connect = &TcpConnector::startConnect, listen = &TcpConnector::startListening;
    EXPECT_EQ(start(connect, "cdb://myhost:80"), "Invalid CDB URL cdb://myhost:80");
    EXPECT_EQ(start(listen, "cdb://myhost:80"), "Invalid CDB URL cdb://myhost:80");
    // Sockets are IPv4 whatever the address: an IPv6 literal resolves, then the call fails.
    EXPECT_EQ(start(connect, "cdb://[::1]:80").rfind("connect() failed: ", 0), 0u);
    EXPECT_EQ(start(listen, "cdb://[::1]:0").rfind("bind() failed: ", 0), 0u);
    this->listen();
    EXPECT_EQ(start(listen, url), "bind() failed: " + errText(EADDRINUSE));
    TcpSocket closed;
    EXPECT_EQ(zeltest::thrownText([&] { TcpConnector(closed, log).completeConnect(); }),
              "Failed to read socket option");
}

// Nothing there yet is no error, and neither is a closed peer: that is a readable socket
// that yields no bytes, not "Network error". A reset is a network error both ways, and
// sending into it raises no SIGPIPE.
TEST_F(Connected, NothingYetAndPeerCloseReadAsNoBytes) {
    SocketInStream in(server);
    EXPECT_EQ(in.overrun(false, 1), 0);
    EXPECT_FALSE(in.receivedData());
    ASSERT_NO_FATAL_FAILURE(deliver("!"));  // one byte is data too
    client.close();
    EXPECT_EQ(take(in), "!");
    EXPECT_TRUE(in.receivedData());
    ASSERT_TRUE(waitFor(server, POLLIN));
    in.clearReceivedData();
    EXPECT_EQ(take(in), "");
    EXPECT_FALSE(in.receivedData());
    EXPECT_THROW(in.readU8(), rdr::BlockException);
}
TEST_F(Connected, AResetIsANetworkErrorBothWays) {
    SocketInStream in(server);
    SocketOutStream out(server);
    linger abort = {1, 0};
    ASSERT_EQ(::setsockopt(client.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
    client.close();
    ASSERT_TRUE(waitFor(server, POLLIN));
    EXPECT_EQ(zeltest::thrownText([&] { in.readU8(); }), "Network error: " + errText(ECONNRESET));
    EXPECT_EQ(zeltest::thrownText([&] {
                  out.writeU32(1);
                  out.flushBuffer();
                  out.writeU32(2);
                  out.flushBuffer();
              }).rfind("Network error: ", 0),
              0u);
}

// A socket that takes only part of the output is not an error: the rest waits for the next
// flush, and everything arrives once, in order.
TEST_F(Connected, FullSocketKeepsTheRestForTheNextFlush) {
    SocketOutStream out(client);
    SocketInStream in(server);
    int small = 65536;  // fixed, so that the kernel cannot grow them to hold it all
    ::setsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    ::setsockopt(server.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::string sent(4 * 1024 * 1024, '\0'), got;  // far beyond the socket buffers
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 131 + (i >> 12));
    out.writeBytes(sent.data(), sent.size());
    bool sawBacklog = false;
    for (int turn = 0; turn < 100000 && got.size() < sent.size(); ++turn) {
        if (out.hasUnflushedData()) out.flushBuffer();
        sawBacklog = sawBacklog || out.hasUnflushedData();
        if (waitFor(server, POLLIN, 100)) got += take(in);
    }
    EXPECT_TRUE(sawBacklog);
    EXPECT_TRUE(got == sent);
}

// In a batch, a read that leaves room unfilled ends the asking for that batch only. A mark
// that outlived its batch would stop the endpoint from ever reading again; one set by a
// read that filled the buffer would leave the rest of a burst for another turn of the loop.
TEST_F(Connected, BatchStopsAtTheReadThatEmptiedTheSocket) {
    SocketInStream in(server), small(server, 4);
    ASSERT_NO_FATAL_FAILURE(deliver("ab"));
    in.beginBatch();
    EXPECT_EQ(take(in), "ab");
    ASSERT_NO_FATAL_FAILURE(deliver("cd"));
    EXPECT_EQ(take(in), "");  // this batch already saw the socket empty
    in.endBatch();
    EXPECT_EQ(take(in), "cd");
    ASSERT_NO_FATAL_FAILURE(deliver("ef"));
    in.beginBatch();
    EXPECT_FALSE(in.receivedData());
    EXPECT_EQ(take(in), "ef");
    in.endBatch();
    ASSERT_NO_FATAL_FAILURE(deliver("0123456789"));
    small.beginBatch();
    EXPECT_EQ(take(small), "0123456789");  // four, four and two: only the last read was short
    small.endBatch();
}

}  // namespace
