// `--capture FILE`: the bytes a command exchanges with its peer, recorded as a pcap file
// with IPv4 and TCP headers, so that Wireshark reads the session as the peer saw it.
// The library owns its sockets, so the tool puts a loopback relay between its endpoint and
// the peer and records what passes through; no root rights and no capture tool are needed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zelcdb {

// One TCP connection as the pcap file shows it; the client is the side that connected.
struct Flow {
    uint32_t address[2] = {};  // [0] client, [1] server, IPv4 in host order
    uint16_t port[2] = {};
    uint32_t next[2] = {};  // next sequence number each side sends
};

// Writes raw-IPv4 pcap records. Each record is flushed, so the file stays readable when the
// process ends abruptly. Thread-safe.
class PcapWriter {
public:
    // Throws Failure(kExitUsage) when the file cannot be created.
    explicit PcapWriter(const std::string& path);
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    void open(Flow& flow);  // the three-way handshake
    // Bytes sent by side `from` (0 client, 1 server), cut into segments of at most 1460.
    void data(Flow& flow, int from, const uint8_t* bytes, size_t size);
    void close(Flow& flow, int from);  // FIN from that side

private:
    void segment(Flow& flow, int from, uint8_t flags, const uint8_t* bytes, size_t size);

    std::mutex mutex_;  // guards file_ and ipId_
    FILE* file_ = nullptr;
    uint16_t ipId_ = 1;
};

// Listens on one address and joins every connection it accepts to a new connection to the
// target, passing bytes both ways and recording them. The peer is on the accepted side when
// the command listens, on the connected side when the command connects.
class CaptureRelay {
public:
    // `url` is the command's URL; `peerConnects` says whether the peer connects to it (serve,
    // --server) or the command does. Throws Failure as zelcdb reports it.
    CaptureRelay(const std::string& path, const std::string& url, bool peerConnects);
    // Lets the last bytes and closes through (at most a second), then stops.
    ~CaptureRelay();
    CaptureRelay(const CaptureRelay&) = delete;
    CaptureRelay& operator=(const CaptureRelay&) = delete;

    // The URL the command's endpoint uses instead of its own.
    const std::string& endpointUrl() const { return endpointUrl_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Link {
        int socket[2];          // [0] accepted (the connecting side), [1] connected
        bool open[2];           // that side still sends
        bool answered = false;  // the connected side has sent something
        Flow flow;
    };
    void run();
    void accept();
    void joinWaiting();
    void forward(Link& link, int from);

    PcapWriter writer_;
    bool peerConnects_;
    std::string endpointUrl_;
    uint32_t targetAddress_ = 0;  // host order
    uint16_t targetPort_ = 0;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::vector<std::unique_ptr<Link>> links_;  // relay thread only
    std::deque<int> waiting_;  // accepted, not yet joined to the endpoint; relay thread only
    // The endpoint refused the connection at the front of waiting_ so many times; the next
    // try is due at retryAt_. Relay thread only.
    int refusals_ = 0;
    Clock::time_point retryAt_{};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace zelcdb
