#pragma once

#include "mirrorlink/TcpSocket.h"
#include "rdr/FullyBufferedOutStream.h"

namespace mirrorlink {

// Output to a non-blocking socket (not owned), collected in a growing buffer and sent only
// when the owner calls flushBuffer(), normally when select() reports the socket writable.
// Endpoint thread only.
class SocketOutStream : public rdr::FullyBufferedOutStream {
public:
    // 0 selects the buffered stream's defaults (16384 bytes, growing up to 4 MiB).
    explicit SocketOutStream(TcpSocket& socket, size_t initialSize = 0, size_t maxSize = 0);

protected:
    // One send; returns the count the socket took (0 when it is full). Throws
    // plat::SystemException "Network error" on any socket error.
    size_t writeData(const void* data, size_t length) override;

private:
    TcpSocket& socket_;
};

}  // namespace mirrorlink
