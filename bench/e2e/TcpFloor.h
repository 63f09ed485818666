#pragma once

// The floors: what a plain TCP socket over loopback does in the same shapes as the SDK
// measurements, with blocking sockets, TCP_NODELAY and one thread per connection end.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace e2e {

struct PingPongFigures {
    std::vector<int64_t> roundTripsNs;  // one per timed round trip
    int64_t count = 0;
    int64_t elapsedNs = 0;  // for the whole timed run
};

struct IdleFigures {
    double cpuSeconds = 0;
    double wakeupsPerSecond = 0;
    double seconds = 0;
};

struct ScaleFigures {
    double connectMs = 0;
    double getsPerSecond = 0;
    double slowestStopMs = 0;
    bool ok = false;
};

// Two threads over one connection: the caller writes requestSize bytes and waits for
// responseSize bytes back, count times after warmup untimed ones.
PingPongFigures tcpPingPong(size_t requestSize, size_t responseSize, int warmup, int count);

// One-way stream of writeSize-byte writes for about seconds; the receiver answers every
// ackEvery writes with 4 bytes and the sender never has more than window writes
// unacknowledged. Returns MB/s (10^6 bytes) and the writes made.
double tcpStream(size_t writeSize, int ackEvery, int window, double seconds, int64_t* writes);

// A connected pair whose two threads keep the link alive the way a CDB session does: each
// sends a 4-byte ping one second after the last answer and answers the peer's pings.
IdleFigures tcpIdlePair(double seconds);

// pairs connections, each with its two threads: time to listen and connect them all, then
// every client does getsEach ping-pongs at once, then each client is stopped (a goodbye
// exchanged, its thread joined) and each server thread joined.
ScaleFigures tcpScale(int pairs, int getsEach, size_t requestSize, size_t responseSize);

}  // namespace e2e
