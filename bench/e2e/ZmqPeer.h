#pragma once

// The peer rows: what ZeroMQ, the messaging library users compare us with, does in the same
// shapes over TCP loopback. A REQ/REP round trip from an application thread (the library's
// own I/O thread moves the bytes, as our endpoint thread does) and a PUB/SUB update stream
// with the same window and acknowledgements as the SDK's payload stream. Built only when
// libzmq is found (E2E_HAVE_ZMQ); available() says whether this build has them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace e2e {

class ZmqPeer {
public:
    static bool available();

    // A connected REQ/REP pair answering requestSize bytes with responseSize bytes, and a
    // connected PUB/SUB pair (with its acknowledgement channel). ok() is false when either
    // could not be set up (or ZeroMQ is not built in).
    ZmqPeer(size_t requestSize, size_t responseSize);
    ~ZmqPeer();
    ZmqPeer(const ZmqPeer&) = delete;
    ZmqPeer& operator=(const ZmqPeer&) = delete;

    bool ok() const;
    // Answers of responseSize bytes from now on.
    void setResponseSize(size_t size);
    // count round trips (after warmup untimed ones), each timed on its own; empty on failure.
    std::vector<int64_t> roundTrips(int warmup, int count);
    // writeSize-byte updates for about seconds, never more than window unacknowledged, the
    // subscriber acknowledging every ackEvery; MB/s (10^6 bytes), 0 on failure.
    double stream(size_t writeSize, int ackEvery, int window, double seconds, int64_t* writes);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace e2e
