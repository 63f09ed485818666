#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "LoopbackSupport.h"
#include "mirrorlink/TcpConnector.h"
#include "plat/Exception.h"

namespace {

using mirrorlink::TcpConnector;
using mirrorlink::TcpSocket;
using mltest::Loopback;
using mltest::waitFor;

bool nonBlocking(const TcpSocket& socket) {
    return (::fcntl(socket.fd(), F_GETFL) & O_NONBLOCK) != 0;
}

TEST(TcpConnector, ServerAcceptsExactlyOnePeerThenNothingListens) {
    Loopback loop;
    loop.listen();
    ASSERT_GT(loop.port, 0);
    ASSERT_TRUE(nonBlocking(loop.server));
    ASSERT_TRUE(loop.connect());
    EXPECT_TRUE(nonBlocking(loop.client));
    EXPECT_TRUE(nonBlocking(loop.server));
    EXPECT_FALSE(loop.server.blocking());
    // The accepted connection took the listening socket's place.
    EXPECT_EQ(mltest::localPort(loop.server), loop.port);
    EXPECT_TRUE(loop.server.isOpen());

    mltest::RecordingLogger logger;
    TcpSocket second;
    TcpConnector secondSide(second, plat::LoggerRef{"CDBSession", &logger});
    try {
        secondSide.startConnect(mltest::loopbackUrl(loop.port).c_str());
        ASSERT_TRUE(waitFor(second, POLLOUT));
        secondSide.completeConnect();
        FAIL() << "a second client was accepted";
    } catch (const plat::SystemException& e) {
        EXPECT_EQ(e.err(), ECONNREFUSED) << e.str();
        EXPECT_TRUE(std::string(e.str()).rfind("Connection error: ", 0) == 0 ||
                    std::string(e.str()).rfind("connect() failed: ", 0) == 0)
            << e.str();
    }

    ASSERT_GE(loop.logger.lines.size(), 2u);
    EXPECT_EQ(loop.logger.lines[0].text, "Listening on cdb://127.0.0.1:0");
    EXPECT_EQ(loop.logger.lines[0].level, plat::kLogInfo);
    EXPECT_EQ(loop.logger.lines[1].text, "Connecting to " + mltest::loopbackUrl(loop.port));
    EXPECT_EQ(loop.logger.lines[1].level, plat::kLogInfo);
}

TEST(TcpConnector, AcceptWithNobodyWaitingWarnsAndKeepsListening) {
    Loopback loop;
    loop.listen();
    ASSERT_FALSE(TcpConnector(loop.server, loop.log).acceptPeer());
    ASSERT_EQ(loop.logger.lines.size(), 2u);
    EXPECT_EQ(loop.logger.lines[1].level, plat::kLogWarning);
    EXPECT_EQ(loop.logger.lines[1].text.rfind(
                  "accept() failed: error " + std::to_string(EAGAIN) + ": ", 0),
              0u)
        << loop.logger.lines[1].text;
    EXPECT_TRUE(loop.connect());
}

std::string failureOf(void (TcpConnector::*start)(const char*), const char* url) {
    mltest::RecordingLogger logger;
    TcpSocket socket;
    TcpConnector connector(socket, plat::LoggerRef{"CDBSession", &logger});
    try {
        (connector.*start)(url);
    } catch (const plat::Exception& e) {
        return e.str();
    }
    return "no error";
}

std::string prefix(const std::string& text) {
    return text.substr(0, text.find(':') + 1);
}

TEST(TcpConnector, FailuresCarryTheirTexts) {
    EXPECT_EQ(failureOf(&TcpConnector::startConnect, "cdb://myhost:80"),
              "Invalid CDB URL cdb://myhost:80");
    EXPECT_EQ(failureOf(&TcpConnector::startListening, "cdb://myhost:80"),
              "Invalid CDB URL cdb://myhost:80");
    EXPECT_EQ(failureOf(&TcpConnector::startConnect, "cdb://[::1"), "Invalid CDB URL cdb://[::1");
    // Sockets are IPv4 whatever the address: an IPv6 literal resolves, then the call fails.
    EXPECT_EQ(prefix(failureOf(&TcpConnector::startConnect, "cdb://[::1]:80")),
              "connect() failed:");
    EXPECT_EQ(prefix(failureOf(&TcpConnector::startListening, "cdb://[::1]:0")), "bind() failed:");

    Loopback loop;
    loop.listen();
    EXPECT_EQ(failureOf(&TcpConnector::startListening, mltest::loopbackUrl(loop.port).c_str()),
              "bind() failed: " + std::string(std::strerror(EADDRINUSE)) + " (" +
                  std::to_string(EADDRINUSE) + ")");

    TcpSocket closed;
    mltest::RecordingLogger logger;
    try {
        TcpConnector(closed, plat::LoggerRef{"CDBSession", &logger}).completeConnect();
        FAIL();
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "Failed to read socket option");
    }
}

TEST(TcpConnector, ConnectToAClosedPortFailsOnCompletionOrAtOnce) {
    Loopback loop;
    loop.listen();
    int port = loop.port;
    loop.server.close();
    try {
        TcpConnector connector(loop.client, loop.log);
        connector.startConnect(mltest::loopbackUrl(port).c_str());
        ASSERT_TRUE(waitFor(loop.client, POLLOUT));
        connector.completeConnect();
        FAIL() << "connected to a closed port";
    } catch (const plat::SystemException& e) {
        EXPECT_EQ(e.err(), ECONNREFUSED);
        std::string text = e.str();
        EXPECT_TRUE(text == "Connection error: " + std::string(std::strerror(ECONNREFUSED)) + " (" +
                                std::to_string(ECONNREFUSED) + ")" ||
                    prefix(text) == "connect() failed:")
            << text;
    }
}

}  // namespace
