#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

#include "mirrorlink/TcpConnector.h"
#include "mirrorlink/TcpSocket.h"
#include "plat/RecordingLogger.h"

namespace mltest {

// "<strerror> (<err>)", the tail of every system error text.
inline std::string errText(int err) {
    return std::string(std::strerror(err)) + " (" + std::to_string(err) + ")";
}

// Bounded, so that a stuck test fails instead of hanging.
inline bool waitFor(const mirrorlink::TcpSocket& socket, short events, int timeoutMs = 5000) {
    pollfd entry = {socket.fd(), events, 0};
    return ::poll(&entry, 1, timeoutMs) == 1;
}

inline int localPort(const mirrorlink::TcpSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// A server listening on an ephemeral loopback port, and a client to connect to it.
struct Loopback {
    zeltest::RecordingLogger logger;
    plat::LoggerRef log{"CDBSession", &logger};
    mirrorlink::TcpSocket server, client;
    std::string url;  // the server's

    void listen() {
        mirrorlink::TcpConnector(server, log).startListening("cdb://127.0.0.1:0");
        url = "cdb://127.0.0.1:" + std::to_string(localPort(server));
    }
    // Client connect and server accept, both driven as the session drives them; both ends
    // must come out non-blocking (a blocking one would hang the tests, and the session).
    bool connect() {
        mirrorlink::TcpConnector clientSide(client, log);
        clientSide.startConnect(url.c_str());
        return waitFor(server, POLLIN) && mirrorlink::TcpConnector(server, log).acceptPeer() &&
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

}  // namespace mltest
