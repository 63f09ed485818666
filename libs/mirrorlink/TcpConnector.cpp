#include "mirrorlink/TcpConnector.h"

#include <sys/socket.h>

#include <cerrno>

#include "mirrorlink/CDBUrl.h"
#include "plat/Exception.h"

namespace mirrorlink {

namespace {

constexpr int kListenBacklog = 1;

}  // namespace

TcpConnector::TcpConnector(TcpSocket& socket, const plat::LoggerRef& log)
    : socket_(socket), log_(log) {}

void TcpConnector::openSocket() {
    if (int err = socket_.create(AF_INET, SOCK_STREAM)) {
        throw plat::SystemExceptionFmt(err, "socket() failed");
    }
}

void TcpConnector::makeNonBlocking(TcpSocket& socket) {
    if (int err = socket.setBlocking(false)) throw plat::SystemExceptionFmt(err, "fcntl() failed");
}

SocketAddress TcpConnector::resolve(const char* url) {
    CDBUrl parsed;
    SocketAddress address;
    if (!parsed.parse(url) || parsed.resolve(-1, &address) != 0) {
        throw plat::ExceptionFmt("Invalid CDB URL %s", url ? url : "(null)");
    }
    return address;
}

void TcpConnector::startConnect(const char* url) {
    log_.info("Connecting to %s", url ? url : "(null)");
    openSocket();
    SocketAddress address = resolve(url);
    makeNonBlocking(socket_);
    socket_.setNoDelay();
    int err = socket_.connect(address);
    if (err != 0 && err != EINPROGRESS) throw plat::SystemExceptionFmt(err, "connect() failed");
}

bool TcpConnector::completeConnect() {
    int err = socket_.pendingError();
    if (err < 0) throw plat::Exception("Failed to read socket option");
    if (err != 0) throw plat::SystemException("Connection error", err);
    return true;
}

void TcpConnector::startListening(const char* url) {
    log_.info("Listening on %s", url ? url : "(null)");
    openSocket();
    SocketAddress address = resolve(url);
    makeNonBlocking(socket_);
    socket_.setReuseAddress();
    if (int err = socket_.bind(address)) throw plat::SystemExceptionFmt(err, "bind() failed");
    if (int err = socket_.listen(kListenBacklog))
        throw plat::SystemExceptionFmt(err, "listen() failed");
}

bool TcpConnector::acceptPeer() {
    TcpSocket peer;
    SocketAddress address;
    if (int err = socket_.accept(&peer, &address)) {
        char buffer[128];
        const char* description = plat::errorDescription(err, buffer, sizeof buffer);
        log_.warning("accept() failed: error %d: %s", err, description);
        return false;
    }
    makeNonBlocking(peer);
    peer.setNoDelay();
    // The listening socket ends up in the temporary and is closed with it: one endpoint
    // serves exactly one connection.
    socket_.swap(peer);
    peer.close();
    return true;
}

}  // namespace mirrorlink
