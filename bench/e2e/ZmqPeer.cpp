#include "ZmqPeer.h"

#ifdef E2E_HAVE_ZMQ

#include <zmq.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "Measure.h"

namespace e2e {

namespace {

// A socket bound to a port of 127.0.0.1 that the kernel chose; its endpoint for connect().
std::string bindLoopback(void* socket) {
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0) return "";
    char endpoint[256];
    size_t length = sizeof endpoint;
    if (zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &length) != 0) return "";
    return endpoint;
}

void noLinger(void* socket) {
    int zero = 0;
    zmq_setsockopt(socket, ZMQ_LINGER, &zero, sizeof zero);
}

}  // namespace

struct ZmqPeer::State {
    void* context = nullptr;
    void* request = nullptr;    // REQ, the measuring thread's
    void* publisher = nullptr;  // PUB, the measuring thread's
    void* acks = nullptr;       // PULL, the measuring thread's
    size_t requestSize = 0;
    std::atomic<size_t> responseSize{0};
    std::thread replier, subscriber;
    bool ok = false;
    int64_t published = 0, acknowledged = 0;  // updates, over every stream() so far
};

bool ZmqPeer::available() {
    return true;
}

ZmqPeer::ZmqPeer(size_t requestSize, size_t responseSize) : state_(new State) {
    State& s = *state_;
    s.requestSize = requestSize;
    s.responseSize = responseSize;
    s.context = zmq_ctx_new();
    if (!s.context) return;
    // The answering side runs on its own threads with sockets of its own, as a peer process
    // would; each binds and reports its endpoint before the measuring side connects.
    void* reply = zmq_socket(s.context, ZMQ_REP);
    void* sub = zmq_socket(s.context, ZMQ_SUB);
    void* ackPush = zmq_socket(s.context, ZMQ_PUSH);
    s.request = zmq_socket(s.context, ZMQ_REQ);
    s.publisher = zmq_socket(s.context, ZMQ_PUB);
    s.acks = zmq_socket(s.context, ZMQ_PULL);
    for (void* socket : {reply, sub, ackPush, s.request, s.publisher, s.acks}) noLinger(socket);
    std::string replyAt = bindLoopback(reply);
    std::string publishAt = bindLoopback(s.publisher);
    std::string acksAt = bindLoopback(s.acks);
    if (replyAt.empty() || publishAt.empty() || acksAt.empty() ||
        zmq_connect(s.request, replyAt.c_str()) != 0 || zmq_connect(sub, publishAt.c_str()) != 0 ||
        zmq_setsockopt(sub, ZMQ_SUBSCRIBE, "", 0) != 0 ||
        zmq_connect(ackPush, acksAt.c_str()) != 0) {
        for (void* socket : {reply, sub, ackPush}) zmq_close(socket);
        return;
    }
    s.replier = std::thread([&s, reply, requestSize] {
        std::vector<char> request(requestSize + 1), response(64 * 1024, 'R');
        while (zmq_recv(reply, request.data(), request.size(), 0) >= 0) {
            if (zmq_send(reply, response.data(), s.responseSize.load(), 0) < 0) break;
        }
        zmq_close(reply);
    });
    s.subscriber = std::thread([sub, ackPush] {
        std::vector<char> update(64 * 1024);
        uint32_t received = 0;
        bool greeted = false;
        for (;;) {
            int got = zmq_recv(sub, update.data(), update.size(), 0);
            if (got < 0) break;
            // One-byte probes only show that the subscription has reached the publisher;
            // the first is acknowledged (with 0), the rest ignored.
            if (got == 1) {
                if (!greeted) zmq_send(ackPush, &received, sizeof received, 0);
                greeted = true;
                continue;
            }
            if (++received % 64 == 0) zmq_send(ackPush, &received, sizeof received, 0);
        }
        zmq_close(sub);
        zmq_close(ackPush);
    });
    // A subscriber hears only what is published after its subscription arrived: probe
    // until it answers, or give up after five seconds.
    const char probe = 'P';
    zmq_pollitem_t item = {s.acks, 0, ZMQ_POLLIN, 0};
    int64_t deadline = nowNs() + 5000000000;
    while (nowNs() < deadline) {
        zmq_send(s.publisher, &probe, 1, 0);
        if (zmq_poll(&item, 1, 1) == 1) {
            uint32_t zero;
            s.ok = zmq_recv(s.acks, &zero, sizeof zero, 0) == sizeof zero;
            break;
        }
    }
}

ZmqPeer::~ZmqPeer() {
    State& s = *state_;
    if (!s.context) return;
    for (void* socket : {s.request, s.publisher, s.acks}) zmq_close(socket);
    // Wakes the two answering threads out of their receives (ETERM); they close their own
    // sockets, which lets the context end.
    zmq_ctx_shutdown(s.context);
    if (s.replier.joinable()) s.replier.join();
    if (s.subscriber.joinable()) s.subscriber.join();
    zmq_ctx_term(s.context);
}

bool ZmqPeer::ok() const {
    return state_->ok;
}

void ZmqPeer::setResponseSize(size_t size) {
    state_->responseSize = size;
}

std::vector<int64_t> ZmqPeer::roundTrips(int warmup, int count) {
    State& s = *state_;
    std::vector<int64_t> samples;
    if (!s.ok) return samples;
    samples.reserve(static_cast<size_t>(count));
    std::vector<char> request(s.requestSize, 'G'), response(64 * 1024);
    for (int i = 0; i < warmup + count; ++i) {
        int64_t sent = nowNs();
        if (zmq_send(s.request, request.data(), request.size(), 0) < 0 ||
            zmq_recv(s.request, response.data(), response.size(), 0) < 0) {
            return {};
        }
        if (i >= warmup) samples.push_back(nowNs() - sent);
    }
    return samples;
}

double ZmqPeer::stream(size_t writeSize, int ackEvery, int window, double seconds,
                       int64_t* writes) {
    State& s = *state_;
    if (!s.ok) return 0;
    (void)ackEvery;  // the subscriber acknowledges every 64, as the SDK's stream sink does
    std::vector<char> update(writeSize, 'S');
    const int64_t base = s.published;
    auto readAck = [&] {
        uint32_t count;
        if (zmq_recv(s.acks, &count, sizeof count, 0) != sizeof count) return false;
        s.acknowledged = count;
        return true;
    };
    int64_t start = nowNs();
    const int64_t deadline = start + static_cast<int64_t>(seconds * 1e9);
    for (;;) {
        while (s.published - s.acknowledged >= window) {
            if (!readAck()) return 0;
        }
        if ((s.published - base) % 64 == 0 && nowNs() >= deadline) break;
        if (zmq_send(s.publisher, update.data(), update.size(), 0) < 0) return 0;
        ++s.published;
    }
    while (s.acknowledged < s.published) {
        if (!readAck()) return 0;
    }
    int64_t elapsed = nowNs() - start;
    *writes = s.published - base;
    return static_cast<double>(*writes) * static_cast<double>(writeSize) / 1e6 /
           (static_cast<double>(elapsed) / 1e9);
}

}  // namespace e2e

#else  // no ZeroMQ in this build: the rows are left out

namespace e2e {

struct ZmqPeer::State {};

bool ZmqPeer::available() {
    return false;
}
ZmqPeer::ZmqPeer(size_t, size_t) : state_(new State) {}
ZmqPeer::~ZmqPeer() = default;
bool ZmqPeer::ok() const {
    return false;
}
void ZmqPeer::setResponseSize(size_t) {}
std::vector<int64_t> ZmqPeer::roundTrips(int, int) {
    return {};
}
double ZmqPeer::stream(size_t, int, int, double, int64_t*) {
    return 0;
}

}  // namespace e2e

#endif
