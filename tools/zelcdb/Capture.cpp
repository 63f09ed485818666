#include "Capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Failure.h"
#include "Library.h"

namespace zelcdb {

namespace {

const size_t kSegment = 1460;  // what an Ethernet link would carry per segment
const uint8_t kFin = 0x01, kSyn = 0x02, kPush = 0x08, kAck = 0x10;

void put16(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

void put32(uint8_t* at, uint32_t value) {
    put16(at, value >> 16);
    put16(at + 2, value);
}

uint32_t sum16(const uint8_t* bytes, size_t size, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < size; i += 2)
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    if (size % 2) sum += static_cast<uint32_t>(bytes[size - 1] << 8);
    return sum;
}

uint16_t fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

sockaddr_in socketAddress(uint32_t address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

void endpointOf(int socket, bool peer, uint32_t& address, uint16_t& port) {
    sockaddr_in result{};
    socklen_t size = sizeof result;
    int done = peer ? getpeername(socket, reinterpret_cast<sockaddr*>(&result), &size)
                    : getsockname(socket, reinterpret_cast<sockaddr*>(&result), &size);
    if (done != 0) result = sockaddr_in{};
    address = ntohl(result.sin_addr.s_addr);
    port = ntohs(result.sin_port);
}

int listenOn(uint32_t address, uint16_t port, const std::string& url) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int reuse = 1;
    sockaddr_in where = socketAddress(address, port);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0 || listen(fd, 8) != 0) {
        int error = errno;
        if (fd >= 0) ::close(fd);
        throw Failure(kExitConnection,
                      "cannot listen on " + url + " to capture: " + std::strerror(error));
    }
    return fd;
}

// Closing with a reset: the other side sees what it would have seen without the relay, a
// reset connection, which a client tries again where it would give up on an orderly close.
void resetAndClose(int socket) {
    linger abort{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(socket);
}

bool sendAll(int socket, const uint8_t* bytes, size_t size) {
    while (size > 0) {
        ssize_t sent = send(socket, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

}  // namespace

PcapWriter::PcapWriter(const std::string& path) : file_(std::fopen(path.c_str(), "wb")) {
    if (!file_) {
        throw Failure(kExitUsage,
                      "cannot write the capture file " + path + ": " + std::strerror(errno));
    }
    // Classic pcap header in the machine's byte order (readers tell by the magic number);
    // link type 101: each record is an IPv4 packet.
    const uint32_t magic = 0xA1B2C3D4, snapLength = 65535, linkType = 101;
    const uint16_t major = 2, minor = 4;
    const int32_t zone = 0;
    const uint32_t accuracy = 0;
    std::fwrite(&magic, 4, 1, file_);
    std::fwrite(&major, 2, 1, file_);
    std::fwrite(&minor, 2, 1, file_);
    std::fwrite(&zone, 4, 1, file_);
    std::fwrite(&accuracy, 4, 1, file_);
    std::fwrite(&snapLength, 4, 1, file_);
    std::fwrite(&linkType, 4, 1, file_);
    std::fflush(file_);
}

PcapWriter::~PcapWriter() {
    std::fclose(file_);
}

void PcapWriter::open(Flow& flow) {
    // Initial sequence numbers from the ports, so that two runs give comparable files.
    flow.next[0] = static_cast<uint32_t>(flow.port[0]) << 16;
    flow.next[1] = static_cast<uint32_t>(flow.port[1]) << 16;
    segment(flow, 0, kSyn, nullptr, 0);
    segment(flow, 1, kSyn | kAck, nullptr, 0);
    segment(flow, 0, kAck, nullptr, 0);
}

void PcapWriter::data(Flow& flow, int from, const uint8_t* bytes, size_t size) {
    for (size_t done = 0; done < size; done += kSegment) {
        size_t length = size - done < kSegment ? size - done : kSegment;
        segment(flow, from, kAck | (done + length == size ? kPush : 0), bytes + done, length);
    }
}

void PcapWriter::close(Flow& flow, int from) {
    segment(flow, from, kFin | kAck, nullptr, 0);
}

void PcapWriter::segment(Flow& flow, int from, uint8_t flags, const uint8_t* bytes, size_t size) {
    const int to = 1 - from;
    uint8_t header[40] = {};
    const size_t total = sizeof header + size;
    std::lock_guard<std::mutex> lock(mutex_);
    header[0] = 0x45;  // IPv4, 20-byte header
    put16(header + 2, static_cast<uint32_t>(total));
    put16(header + 4, ipId_++);
    header[6] = 0x40;  // don't fragment
    header[8] = 64;    // time to live
    header[9] = 6;     // TCP
    put32(header + 12, flow.address[from]);
    put32(header + 16, flow.address[to]);
    put16(header + 10, fold(sum16(header, 20)));

    uint8_t* tcp = header + 20;
    put16(tcp, flow.port[from]);
    put16(tcp + 2, flow.port[to]);
    put32(tcp + 4, flow.next[from]);
    // The handshake's first SYN acknowledges nothing.
    put32(tcp + 8, (flags & kAck) ? flow.next[to] : 0);
    tcp[12] = 0x50;  // 20-byte header
    tcp[13] = flags;
    put16(tcp + 14, 65535);
    // Checksum over the pseudo header (addresses, protocol, TCP length), header and data.
    uint32_t sum = sum16(header + 12, 8) + 6 + static_cast<uint32_t>(20 + size);
    sum = sum16(tcp, 20, sum);
    if (size > 0) sum = sum16(bytes, size, sum);
    put16(tcp + 16, fold(sum));
    flow.next[from] += static_cast<uint32_t>(size) + ((flags & (kSyn | kFin)) ? 1 : 0);

    timeval now{};
    gettimeofday(&now, nullptr);
    const uint32_t record[4] = {static_cast<uint32_t>(now.tv_sec),
                                static_cast<uint32_t>(now.tv_usec), static_cast<uint32_t>(total),
                                static_cast<uint32_t>(total)};
    std::fwrite(record, sizeof record, 1, file_);
    std::fwrite(header, sizeof header, 1, file_);
    if (size > 0) std::fwrite(bytes, size, 1, file_);
    std::fflush(file_);
}

CaptureRelay::CaptureRelay(const std::string& path, const std::string& url, bool peerConnects)
    : writer_(path), peerConnects_(peerConnects) {
    Address address = checkUrl(url);
    uint32_t host = 0;
    inet_pton(AF_INET, address.host.c_str(), &host);
    const uint32_t loopback = INADDR_LOOPBACK;
    if (peerConnects) {
        // The peer reaches the relay at the URL; the endpoint listens on a free loopback port.
        listener_ = listenOn(ntohl(host), address.port, url);
        int probe = listenOn(loopback, 0, "cdb://127.0.0.1:0");
        endpointOf(probe, false, targetAddress_, targetPort_);
        ::close(probe);
        endpointUrl_ = "cdb://127.0.0.1:" + std::to_string(targetPort_);
    } else {
        listener_ = listenOn(loopback, 0, "cdb://127.0.0.1:0");
        uint32_t ignored = 0;
        uint16_t port = 0;
        endpointOf(listener_, false, ignored, port);
        endpointUrl_ = "cdb://127.0.0.1:" + std::to_string(port);
        targetAddress_ = ntohl(host);
        targetPort_ = address.port;
    }
    if (pipe2(wake_, O_CLOEXEC) != 0) {
        ::close(listener_);
        throw Failure(kExitConnection, std::string("cannot capture: ") + std::strerror(errno));
    }
    thread_ = std::thread(&CaptureRelay::run, this);
}

CaptureRelay::~CaptureRelay() {
    stopping_ = true;
    char byte = 0;
    ssize_t ignored = write(wake_[1], &byte, 1);
    (void)ignored;
    thread_.join();
    ::close(listener_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void CaptureRelay::run() {
    Clock::time_point deadline{};
    for (;;) {
        if (stopping_) {
            if (deadline == Clock::time_point{}) deadline = Clock::now() + std::chrono::seconds(1);
            if (links_.empty() || Clock::now() >= deadline) break;
        }
        std::vector<pollfd> fds = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        std::vector<std::pair<Link*, int>> owners;
        for (auto& link : links_) {
            for (int side = 0; side < 2; ++side) {
                if (!link->open[side]) continue;
                fds.push_back({link->socket[side], POLLIN, 0});
                owners.emplace_back(link.get(), side);
            }
        }
        int wait = -1;
        if (stopping_) {
            wait = 50;
        } else if (refusals_ > 0) {
            auto due = std::chrono::ceil<std::chrono::milliseconds>(retryAt_ - Clock::now());
            wait = static_cast<int>(std::max<int64_t>(due.count(), 0));
        }
        if (poll(fds.data(), fds.size(), wait) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents) {
            char drained[16];
            ssize_t ignored = read(wake_[0], drained, sizeof drained);
            (void)ignored;
        }
        if (fds[1].revents && !stopping_) accept();
        for (size_t i = 0; i < owners.size(); ++i) {
            if (fds[i + 2].revents) forward(*owners[i].first, owners[i].second);
        }
        for (size_t i = 0; i < links_.size();) {
            Link& link = *links_[i];
            if (link.open[0] || link.open[1]) {
                ++i;
                continue;
            }
            ::close(link.socket[0]);
            ::close(link.socket[1]);
            links_.erase(links_.begin() + static_cast<long>(i));
        }
        if (!stopping_) joinWaiting();
    }
    for (int socket : waiting_) resetAndClose(socket);
    waiting_.clear();
    // Whatever is still open ends here, as far as the capture goes.
    for (auto& link : links_) {
        for (int side = 0; side < 2; ++side) {
            if (link->open[side]) writer_.close(link->flow, side);
            ::close(link->socket[side]);
        }
    }
    links_.clear();
}

void CaptureRelay::accept() {
    int accepted = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted >= 0) waiting_.push_back(accepted);
}

// A server endpoint accepts one connection and then closes its listener, which resets any
// other connection already queued on it. So when the peer connects, the next connection
// goes to the endpoint only once the previous one has been answered (the endpoint sends
// first, so an answer means it accepted) or has ended; the peers that came meanwhile wait
// here, and their bytes wait in their sockets.
void CaptureRelay::joinWaiting() {
    while (!waiting_.empty()) {
        if (peerConnects_) {
            for (const auto& link : links_) {
                if (!link->answered && link->open[1]) return;
            }
        }
        if (refusals_ > 0 && Clock::now() < retryAt_) return;
        // The endpoint's listener may be a moment late (serve opens the next one after each
        // peer): a refused connection to it is tried again every 20 ms for up to two seconds,
        // while the other links go on. A refused connection to the peer is not; the command
        // sees its connection end and tries again.
        int accepted = waiting_.front();
        sockaddr_in target = socketAddress(targetAddress_, targetPort_);
        int connected = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connected >= 0 &&
            connect(connected, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
            int error = errno;
            ::close(connected);
            connected = -1;
            if (peerConnects_ && error == ECONNREFUSED && ++refusals_ < 100) {
                retryAt_ = Clock::now() + std::chrono::milliseconds(20);
                return;
            }
        }
        waiting_.pop_front();
        refusals_ = 0;
        if (connected < 0) {
            resetAndClose(accepted);
            continue;
        }
        auto link = std::make_unique<Link>();
        link->socket[0] = accepted;
        link->socket[1] = connected;
        link->open[0] = link->open[1] = true;
        // The capture shows the connection that faces the peer, with its real addresses.
        if (peerConnects_) {
            endpointOf(accepted, true, link->flow.address[0], link->flow.port[0]);
            endpointOf(accepted, false, link->flow.address[1], link->flow.port[1]);
        } else {
            endpointOf(connected, false, link->flow.address[0], link->flow.port[0]);
            endpointOf(connected, true, link->flow.address[1], link->flow.port[1]);
        }
        writer_.open(link->flow);
        links_.push_back(std::move(link));
    }
}

void CaptureRelay::forward(Link& link, int from) {
    uint8_t buffer[65536];
    ssize_t received = recv(link.socket[from], buffer, sizeof buffer, 0);
    if (received < 0 && errno == EINTR) return;
    if (received > 0) {
        if (from == 1) link.answered = true;
        writer_.data(link.flow, from, buffer, static_cast<size_t>(received));
        if (sendAll(link.socket[1 - from], buffer, static_cast<size_t>(received))) return;
    }
    if (received == 0) {
        // One side finished sending: pass the half close on, the other may still talk.
        writer_.close(link.flow, from);
        link.open[from] = false;
        shutdown(link.socket[1 - from], SHUT_WR);
        return;
    }
    // A reset or a failed send ends both directions, and is passed on as a reset.
    for (int side = 0; side < 2; ++side) {
        if (link.open[side]) writer_.close(link.flow, side);
        link.open[side] = false;
    }
    linger abort{1, 0};
    setsockopt(link.socket[1 - from], SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

}  // namespace zelcdb
