#pragma once

#include "mirrorlink/TcpSocket.h"
#include "plat/Logger.h"

namespace mirrorlink {

// Sets up the one TCP connection of a CDB session on the session's socket, without ever
// blocking: a client starts a non-blocking connect and later checks its outcome; a server
// listens and accepts exactly one peer, after which nothing listens any more.
//
// Every socket is IPv4, whatever family the URL's address has: that is how peers have always
// behaved, so an IPv6 literal parses and resolves and then fails in connect() or bind().
// Lines go to the given logger reference (the session's). Endpoint thread only.
class TcpConnector {
public:
    // The socket is not owned and must outlive the connector; the reference is copied.
    TcpConnector(TcpSocket& socket, const plat::LoggerRef& log);

    // Client: "Connecting to <url>", then a non-blocking connect to the URL's first address.
    // Throws plat::SystemExceptionFmt ("socket() failed", "fcntl() failed", "connect()
    // failed") and plat::Exception ("Invalid CDB URL <url>").
    void startConnect(const char* url);

    // Client, once the socket is writable: true when connected. Throws plat::Exception
    // "Failed to read socket option" and plat::SystemException "Connection error".
    bool completeConnect();

    // Server: "Listening on <url>", then bind (SO_REUSEADDR) and listen with a backlog of 1
    // on a non-blocking socket. Throws plat::SystemExceptionFmt ("socket() failed",
    // "fcntl() failed", "bind() failed", "listen() failed") and plat::Exception ("Invalid
    // CDB URL <url>").
    void startListening(const char* url);

    // Server, once the listening socket is readable: accepts the peer and puts it in place
    // of the listening socket, which is closed. A failed accept is logged as a warning and
    // gives false; the socket keeps listening. Throws plat::SystemExceptionFmt "fcntl()
    // failed" when the peer's socket cannot be made non-blocking (the peer is closed).
    bool acceptPeer();

private:
    void openSocket();
    static void makeNonBlocking(TcpSocket& socket);
    SocketAddress resolve(const char* url);

    TcpSocket& socket_;
    plat::LoggerRef log_;
};

}  // namespace mirrorlink
