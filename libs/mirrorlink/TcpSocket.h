#pragma once

#include <cstddef>

#include "mirrorlink/SocketAddress.h"

namespace mirrorlink {

// Owner of one socket descriptor (-1 when closed). Every operation returns 0 or the errno of
// the failed call and never throws; the caller decides what a failure means. Movable, not
// copyable; destroying it closes the descriptor. Used by one thread at a time.
class TcpSocket {
public:
    TcpSocket();
    ~TcpSocket();
    TcpSocket(TcpSocket&& other) noexcept;
    TcpSocket& operator=(TcpSocket&& other) noexcept;
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // Closes any open descriptor, then opens a new one (protocol 0). The new socket blocks
    // and is closed on exec.
    int create(int domain, int type);

    // Sets or clears O_NONBLOCK and remembers the choice.
    int setBlocking(bool blocking);
    // TCP_NODELAY and SO_REUSEADDR; the result of setsockopt is deliberately ignored.
    void setNoDelay();
    void setReuseAddress();
    // The socket's SO_ERROR value, or -1 when it cannot be read.
    int pendingError();

    int connect(const SocketAddress& address);
    int bind(const SocketAddress& address);
    int listen(int backlog);
    // Accepts one pending connection into peer (which is closed first; the new socket
    // blocks and is closed on exec) and the peer's address into address.
    int accept(TcpSocket* peer, SocketAddress* address);

    // One send; on success *length becomes the count sent. A non-blocking socket that cannot
    // take anything now reports 0 bytes, not an error. SIGPIPE is never raised.
    int send(const void* data, size_t* length);
    // Sends until everything has gone (retrying on a full non-blocking socket).
    int sendAll(const void* data, size_t length);
    int sendString(const char* text);

    // One recv; on success *length becomes the count received. Blocking: no bytes (the peer
    // closed included) is an error. Non-blocking: nothing available now and a closed peer
    // both give 0 bytes without error.
    int receive(void* buffer, size_t* length);

    // Closes the descriptor; a closed socket stays closed.
    int close();

    void swap(TcpSocket& other) noexcept;

    int fd() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    bool blocking() const { return blocking_; }

private:
    int fd_;
    bool blocking_;
};

}  // namespace mirrorlink
