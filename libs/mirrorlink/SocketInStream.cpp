#include "mirrorlink/SocketInStream.h"

#include "plat/Exception.h"

namespace mirrorlink {

SocketInStream::SocketInStream(TcpSocket& socket, size_t bufferSize)
    : rdr::BufferedInStream(bufferSize), socket_(socket), receivedData_(false) {}

size_t SocketInStream::readData(void* dest, size_t maxBytes) {
    if (batch_ && drained_) return 0;
    size_t length = maxBytes;
    if (int err = socket_.receive(dest, &length)) throw plat::SystemException("Network error", err);
    if (length > 0) receivedData_ = true;
    drained_ = length < maxBytes;
    return length;
}

}  // namespace mirrorlink
