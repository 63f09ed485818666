// The one queue through which endpoint threads and Ctrl-C reach zelcdb's main thread.
// Callbacks only copy what they learn into an Event and post it; all decisions are taken on
// the main thread, in order, so the commands read as straight-line code.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "zelcdbsdk.h"

namespace zelcdb {

enum class EventKind {
    Interrupt,        // Ctrl-C or SIGTERM
    EndpointStatus,   // status: started, connected or stopping (with error)
    PeerServices,     // the peer listed its services (Session keeps the list)
    ServicesTimeout,  // the peer did not list its services within five seconds
    SinkStatus,       // status: the CDB response to our StartService or StopService
    Data,             // command, uid, data: a Get answer or a subscription update
    SetDone,          // uid
    Subscribed,       // uid
    Cancelled,        // command, uid
    SbpError,         // command, uid, error, result
    Alive,            // an AliveResponse
    Payload,          // data on a plain CDB service
};

struct Event {
    explicit Event(EventKind kind) : kind(kind) {}

    EventKind kind;
    ZELCDBEndpoint* endpoint = nullptr;
    uint16_t service = 0;
    int32_t status = 0;
    ZELCDBError error = ZELCDBErrorNone;
    uint32_t command = 0;
    uint32_t uid = 0;
    uint32_t result = 0;
    std::vector<uint8_t> data;
};

class Inbox {
public:
    using Clock = std::chrono::steady_clock;

    void post(Event event);
    // The next event; nothing if the deadline passes first. No deadline waits for ever.
    std::optional<Event> wait(std::optional<Clock::time_point> deadline);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Event> events_;  // guarded by mutex_
};

Inbox& inbox();

// Blocks SIGINT, SIGTERM and SIGHUP in every thread (call it before any endpoint exists, so
// that endpoint threads inherit the mask) and turns the first of them into an Interrupt
// event. A second one ends the process at once, for a peer that never lets go.
void watchInterrupts();

}  // namespace zelcdb
