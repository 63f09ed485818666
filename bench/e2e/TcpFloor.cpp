#include "TcpFloor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "Measure.h"

namespace e2e {

namespace {

void setNoDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// A socket listening on 127.0.0.1 with a port the kernel chose; *port receives it.
int listenLoopback(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket() failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 1) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(fd);
        throw std::runtime_error("listen on loopback failed");
    }
    *port = ntohs(address.sin_port);
    return fd;
}

int connectLoopback(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket() failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        throw std::runtime_error("connect to loopback failed");
    }
    setNoDelay(fd);
    return fd;
}

int acceptOne(int listening) {
    int fd = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) throw std::runtime_error("accept() failed");
    setNoDelay(fd);
    return fd;
}

// Both ends of one loopback connection.
void connectedPair(int* a, int* b) {
    int port = 0;
    int listening = listenLoopback(&port);
    *a = connectLoopback(port);
    *b = acceptOne(listening);
    close(listening);
}

bool writeAll(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t sent = send(fd, p, length, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        p += sent;
        length -= static_cast<size_t>(sent);
    }
    return true;
}

bool readAll(int fd, void* data, size_t length) {
    char* p = static_cast<char*>(data);
    while (length > 0) {
        ssize_t got = recv(fd, p, length, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        p += got;
        length -= static_cast<size_t>(got);
    }
    return true;
}

// Answers every request of requestSize bytes with responseSize bytes until the peer
// closes; a request starting with 'B' (goodbye) is answered in kind and ends the loop.
void echoLoop(int fd, size_t requestSize, size_t responseSize) {
    std::vector<char> request(requestSize), response(responseSize, 'R');
    while (readAll(fd, request.data(), request.size())) {
        if (request[0] == 'B') {
            std::vector<char> bye(requestSize, 'B');
            writeAll(fd, bye.data(), bye.size());
            char rest;
            while (recv(fd, &rest, 1, 0) > 0) {
            }
            return;
        }
        if (!writeAll(fd, response.data(), response.size())) return;
    }
}

}  // namespace

PingPongFigures tcpPingPong(size_t requestSize, size_t responseSize, int warmup, int count) {
    int client, server;
    connectedPair(&client, &server);
    std::thread echo(echoLoop, server, requestSize, responseSize);
    std::vector<char> request(requestSize, 'G'), response(responseSize);
    PingPongFigures figures;
    figures.roundTripsNs.reserve(static_cast<size_t>(count));
    for (int i = 0; i < warmup; ++i) {
        writeAll(client, request.data(), request.size());
        readAll(client, response.data(), response.size());
    }
    int64_t start = nowNs();
    for (int i = 0; i < count; ++i) {
        int64_t sent = nowNs();
        if (!writeAll(client, request.data(), request.size()) ||
            !readAll(client, response.data(), response.size())) {
            break;
        }
        figures.roundTripsNs.push_back(nowNs() - sent);
    }
    figures.elapsedNs = nowNs() - start;
    figures.count = static_cast<int64_t>(figures.roundTripsNs.size());
    shutdown(client, SHUT_WR);
    echo.join();
    close(client);
    close(server);
    return figures;
}

double tcpStream(size_t writeSize, int ackEvery, int window, double seconds, int64_t* writes) {
    int sender, receiver;
    connectedPair(&sender, &receiver);
    std::thread reader([receiver, writeSize, ackEvery] {
        std::vector<char> buffer(256 * 1024);
        const uint64_t ackBytes =
            static_cast<uint64_t>(writeSize) * static_cast<uint64_t>(ackEvery);
        uint64_t total = 0;
        uint32_t acks = 0;
        for (;;) {
            ssize_t got = recv(receiver, buffer.data(), buffer.size(), 0);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            total += static_cast<uint64_t>(got);
            while (total >= (acks + 1ull) * ackBytes) {
                ++acks;
                uint32_t count = acks * static_cast<uint32_t>(ackEvery);
                writeAll(receiver, &count, sizeof count);
            }
        }
    });
    std::vector<char> message(writeSize, 'S');
    int64_t sent = 0, acked = 0;
    char ackBuffer[4096];
    size_t ackBytes = 0;
    auto readAcks = [&] {
        ssize_t got = recv(sender, ackBuffer, sizeof ackBuffer, 0);
        if (got <= 0) return false;
        ackBytes += static_cast<size_t>(got);
        acked = static_cast<int64_t>(ackBytes / 4) * ackEvery;
        return true;
    };
    int64_t start = nowNs();
    const int64_t deadline = start + static_cast<int64_t>(seconds * 1e9);
    for (;;) {
        while (sent - acked >= window) {
            if (!readAcks()) break;
        }
        if (sent % ackEvery == 0 && nowNs() >= deadline) break;
        if (!writeAll(sender, message.data(), message.size())) break;
        ++sent;
    }
    while (acked < sent && readAcks()) {
    }
    int64_t elapsed = nowNs() - start;
    shutdown(sender, SHUT_WR);
    reader.join();
    close(sender);
    close(receiver);
    *writes = sent;
    return static_cast<double>(sent) * static_cast<double>(writeSize) / 1e6 /
           (static_cast<double>(elapsed) / 1e9);
}

namespace {

// One end of the keep-alive pair: ping one second after the last answer, answer pings,
// until the stop descriptor becomes readable.
void keepAliveLoop(int fd, int stopFd) {
    int64_t nextPing = nowNs() + 1000000000;
    bool awaitingAnswer = false;
    for (;;) {
        int timeoutMs = -1;
        if (!awaitingAnswer) {
            int64_t left = nextPing - nowNs();
            timeoutMs = left <= 0 ? 0 : static_cast<int>((left + 999999) / 1000000);
        }
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        int ready = poll(fds, 2, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (fds[1].revents) return;
        if (fds[0].revents & POLLIN) {
            char message[4];
            if (!readAll(fd, message, sizeof message)) return;
            if (message[0] == 'P') {
                const char answer[4] = {'A', 0, 0, 0};
                writeAll(fd, answer, sizeof answer);
            } else {
                awaitingAnswer = false;
                nextPing = nowNs() + 1000000000;
            }
        }
        if (!awaitingAnswer && nowNs() >= nextPing) {
            const char ping[4] = {'P', 0, 0, 0};
            writeAll(fd, ping, sizeof ping);
            awaitingAnswer = true;
        }
    }
}

}  // namespace

IdleFigures tcpIdlePair(double seconds) {
    int a, b, stop[2];
    connectedPair(&a, &b);
    if (pipe(stop) != 0) throw std::runtime_error("pipe() failed");
    std::thread first(keepAliveLoop, a, stop[0]);
    std::thread second(keepAliveLoop, b, stop[0]);
    // The same settling time as the endpoint pair gets before its window opens.
    usleep(200000);
    Usage before = Usage::now();
    int64_t start = nowNs();
    usleep(static_cast<useconds_t>(seconds * 1e6));
    Usage after = Usage::now();
    IdleFigures figures;
    figures.seconds = static_cast<double>(nowNs() - start) / 1e9;
    figures.cpuSeconds = after.cpuSeconds - before.cpuSeconds;
    // The sleeping caller accounts for one switch of its own.
    figures.wakeupsPerSecond =
        static_cast<double>(after.voluntarySwitches - before.voluntarySwitches - 1) /
        figures.seconds;
    close(stop[1]);
    first.join();
    second.join();
    close(stop[0]);
    close(a);
    close(b);
    return figures;
}

ScaleFigures tcpScale(int pairs, int getsEach, size_t requestSize, size_t responseSize) {
    struct Pair {
        int port = 0;
        int stop[2] = {-1, -1};
        std::thread server, client;
    };
    std::vector<Pair> all(static_cast<size_t>(pairs));
    Counter listening, connected, done;
    std::atomic<bool> go{false};
    Semaphore startGets;
    ScaleFigures figures;

    int64_t start = nowNs();
    for (Pair& pair : all) {
        if (pipe(pair.stop) != 0) throw std::runtime_error("pipe() failed");
        // Like a server endpoint, the thread itself listens, then accepts its one peer.
        pair.server = std::thread([&] {
            int listener = listenLoopback(&pair.port);
            listening.add();
            int fd = acceptOne(listener);
            close(listener);
            connected.add();
            echoLoop(fd, requestSize, responseSize);
            close(fd);
        });
    }
    listening.waitAtLeast(pairs, 60);
    for (Pair& pair : all) {
        pair.client = std::thread([&, port = pair.port, stopFd = pair.stop[0]] {
            int fd = connectLoopback(port);
            connected.add();
            while (!go.load()) startGets.wait();
            std::vector<char> request(requestSize, 'G'), response(responseSize);
            for (int i = 0; i < getsEach; ++i) {
                writeAll(fd, request.data(), request.size());
                readAll(fd, response.data(), response.size());
            }
            done.add();
            char byte;
            while (read(stopFd, &byte, 1) < 0 && errno == EINTR) {
            }
            std::vector<char> bye(requestSize, 'B');
            writeAll(fd, bye.data(), bye.size());
            readAll(fd, bye.data(), bye.size());
            close(fd);
        });
    }
    bool allConnected = connected.waitAtLeast(2 * pairs, 60);
    figures.connectMs = static_cast<double>(nowNs() - start) / 1e6;

    int64_t getsStart = nowNs();
    go.store(true);
    for (int i = 0; i < pairs; ++i) startGets.post();
    bool allDone = done.waitAtLeast(pairs, 120);
    figures.getsPerSecond =
        static_cast<double>(pairs) * getsEach / (static_cast<double>(nowNs() - getsStart) / 1e9);

    for (Pair& pair : all) {
        int64_t stopStart = nowNs();
        char byte = 1;
        if (write(pair.stop[1], &byte, 1) != 1) throw std::runtime_error("write() failed");
        pair.client.join();
        double clientMs = static_cast<double>(nowNs() - stopStart) / 1e6;
        stopStart = nowNs();
        pair.server.join();
        double serverMs = static_cast<double>(nowNs() - stopStart) / 1e6;
        figures.slowestStopMs = std::max({figures.slowestStopMs, clientMs, serverMs});
        close(pair.stop[0]);
        close(pair.stop[1]);
    }
    figures.ok = allConnected && allDone;
    return figures;
}

}  // namespace e2e
