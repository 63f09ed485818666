#pragma once

// A client and a server endpoint of this process connected over loopback, through the
// library's C table exactly as an application uses it. The server offers an SBP source that
// answers every Get with a value of a chosen size (from inside its get callback, through
// sourceSendGetResponse) and, optionally, a plain CDB service that receives a payload
// stream and acknowledges every 64 payloads. The client attaches an SBP sink (and a plain
// sink) as soon as the server's services are known and starts them.
//
// No log callback is set unless setVerbose(true) was called (for finding out why a pair
// does not connect): the measurements are of the path an application that does not log
// takes.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Measure.h"
#include "zelcdbsdk.h"

namespace e2e {

class SdkPair {
public:
    static constexpr int kAckEvery = 64;
    static constexpr uint32_t kStreamPayload = 8100;

    // Endpoints made from now on send their information, warning and error lines to stderr.
    static void setVerbose(bool verbose);

    // progress, when given, is raised on every event of the pair (shared by many pairs so
    // that one waiter can watch them all); otherwise the pair uses one of its own.
    SdkPair(const ZELCDBSDK& sdk, uint32_t valueSize, bool withStream, Counter* progress = nullptr);
    // Stops and destroys both endpoints.
    ~SdkPair();
    SdkPair(const SdkPair&) = delete;
    SdkPair& operator=(const SdkPair&) = delete;

    // Creates the server endpoint on a free port with its services and starts it; it
    // listens shortly after. False when the library refused.
    bool startServer();
    int port() const { return port_; }
    // The server's thread ended without a connection (its port was taken): starts it again
    // on another port.
    bool serverFailed() const { return serverEnded_.load() > 0 && !serverConnected_.load(); }
    bool restartServer();

    bool startClient();
    // The client ended before it connected (it raced the server's listen): start it again.
    bool clientFailed() const { return clientEnded_.load() > 0 && !clientConnected_.load(); }
    bool restartClient();

    bool connected() const { return clientConnected_.load() && serverConnected_.load(); }
    // The SBP sink (and the plain sink) have been started by the server.
    bool ready() const;

    // Starts the server, waits until it listens, starts the client and waits until the
    // pair is ready, retrying what raced. False after seconds.
    bool connect(double seconds);

    void setValueSize(uint32_t size) { valueSize_.store(size); }

    // One Get from the calling thread, which waits for the data callback; its round trip in
    // nanoseconds, -1 when no answer came within five seconds.
    int64_t timedGet();
    // count Gets, each issued from the data callback of the one before. startClosedLoop()
    // issues the first and returns; closedLoopDone() tells when the last has answered.
    void startClosedLoop(int64_t count);
    bool closedLoopDone() const { return closedLoopDone_.load(); }
    // startClosedLoop() and the wait for it; elapsed nanoseconds, -1 after seconds.
    int64_t closedLoop(int64_t count, double seconds);

    // Sends 8100-byte payloads from the calling thread for about seconds (and at least
    // minimum of them), never more than window unacknowledged; MB/s (10^6 bytes) of
    // payload, 0 on failure.
    double stream(double seconds, int64_t minimum, int window, int64_t* payloads);

    // ZELCDBEndpointStop of each side, in milliseconds.
    double stopClient();
    double stopServer();

    // Problems seen so far (error callbacks, unexpected ends); empty when none.
    std::string problems() const;

    ZELCDBEndpoint* client() const { return client_; }
    ZELCDBEndpoint* server() const { return server_; }

private:
    static void onLog(ZELCDBEndpoint* endpoint, void* context, const char* category, int32_t level,
                      const char* text);
    static void onStatus(ZELCDBEndpoint* endpoint, void* context, int32_t status,
                         ZELCDBError error);
    static void onPeerServicesAdded(ZELCDBEndpoint* endpoint, void* context, uint8_t versionMajor,
                                    uint8_t versionMinor, const ZELCDBService* services,
                                    uint32_t serviceSize, uint32_t serviceCount);
    static void onSinkStatus(ZELCDBEndpoint* endpoint, void* endpointContext, uint16_t serviceId,
                             void* sinkContext, uint16_t status);
    static void onData(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* sinkContext,
                       void* requestContext, uint32_t command, uint32_t uid, const uint8_t* payload,
                       int32_t size);
    static void onSinkError(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* sinkContext,
                            void* requestContext, uint32_t command, uint32_t uid, ZELCDBError error,
                            uint32_t sbpResult);
    static int32_t onSourceStart(ZELCDBEndpoint* endpoint, void* endpointContext,
                                 uint16_t serviceId, void* sourceContext, uint8_t versionMajor,
                                 uint8_t versionMinor);
    static ZELCDBError onGet(ZELCDBEndpoint* endpoint, uint16_t serviceId, void* sourceContext,
                             uint32_t command, uint32_t uid, uint32_t* result);
    static void onStreamStart(ZELCDBEndpoint* endpoint, void* context, uint16_t serviceId,
                              void* serviceContext, uint8_t versionMajor, uint8_t versionMinor);
    static void onStreamPayload(ZELCDBEndpoint* endpoint, void* context, uint16_t serviceId,
                                void* serviceContext, const uint8_t* data, uint32_t length);
    static void onAck(ZELCDBEndpoint* endpoint, void* context, uint16_t serviceId,
                      void* sinkContext, const uint8_t* data, uint32_t length);
    static void onStreamResponse(ZELCDBEndpoint* endpoint, void* context, uint16_t serviceId,
                                 void* sinkContext, uint16_t response);

    bool createServer();
    void destroyServer();
    void noteProblem(const std::string& text);
    // Waits until predicate() holds; false after seconds.
    template <typename Predicate>
    bool waitUntil(Predicate predicate, double seconds);

    const ZELCDBSDK& sdk_;
    const bool withStream_;
    Counter ownProgress_;
    Counter& progress_;
    int port_ = 0;
    uint32_t uid_;
    std::vector<uint8_t> value_;
    std::vector<uint8_t> streamPayload_;
    ZELCDBEndpoint* client_ = nullptr;
    ZELCDBEndpoint* server_ = nullptr;

    // Written on the endpoint threads, read by the measuring thread.
    std::atomic<uint32_t> valueSize_;
    std::atomic<bool> clientConnected_{false}, serverConnected_{false};
    std::atomic<int> clientEnded_{0}, serverEnded_{0};
    std::atomic<bool> sinkReady_{false}, streamReady_{false};
    std::atomic<uint16_t> sbpServiceId_{0}, streamServiceId_{0};
    std::atomic<int64_t> closedLoopLeft_{0};
    std::atomic<bool> closedLoopDone_{false};
    std::atomic<int> errors_{0};
    Semaphore answered_;
    // Payloads the server has received (server thread only) and acknowledged (client side).
    uint32_t streamReceived_ = 0;
    Counter streamAcked_;
    std::atomic<bool> stopping_{false};
    mutable std::mutex problemMutex_;
    std::string problems_;  // guarded by problemMutex_
};

// Ports on 127.0.0.1 that are in the LISTEN state right now.
std::vector<int> listeningPorts();

}  // namespace e2e
