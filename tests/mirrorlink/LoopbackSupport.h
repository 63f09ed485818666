#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "mirrorlink/TcpConnector.h"
#include "mirrorlink/TcpSocket.h"
#include "plat/DString.h"
#include "plat/Logger.h"

namespace mltest {

struct LogLine {
    int level;
    std::string facility;
    std::string text;
};

class RecordingLogger : public plat::Logger {
public:
    std::vector<LogLine> lines;
    void log(int level, const char* facility, const char* format, va_list args) override {
        plat::DString text;
        text.formatV(format, args);
        lines.push_back({level, facility, text.c_str()});
    }
};

// Waits (bounded: a stuck test fails instead of hanging) until the socket is ready.
inline bool waitFor(const mirrorlink::TcpSocket& socket, short events, int timeoutMs = 5000) {
    pollfd entry = {socket.fd(), events, 0};
    return ::poll(&entry, 1, timeoutMs) == 1;
}

inline int localPort(const mirrorlink::TcpSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
    return ntohs(address.sin_port);
}

inline std::string loopbackUrl(int port) {
    return "cdb://127.0.0.1:" + std::to_string(port);
}

// A server listening on an ephemeral loopback port, and a way to connect clients to it.
struct Loopback {
    RecordingLogger logger;
    plat::LoggerRef log{"CDBSession", &logger};
    mirrorlink::TcpSocket server;
    mirrorlink::TcpSocket client;
    int port = -1;

    void listen() {
        mirrorlink::TcpConnector(server, log).startListening("cdb://127.0.0.1:0");
        port = localPort(server);
    }
    // Client connect and server accept, both driven as the session would drive them.
    bool connect() {
        mirrorlink::TcpConnector clientSide(client, log);
        clientSide.startConnect(loopbackUrl(port).c_str());
        if (!waitFor(server, POLLIN) || !mirrorlink::TcpConnector(server, log).acceptPeer())
            return false;
        return waitFor(client, POLLOUT) && clientSide.completeConnect();
    }
};

}  // namespace mltest
