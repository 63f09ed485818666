// The client side of every zelcdb command but serve: one endpoint, the peer's services as
// it lists them, one SBP sink or plain CDB sink, and waiting for answers with a deadline.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Inbox.h"
#include "zelcdbsdk.h"

namespace zelcdb {

struct ConnectOptions {
    std::string url;
    bool waitForPeer = false;  // be the server endpoint: wait for the peer to connect
    int timeoutMs = 5000;      // for every step that waits on the peer
    // --timeout was given: it then also limits the waits that otherwise last until Ctrl-C
    // (a peer to connect with waitForPeer, the next update or payload).
    bool timeoutGiven = false;
    // The URL the endpoint itself uses when it differs from url (a --capture relay's); the
    // user is always told about url.
    std::string endpointUrl;
};

struct PeerService {
    uint16_t id = 0;
    std::string name;
    uint8_t versionMajor = 0;
    uint8_t versionMinor = 0;
    uint32_t attribute = 0;
    uint32_t accessControl = 0;
};

class Session {
public:
    explicit Session(ConnectOptions options);
    // Stops the endpoint (ByeBye when connected) and destroys it.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Connects and waits for the peer's list of services. A client tries again, after a short
    // pause, while its connection is refused or reset before the peer lists its services:
    // a server endpoint serves one peer at a time and turns the others away meanwhile.
    void connect();
    const std::vector<PeerService>& services() const { return services_; }
    // A service by name or by ID (decimal or 0x hex); the error lists what the peer offers.
    PeerService find(const std::string& nameOrId) const;

    // Attach a sink to the service and start it; returns once the peer has started it.
    void startSbp(const PeerService& service);
    void startPlain(const PeerService& service);
    uint16_t serviceId() const { return serviceId_; }
    ZELCDBEndpoint* endpoint() const { return endpoint_; }

    // The next event about our service within the deadline (the default deadline is
    // timeoutMs from now; pass std::nullopt to wait for ever). Throws Failure when the time
    // runs out or the connection ends, Interrupted on Ctrl-C.
    using Clock = std::chrono::steady_clock;
    Event next(const std::string& waitingFor);
    Event nextUntil(std::optional<Clock::time_point> deadline, const std::string& waitingFor);
    Clock::time_point deadline() const;
    // The deadline for a wait that has no natural end: none unless --timeout was given.
    std::optional<Clock::time_point> openDeadline() const;
    // Lets time pass, passing over events, unless the connection ends or Ctrl-C comes.
    void pauseUntil(Clock::time_point until);

    // Ends the session politely: StopService on our service, then ByeBye.
    void stop();
    // True once a session gave up waiting for a peer's answer to ByeBye: its endpoint thread
    // still runs, so the process must end with _exit.
    static bool abandonedAny();

private:
    // The next event for the command; status changes, time-outs of the library and Ctrl-C
    // are handled here. Nothing when the deadline passes.
    std::optional<Event> poll(std::optional<Clock::time_point> until);
    [[noreturn]] void timedOut(const std::string& waitingFor) const;
    void close();
    void start();
    // What ended the endpoint thread, from the library's last error line.
    std::string endReason(ZELCDBError error);
    static void onLog(ZELCDBEndpoint*, void*, const char*, int32_t, const char*);
    static void onStatus(ZELCDBEndpoint*, void*, int32_t, ZELCDBError);
    static void onServicesAdded(ZELCDBEndpoint*, void*, uint8_t, uint8_t, const ZELCDBService*,
                                uint32_t, uint32_t);
    static void onServicesTimeout(ZELCDBEndpoint*, void*);
    void startService(const PeerService& service);
    [[noreturn]] void connectionEnded(ZELCDBError error);

    ConnectOptions options_;
    ZELCDBEndpoint* endpoint_ = nullptr;
    bool running_ = false;
    bool connected_ = false;
    bool connecting_ = false;  // in connect(): a refused or reset connection is retried
    int attempts_ = 0;
    std::vector<PeerService> services_;
    uint16_t serviceId_ = 0;
    std::vector<PeerService> listed_;  // guarded by mutex_: filled on the endpoint thread
    std::string lastError_;            // guarded by mutex_: the library's last error line
    bool byeBye_ = false;              // guarded by mutex_: the peer said ByeBye
    mutable std::mutex mutex_;
};

}  // namespace zelcdb
