#include "SdkPair.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace e2e {

namespace {

const char kSbpServiceName[] = "bench.sbp";
const char kStreamServiceName[] = "bench.stream";

std::atomic<bool> gVerbose{false};

// A port nobody in this process was given yet and that the kernel just handed out as free.
int freePort() {
    static std::mutex mutex;
    static std::set<int> given;
    std::lock_guard<std::mutex> lock(mutex);
    for (;;) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        int port = 0;
        if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            port = ntohs(address.sin_port);
        }
        if (fd >= 0) close(fd);
        if (port != 0 && given.insert(port).second) return port;
    }
}

}  // namespace

std::vector<int> listeningPorts() {
    std::vector<int> ports;
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
        // "  sl  local_address rem_address   st ...": local is HEXIP:HEXPORT, st 0A = LISTEN.
        std::istringstream fields(line);
        std::string slot, local, remote, state;
        fields >> slot >> local >> remote >> state;
        if (state != "0A") continue;
        size_t colon = local.find(':');
        if (colon == std::string::npos) continue;
        ports.push_back(static_cast<int>(std::stoul(local.substr(colon + 1), nullptr, 16)));
    }
    return ports;
}

void SdkPair::setVerbose(bool verbose) {
    gVerbose.store(verbose);
}

SdkPair::SdkPair(const ZELCDBSDK& sdk, uint32_t valueSize, bool withStream, Counter* progress)
    : sdk_(sdk),
      withStream_(withStream),
      progress_(progress ? *progress : ownProgress_),
      port_(freePort()),
      uid_(sdk.hashName("vehicle.speed", ZELSBP_NUL_TERMINATED)),
      value_(64 * 1024, 0x5A),
      streamPayload_(kStreamPayload, 0xA5),
      valueSize_(valueSize) {}

SdkPair::~SdkPair() {
    stopping_.store(true);
    if (client_) sdk_.endpointDestroy(client_);
    destroyServer();
}

void SdkPair::noteProblem(const std::string& text) {
    std::lock_guard<std::mutex> lock(problemMutex_);
    if (problems_.size() < 2000) problems_ += (problems_.empty() ? "" : "; ") + text;
}

std::string SdkPair::problems() const {
    std::lock_guard<std::mutex> lock(problemMutex_);
    return problems_;
}

template <typename Predicate>
bool SdkPair::waitUntil(Predicate predicate, double seconds) {
    int64_t deadline = nowNs() + static_cast<int64_t>(seconds * 1e9);
    for (;;) {
        int64_t seen = progress_.get();
        if (predicate()) return true;
        int64_t left = deadline - nowNs();
        if (left <= 0) return false;
        progress_.waitAtLeast(seen + 1, std::min(0.05, static_cast<double>(left) / 1e9));
    }
}

// ---- Setting up ---------------------------------------------------------------------------

bool SdkPair::createServer() {
    char url[64];
    std::snprintf(url, sizeof url, "cdb://127.0.0.1:%d", port_);
    ZELCDBEndpointParameters parameters{url, ZELCDBEndpointModeServer, this, 1, 1};
    ZELCDBEndpointCallbacks callbacks{};
    if (gVerbose.load()) callbacks.logCallback = &SdkPair::onLog;
    callbacks.statusCallback = &SdkPair::onStatus;
    if (sdk_.endpointCreate(&server_, &parameters, sizeof parameters, &callbacks,
                            sizeof callbacks) != ZELCDBErrorNone) {
        return false;
    }
    ZELCDBService sbp{0, kSbpServiceName, 1, 0, 0, 0};
    ZELSBPSourceCallbacks source{};
    source.serviceStartCallback = &SdkPair::onSourceStart;
    source.getCallback = &SdkPair::onGet;
    if (sdk_.sourceCreate(server_, this, &sbp, sizeof sbp, &source, sizeof source) !=
        ZELCDBErrorNone) {
        return false;
    }
    if (withStream_) {
        ZELCDBService stream{0, kStreamServiceName, 1, 0, 0, 0};
        ZELCDBSourceServiceCallbacks plain{};
        plain.startCallback = &SdkPair::onStreamStart;
        plain.payloadCallback = &SdkPair::onStreamPayload;
        if (sdk_.endpointAddSourceService(server_, this, &stream, sizeof stream, &plain,
                                          sizeof plain) != ZELCDBErrorNone) {
            return false;
        }
    }
    return true;
}

void SdkPair::destroyServer() {
    if (server_) sdk_.endpointDestroy(server_);
    server_ = nullptr;
}

bool SdkPair::startServer() {
    if (!server_ && !createServer()) return false;
    return sdk_.endpointStart(server_) == ZELCDBErrorNone;
}

bool SdkPair::restartServer() {
    destroyServer();
    port_ = freePort();
    serverEnded_.store(0);
    return startServer();
}

bool SdkPair::startClient() {
    if (!client_) {
        char url[64];
        std::snprintf(url, sizeof url, "cdb://127.0.0.1:%d", port_);
        ZELCDBEndpointParameters parameters{url, ZELCDBEndpointModeClient, this, 1, 1};
        ZELCDBEndpointCallbacks callbacks{};
        if (gVerbose.load()) callbacks.logCallback = &SdkPair::onLog;
        callbacks.statusCallback = &SdkPair::onStatus;
        callbacks.peerServicesAddedCallback = &SdkPair::onPeerServicesAdded;
        if (sdk_.endpointCreate(&client_, &parameters, sizeof parameters, &callbacks,
                                sizeof callbacks) != ZELCDBErrorNone) {
            return false;
        }
    }
    return sdk_.endpointStart(client_) == ZELCDBErrorNone;
}

bool SdkPair::restartClient() {
    clientEnded_.store(0);
    return sdk_.endpointStart(client_) == ZELCDBErrorNone;
}

bool SdkPair::ready() const {
    return sinkReady_.load() && (!withStream_ || streamReady_.load());
}

bool SdkPair::connect(double seconds) {
    int64_t deadline = nowNs() + static_cast<int64_t>(seconds * 1e9);
    auto left = [&] { return static_cast<double>(deadline - nowNs()) / 1e9; };
    if (!startServer()) return false;
    while (true) {
        std::vector<int> ports = listeningPorts();
        if (std::find(ports.begin(), ports.end(), port_) != ports.end()) break;
        if (serverFailed() && !restartServer()) return false;
        if (left() <= 0) return false;
        usleep(1000);
    }
    if (!startClient()) return false;
    return waitUntil(
        [&] {
            if (clientFailed()) restartClient();
            return ready();
        },
        left());
}

// ---- Measurements -------------------------------------------------------------------------

int64_t SdkPair::timedGet() {
    int64_t start = nowNs();
    if (sdk_.sinkSendGet(client_, sbpServiceId_.load(), nullptr, uid_) != ZELCDBErrorNone)
        return -1;
    if (!answered_.waitFor(5.0)) return -1;
    return nowNs() - start;
}

void SdkPair::startClosedLoop(int64_t count) {
    closedLoopDone_.store(false);
    closedLoopLeft_.store(count);
    sdk_.sinkSendGet(client_, sbpServiceId_.load(), nullptr, uid_);
}

int64_t SdkPair::closedLoop(int64_t count, double seconds) {
    int64_t start = nowNs();
    startClosedLoop(count);
    if (!waitUntil([&] { return closedLoopDone_.load(); }, seconds)) return -1;
    return nowNs() - start;
}

double SdkPair::stream(double seconds, int64_t minimum, int window, int64_t* payloads) {
    const uint16_t id = streamServiceId_.load();
    const int64_t base = streamAcked_.get();
    int64_t sent = 0;
    int64_t start = nowNs();
    const int64_t deadline = start + static_cast<int64_t>(seconds * 1e9);
    for (;;) {
        if (sent - (streamAcked_.get() - base) >= window &&
            !streamAcked_.waitAtLeast(base + sent - window + 1, 10.0)) {
            noteProblem("stream stalled waiting for an acknowledgement");
            return 0;
        }
        if (sent % kAckEvery == 0 && sent >= minimum && nowNs() >= deadline) break;
        if (sdk_.endpointSendServicePayload(client_, id, streamPayload_.data(), kStreamPayload) !=
            ZELCDBErrorNone) {
            noteProblem("endpointSendServicePayload refused");
            return 0;
        }
        ++sent;
    }
    if (!streamAcked_.waitAtLeast(base + sent, 10.0)) {
        noteProblem("stream's last acknowledgement missing");
        return 0;
    }
    int64_t elapsed = nowNs() - start;
    *payloads = sent;
    return static_cast<double>(sent) * kStreamPayload / 1e6 / (static_cast<double>(elapsed) / 1e9);
}

double SdkPair::stopClient() {
    stopping_.store(true);
    int64_t start = nowNs();
    sdk_.endpointStop(client_);
    return static_cast<double>(nowNs() - start) / 1e6;
}

double SdkPair::stopServer() {
    stopping_.store(true);
    int64_t start = nowNs();
    sdk_.endpointStop(server_);
    return static_cast<double>(nowNs() - start) / 1e6;
}

// ---- Callbacks (endpoint threads) ---------------------------------------------------------

void SdkPair::onLog(ZELCDBEndpoint* endpoint, void* context, const char* category, int32_t level,
                    const char* text) {
    if (level > ZELCDBLogInfo) return;
    auto* pair = static_cast<SdkPair*>(context);
    std::fprintf(stderr, "[%s :%d] %s: %s\n", endpoint == pair->client_ ? "client" : "server",
                 pair->port_, category, text);
}

void SdkPair::onStatus(ZELCDBEndpoint* endpoint, void* context, int32_t status, ZELCDBError error) {
    auto* pair = static_cast<SdkPair*>(context);
    bool client = endpoint == pair->client_;
    if (status == ZELCDBStatusConnected) {
        (client ? pair->clientConnected_ : pair->serverConnected_).store(true);
    } else if (status == ZELCDBStatusStopping) {
        ++(client ? pair->clientEnded_ : pair->serverEnded_);
        bool wasConnected = (client ? pair->clientConnected_ : pair->serverConnected_).load();
        if (wasConnected && !pair->stopping_.load()) {
            pair->noteProblem(std::string(client ? "client" : "server") + " ended with error " +
                              std::to_string(error));
        }
    }
    pair->progress_.add();
}

void SdkPair::onPeerServicesAdded(ZELCDBEndpoint* endpoint, void* context, uint8_t, uint8_t,
                                  const ZELCDBService* services, uint32_t serviceSize,
                                  uint32_t serviceCount) {
    auto* pair = static_cast<SdkPair*>(context);
    for (uint32_t i = 0; i < serviceCount; ++i) {
        const auto* service = reinterpret_cast<const ZELCDBService*>(
            reinterpret_cast<const char*>(services) + static_cast<size_t>(i) * serviceSize);
        if (std::strcmp(service->name, kSbpServiceName) == 0) {
            pair->sbpServiceId_.store(service->serviceId);
            ZELSBPSinkCallbacks sink{};
            sink.serviceStatusCallback = &SdkPair::onSinkStatus;
            sink.dataCallback = &SdkPair::onData;
            sink.errorCallback = &SdkPair::onSinkError;
            pair->sdk_.sinkCreate(endpoint, pair, service->serviceId, &sink, sizeof sink);
            pair->sdk_.endpointSendStartService(endpoint, service->serviceId);
        } else if (std::strcmp(service->name, kStreamServiceName) == 0) {
            pair->streamServiceId_.store(service->serviceId);
            ZELCDBSinkCallbacks sink{};
            sink.payloadCallback = &SdkPair::onAck;
            sink.responseCallback = &SdkPair::onStreamResponse;
            pair->sdk_.endpointAddSink(endpoint, pair, service->serviceId, &sink, sizeof sink);
            pair->sdk_.endpointSendStartService(endpoint, service->serviceId);
        }
    }
    pair->progress_.add();
}

void SdkPair::onSinkStatus(ZELCDBEndpoint*, void*, uint16_t, void* sinkContext, uint16_t status) {
    auto* pair = static_cast<SdkPair*>(sinkContext);
    if (status == 1) pair->sinkReady_.store(true);
    pair->progress_.add();
}

void SdkPair::onData(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* sinkContext, void*,
                     uint32_t, uint32_t uid, const uint8_t*, int32_t size) {
    auto* pair = static_cast<SdkPair*>(sinkContext);
    if (static_cast<uint32_t>(size) != pair->valueSize_.load()) {
        pair->noteProblem("answer of " + std::to_string(size) + " bytes");
    }
    if (pair->closedLoopLeft_.load(std::memory_order_relaxed) > 0) {
        if (pair->closedLoopLeft_.fetch_sub(1) > 1) {
            pair->sdk_.sinkSendGet(endpoint, serviceId, nullptr, uid);
        } else {
            pair->closedLoopDone_.store(true);
            pair->progress_.add();
        }
        return;
    }
    pair->answered_.post();
}

void SdkPair::onSinkError(ZELCDBEndpoint*, uint16_t, void* sinkContext, void*, uint32_t command,
                          uint32_t, ZELCDBError error, uint32_t sbpResult) {
    auto* pair = static_cast<SdkPair*>(sinkContext);
    ++pair->errors_;
    char text[96];
    std::snprintf(text, sizeof text, "sink error %d (SBP 0x%08x) for command 0x%02x", error,
                  sbpResult, command);
    pair->noteProblem(text);
}

int32_t SdkPair::onSourceStart(ZELCDBEndpoint*, void*, uint16_t, void*, uint8_t, uint8_t) {
    return 0;
}

ZELCDBError SdkPair::onGet(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* sourceContext,
                           uint32_t command, uint32_t uid, uint32_t*) {
    auto* pair = static_cast<SdkPair*>(sourceContext);
    // Answered through the table from inside the callback: queued, sent once it returns.
    pair->sdk_.sourceSendGetResponse(endpoint, serviceId, nullptr, command, uid, 0,
                                     pair->value_.data(), pair->valueSize_.load());
    return ZELCDBErrorNone;
}

void SdkPair::onStreamStart(ZELCDBEndpoint* endpoint, void*, uint16_t serviceId,
                            void* serviceContext, uint8_t, uint8_t) {
    auto* pair = static_cast<SdkPair*>(serviceContext);
    pair->sdk_.endpointSendServiceResponse(endpoint, serviceId, 1);
}

void SdkPair::onStreamPayload(ZELCDBEndpoint* endpoint, void*, uint16_t serviceId,
                              void* serviceContext, const uint8_t*, uint32_t length) {
    auto* pair = static_cast<SdkPair*>(serviceContext);
    if (length != kStreamPayload) pair->noteProblem("payload of " + std::to_string(length));
    if (++pair->streamReceived_ % kAckEvery != 0) return;
    uint32_t count = pair->streamReceived_;
    pair->sdk_.endpointSendServicePayload(endpoint, serviceId,
                                          reinterpret_cast<const uint8_t*>(&count), sizeof count);
}

void SdkPair::onAck(ZELCDBEndpoint*, void*, uint16_t, void* sinkContext, const uint8_t* data,
                    uint32_t length) {
    auto* pair = static_cast<SdkPair*>(sinkContext);
    uint32_t count = 0;
    if (length == sizeof count) std::memcpy(&count, data, sizeof count);
    pair->streamAcked_.set(count);
}

void SdkPair::onStreamResponse(ZELCDBEndpoint*, void*, uint16_t, void* sinkContext,
                               uint16_t response) {
    auto* pair = static_cast<SdkPair*>(sinkContext);
    if (response == 1) pair->streamReady_.store(true);
    pair->progress_.add();
}

}  // namespace e2e
