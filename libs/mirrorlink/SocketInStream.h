#pragma once

#include "mirrorlink/TcpSocket.h"
#include "rdr/BufferedInStream.h"

namespace mirrorlink {

// Buffered input from a non-blocking socket (not owned). Each refill reads once from the
// socket; "nothing now" and "peer closed" both read as 0 bytes, so the owner tells a closed
// peer by a readable socket that yielded no bytes: it clears the received-data flag before a
// batch of reads and looks at it afterwards. Endpoint thread only.
class SocketInStream : public rdr::BufferedInStream {
public:
    // bufferSize 0 selects the buffered stream's default.
    explicit SocketInStream(TcpSocket& socket, size_t bufferSize = 0);

    // True when a read since the last clearReceivedData() returned bytes.
    bool receivedData() const { return receivedData_; }
    void clearReceivedData() { receivedData_ = false; }

    // A batch of reads after a wait that found the socket readable: clears the
    // received-data flag, and until endBatch() takes a read that left room in the buffer
    // unfilled as the sign that the socket is empty, so the batch's next refill says
    // "nothing now" without asking the socket only to hear EAGAIN. Bytes that arrive
    // meanwhile make the next wait return at once.
    void beginBatch() {
        receivedData_ = false;
        batch_ = true;
        drained_ = false;
    }
    void endBatch() { batch_ = false; }

protected:
    // Throws plat::SystemException "Network error" on any socket error.
    size_t readData(void* dest, size_t maxBytes) override;

private:
    TcpSocket& socket_;
    bool receivedData_;
    bool batch_ = false;
    bool drained_ = false;  // in a batch: the last read emptied the socket
};

}  // namespace mirrorlink
