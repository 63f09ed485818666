#include "mirrorlink/SocketOutStream.h"

#include "plat/Exception.h"

namespace mirrorlink {

SocketOutStream::SocketOutStream(TcpSocket& socket, size_t initialSize, size_t maxSize)
    : rdr::FullyBufferedOutStream(initialSize, maxSize), socket_(socket) {}

size_t SocketOutStream::writeData(const void* data, size_t length) {
    size_t sent = length;
    if (int err = socket_.send(data, &sent)) throw plat::SystemException("Network error", err);
    return sent;
}

}  // namespace mirrorlink
