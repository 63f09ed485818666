#include "mirrorlink/TcpSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace mirrorlink {

namespace {

// The sockets are IPv4 only, so an accepted peer's address fits a sockaddr_in.
constexpr socklen_t kAcceptAddressLength = 16;

#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;
#endif

bool wouldBlock(int err) {
    return err == EAGAIN || err == EWOULDBLOCK;
}

// For systems without SOCK_CLOEXEC; 0 or the errno of the failed call.
[[maybe_unused]] int setCloseOnExec(int fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0 || ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) return errno;
    return 0;
}

// A descriptor made here and closed on exec, or -1 with errno set. The library lives inside
// the application's process: its sockets, like its wake-up pipe, must not leak into
// programs the application runs. SOCK_CLOEXEC sets the flag atomically, so that a fork in
// another thread cannot catch the descriptor without it.
int closedOnExec(int fd) {
#ifndef SOCK_CLOEXEC
    if (fd >= 0) {
        if (int err = setCloseOnExec(fd)) {
            ::close(fd);
            errno = err;
            return -1;
        }
    }
#endif
    return fd;
}

#ifdef SOCK_CLOEXEC
constexpr int kCloseOnExec = SOCK_CLOEXEC;
#else
constexpr int kCloseOnExec = 0;
#endif

}  // namespace

TcpSocket::TcpSocket() : fd_(-1), blocking_(true) {}

TcpSocket::~TcpSocket() {
    close();
}

TcpSocket::TcpSocket(TcpSocket&& other) noexcept : fd_(other.fd_), blocking_(other.blocking_) {
    other.fd_ = -1;
    other.blocking_ = true;
}

TcpSocket& TcpSocket::operator=(TcpSocket&& other) noexcept {
    if (this != &other) {
        close();
        swap(other);
    }
    return *this;
}

void TcpSocket::swap(TcpSocket& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(blocking_, other.blocking_);
}

int TcpSocket::create(int domain, int type) {
    close();
    fd_ = closedOnExec(::socket(domain, type | kCloseOnExec, 0));
    blocking_ = true;
    return fd_ < 0 ? errno : 0;
}

int TcpSocket::setBlocking(bool blocking) {
    int flags = ::fcntl(fd_, F_GETFL, 0);
    if (flags < 0) return errno;
    flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    if (::fcntl(fd_, F_SETFL, flags) < 0) return errno;
    blocking_ = blocking;
    return 0;
}

void TcpSocket::setNoDelay() {
    int on = 1;
    (void)::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void TcpSocket::setReuseAddress() {
    int on = 1;
    (void)::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

int TcpSocket::pendingError() {
    int value = 0;
    socklen_t length = sizeof value;
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &value, &length) < 0) return -1;
    return value;
}

int TcpSocket::connect(const SocketAddress& address) {
    return ::connect(fd_, address.get(), address.length) < 0 ? errno : 0;
}

int TcpSocket::bind(const SocketAddress& address) {
    return ::bind(fd_, address.get(), address.length) < 0 ? errno : 0;
}

int TcpSocket::listen(int backlog) {
    return ::listen(fd_, backlog) < 0 ? errno : 0;
}

int TcpSocket::accept(TcpSocket* peer, SocketAddress* address) {
    address->length = kAcceptAddressLength;
#ifdef SOCK_CLOEXEC
    int fd = ::accept4(fd_, address->get(), &address->length, SOCK_CLOEXEC);
#else
    int fd = closedOnExec(::accept(fd_, address->get(), &address->length));
#endif
    if (fd < 0) return errno;
    peer->close();
    peer->fd_ = fd;
    peer->blocking_ = true;
    return 0;
}

int TcpSocket::send(const void* data, size_t* length) {
    ssize_t sent;
    do {
        sent = ::send(fd_, data, *length, kSendFlags);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        int err = errno;
        if (!blocking_ && wouldBlock(err)) {
            *length = 0;
            return 0;
        }
        return err;
    }
    *length = static_cast<size_t>(sent);
    return 0;
}

int TcpSocket::sendAll(const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        size_t sent = length;
        if (int err = send(p, &sent)) return err;
        if (sent == 0) {
            // A non-blocking socket is full: wait until it takes more.
            pollfd entry = {fd_, POLLOUT, 0};
            if (::poll(&entry, 1, -1) < 0 && errno != EINTR) return errno;
            continue;
        }
        p += sent;
        length -= sent;
    }
    return 0;
}

int TcpSocket::sendString(const char* text) {
    return sendAll(text, std::strlen(text));
}

int TcpSocket::receive(void* buffer, size_t* length) {
    ssize_t got;
    do {
        got = ::recv(fd_, buffer, *length, 0);
    } while (got < 0 && errno == EINTR);
    if (blocking_) {
        if (got < 1) {
            // The end of the stream sets no errno; call it a reset.
            int err = got < 0 ? errno : ECONNRESET;
            *length = 0;
            return err;
        }
    } else if (got < 0) {
        int err = errno;
        *length = 0;
        return wouldBlock(err) ? 0 : err;
    }
    *length = static_cast<size_t>(got);
    return 0;
}

int TcpSocket::close() {
    if (fd_ < 0) return 0;
    int result = ::close(fd_);
    fd_ = -1;
    return result < 0 ? errno : 0;
}

}  // namespace mirrorlink
