#include <gtest/gtest.h>

#include <cerrno>

#include "LoopbackSupport.h"
#include "plat/Exception.h"

namespace {

using mirrorlink::TcpConnector;
using mirrorlink::TcpSocket;
using mltest::errText;
using mltest::Loopback;

TEST(TcpConnector, ServerAcceptsExactlyOnePeerThenNothingListens) {
    Loopback loop;
    loop.listen();
    int port = mltest::localPort(loop.server);
    // Nobody waiting yet: a warning, and the socket goes on listening.
    EXPECT_FALSE(TcpConnector(loop.server, loop.log).acceptPeer());
    ASSERT_TRUE(loop.connect());
    EXPECT_EQ(mltest::localPort(loop.server), port);  // the peer took the listener's place

    TcpSocket second;
    TcpConnector secondSide(second, loop.log);
    try {
        secondSide.startConnect(loop.url.c_str());
        ASSERT_TRUE(mltest::waitFor(second, POLLOUT));
        secondSide.completeConnect();
        FAIL() << "a second client was accepted";
    } catch (const plat::SystemException& e) {
        // Refused at once or on completion, depending on the kernel.
        std::string text = e.str();
        EXPECT_TRUE(text == "Connection error: " + errText(ECONNREFUSED) ||
                    text == "connect() failed: " + errText(ECONNREFUSED))
            << text;
    }
    EXPECT_EQ(loop.logged(), "30 Listening on cdb://127.0.0.1:0\n10 accept() failed: error " +
                                 std::to_string(EAGAIN) + ": " + std::strerror(EAGAIN) +
                                 "\n30 Connecting to " + loop.url + "\n30 Connecting to " +
                                 loop.url + "\n");
}

bool closedOnExec(const TcpSocket& socket) {
    int flags = ::fcntl(socket.fd(), F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

// The library lives in the application's process: none of its sockets may leak into a
// program the application executes. Listening, connecting and accepted sockets alike.
TEST(TcpConnector, EverySocketIsClosedOnExec) {
    Loopback loop;
    loop.listen();
    EXPECT_TRUE(closedOnExec(loop.server));
    ASSERT_TRUE(loop.connect());
    EXPECT_TRUE(closedOnExec(loop.client));
    EXPECT_TRUE(closedOnExec(loop.server));  // now the accepted peer
    TcpSocket plain;
    ASSERT_EQ(plain.create(AF_INET, SOCK_STREAM), 0);
    EXPECT_TRUE(closedOnExec(plain));
}

std::string failureOf(void (TcpConnector::*start)(const char*), const std::string& url) {
    zeltest::RecordingLogger logger;
    TcpSocket socket;
    try {
        (TcpConnector(socket, plat::LoggerRef{"CDBSession", &logger}).*start)(url.c_str());
    } catch (const plat::Exception& e) {
        return e.str();
    }
    return "no error";
}

TEST(TcpConnector, FailuresCarryTheirTexts) {
    const auto connect = &TcpConnector::startConnect;
    const auto listen = &TcpConnector::startListening;
    EXPECT_EQ(failureOf(connect, "cdb://myhost:80"), "Invalid CDB URL cdb://myhost:80");
    EXPECT_EQ(failureOf(listen, "cdb://myhost:80"), "Invalid CDB URL cdb://myhost:80");
    // Sockets are IPv4 whatever the address: an IPv6 literal resolves, then the call fails.
    EXPECT_EQ(failureOf(connect, "cdb://[::1]:80").rfind("connect() failed: ", 0), 0u);
    EXPECT_EQ(failureOf(listen, "cdb://[::1]:0").rfind("bind() failed: ", 0), 0u);

    Loopback loop;
    loop.listen();
    EXPECT_EQ(failureOf(listen, loop.url), "bind() failed: " + errText(EADDRINUSE));
    TcpSocket closed;
    try {
        TcpConnector(closed, loop.log).completeConnect();
        FAIL();
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "Failed to read socket option");
    }
}

}  // namespace
