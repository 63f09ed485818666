#pragma once

#include <sys/socket.h>

#include <cstring>

namespace mirrorlink {

// One resolved socket address, copied out of the resolver's list so that the list can be
// freed at once.
struct SocketAddress {
    sockaddr_storage storage;
    socklen_t length;

    SocketAddress() : length(0) { std::memset(&storage, 0, sizeof storage); }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    int family() const { return storage.ss_family; }
};

}  // namespace mirrorlink
