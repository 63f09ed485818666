#include "Session.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

#include "Console.h"
#include "Failure.h"
#include "Library.h"

namespace zelcdb {

namespace {

Session& sessionOf(void* context) {
    return *static_cast<Session*>(context);
}

void post(Event event, ZELCDBEndpoint* endpoint, uint16_t service) {
    event.endpoint = endpoint;
    event.service = service;
    inbox().post(std::move(event));
}

// SBP sink callbacks: copies into the inbox, nothing more.
const ZELSBPSinkCallbacks kSinkCallbacks = {
    [](ZELCDBEndpoint* e, void*, uint16_t s, void*, uint16_t status) {
        Event event(EventKind::SinkStatus);
        event.status = status;
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*, uint32_t command, uint32_t uid,
       const uint8_t* payload, int32_t size) {
        Event event(EventKind::Data);
        event.command = command;
        event.uid = uid;
        if (payload && size > 0) event.data.assign(payload, payload + size);
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*, uint32_t uid) {
        Event event(EventKind::SetDone);
        event.uid = uid;
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*, uint32_t uid) {
        Event event(EventKind::Subscribed);
        event.uid = uid;
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*, uint32_t command, uint32_t uid) {
        Event event(EventKind::Cancelled);
        event.command = command;
        event.uid = uid;
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*, uint32_t command, uint32_t uid,
       ZELCDBError error, uint32_t result) {
        Event event(EventKind::SbpError);
        event.command = command;
        event.uid = uid;
        event.error = error;
        event.result = result;
        post(std::move(event), e, s);
    },
    nullptr,  // no authentication: the sink answers challenges with "not supported"
    [](ZELCDBEndpoint* e, uint16_t s, void*, void*) { post(Event(EventKind::Alive), e, s); },
};

const ZELCDBSinkCallbacks kPlainSinkCallbacks = {
    [](ZELCDBEndpoint* e, void*, uint16_t s, void*, const uint8_t* data, uint32_t length) {
        Event event(EventKind::Payload);
        if (data) event.data.assign(data, data + length);
        post(std::move(event), e, s);
    },
    [](ZELCDBEndpoint* e, void*, uint16_t s, void*, uint16_t response) {
        Event event(EventKind::SinkStatus);
        event.status = response;
        post(std::move(event), e, s);
    },
};

}  // namespace

Session::Session(ConnectOptions options) : options_(std::move(options)) {
    checkUrl(options_.url);
    requireEndpoints();
    ZELCDBEndpointParameters parameters{};
    parameters.url =
        options_.endpointUrl.empty() ? options_.url.c_str() : options_.endpointUrl.c_str();
    parameters.mode = options_.waitForPeer ? ZELCDBEndpointModeServer : ZELCDBEndpointModeClient;
    parameters.context = this;
    parameters.versionMajor = 1;  // CDB 1.1, the only version peers speak
    parameters.versionMinor = 1;
    ZELCDBEndpointCallbacks callbacks{};
    callbacks.logCallback = &Session::onLog;
    callbacks.statusCallback = &Session::onStatus;
    callbacks.peerServicesAddedCallback = &Session::onServicesAdded;
    callbacks.servicesRequestTimeoutCallback = &Session::onServicesTimeout;
    ZELCDBError error = sdk().endpointCreate(&endpoint_, &parameters, sizeof parameters, &callbacks,
                                             sizeof callbacks);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection, "cannot create an endpoint: " + errorText(error));
    }
}

Session::~Session() {
    close();
}

namespace {
std::atomic<bool> abandoned{false};
}  // namespace

bool Session::abandonedAny() {
    return abandoned;
}

void Session::close() {
    if (!endpoint_) return;
    if (!running_) {  // its thread ended by itself: nothing to stop
        sdk().endpointDestroy(endpoint_);
        endpoint_ = nullptr;
        return;
    }
    // Stopping sends ByeBye and waits for the peer's answer, for up to five seconds. A peer
    // that answers nothing is not worth the wait: after a second the endpoint is left to
    // itself, and the process must then leave without running destructors under it.
    auto stopped = std::make_shared<std::promise<void>>();
    std::future<void> done = stopped->get_future();
    std::thread stopper([endpoint = endpoint_, stopped] {
        sdk().endpointStop(endpoint);
        stopped->set_value();
    });
    if (done.wait_for(std::chrono::seconds(1)) == std::future_status::ready) {
        stopper.join();
        sdk().endpointDestroy(endpoint_);
    } else {
        stopper.detach();
        abandoned = true;
    }
    endpoint_ = nullptr;
    running_ = false;
}

void Session::onLog(ZELCDBEndpoint*, void* context, const char* category, int32_t level,
                    const char* text) {
    console::libraryLog(category, level, text);
    if (!context || !text) return;
    Session& session = sessionOf(context);
    std::lock_guard<std::mutex> lock(session.mutex_);
    if (level <= ZELCDBLogError) session.lastError_ = text;
    // The library tells the application nothing else of the peer's ByeBye, and a server
    // endpoint that answered one still ends with "Connection lost".
    if (std::strcmp(text, "Received ByeBye") == 0) session.byeBye_ = true;
}

void Session::onStatus(ZELCDBEndpoint* endpoint, void*, int32_t status, ZELCDBError error) {
    Event event(EventKind::EndpointStatus);
    event.status = status;
    event.error = error;
    post(std::move(event), endpoint, 0);
}

void Session::onServicesAdded(ZELCDBEndpoint* endpoint, void* context, uint8_t, uint8_t,
                              const ZELCDBService* services, uint32_t serviceSize,
                              uint32_t serviceCount) {
    Session& session = sessionOf(context);
    {
        std::lock_guard<std::mutex> lock(session.mutex_);
        // Records are serviceSize bytes apart, which may differ from our sizeof.
        const auto* bytes = reinterpret_cast<const uint8_t*>(services);
        for (uint32_t i = 0; i < serviceCount; ++i) {
            const auto* s = reinterpret_cast<const ZELCDBService*>(bytes + size_t(i) * serviceSize);
            session.listed_.push_back(PeerService{s->serviceId, s->name ? s->name : "",
                                                  s->versionMajor, s->versionMinor,
                                                  s->serviceAttribute, s->accessControl});
        }
    }
    post(Event(EventKind::PeerServices), endpoint, 0);
}

void Session::onServicesTimeout(ZELCDBEndpoint* endpoint, void*) {
    post(Event(EventKind::ServicesTimeout), endpoint, 0);
}

Session::Clock::time_point Session::deadline() const {
    return Clock::now() + std::chrono::milliseconds(options_.timeoutMs);
}

std::optional<Session::Clock::time_point> Session::openDeadline() const {
    if (!options_.timeoutGiven) return std::nullopt;
    return deadline();
}

std::string Session::endReason(ZELCDBError error) {
    std::string detail;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (byeBye_) return "the peer ended it (ByeBye)";
        detail = lastError_;
    }
    // The library logs what ended its thread as "Caught exception: <what>".
    const std::string prefix = "Caught exception: ";
    if (detail.compare(0, prefix.size(), prefix) == 0) detail = detail.substr(prefix.size());
    if (detail == "End of stream" || detail == "Connection lost") {
        return "the peer closed it without ByeBye";
    }
    return detail.empty() ? errorText(error) : detail;
}

void Session::connectionEnded(ZELCDBError error) {
    running_ = false;
    std::string reason = endReason(error);
    if (attempts_ > 1) reason += " (" + std::to_string(attempts_) + " attempts)";
    if (!connected_) {
        throw Failure(kExitConnection, "cannot connect to " + options_.url + ": " + reason);
    }
    throw Failure(kExitConnection, "the connection to " + options_.url + " ended: " + reason);
}

Event Session::next(const std::string& waitingFor) {
    return nextUntil(deadline(), waitingFor);
}

std::optional<Event> Session::poll(std::optional<Clock::time_point> until) {
    for (;;) {
        std::optional<Event> event = inbox().wait(until);
        if (!event) return std::nullopt;
        switch (event->kind) {
            case EventKind::Interrupt:
                throw Interrupted{};
            case EventKind::EndpointStatus:
                if (event->status == ZELCDBStatusConnected) {
                    connected_ = true;
                    console::note("connected to " + options_.url);
                } else if (event->status == ZELCDBStatusStopping) {
                    std::string reason = endReason(event->error);
                    bool turnedAway = reason.find("refused") != std::string::npos ||
                                      reason.find("reset by peer") != std::string::npos;
                    if (connecting_ && !options_.waitForPeer && turnedAway) return event;
                    connectionEnded(event->error);
                }
                continue;
            case EventKind::ServicesTimeout:
                throw Failure(kExitTimeout, "time-out: " + options_.url +
                                                " did not list its services within 5 s");
            default:
                return event;
        }
    }
}

Event Session::nextUntil(std::optional<Clock::time_point> until, const std::string& waitingFor) {
    std::optional<Event> event = poll(until);
    if (!event) timedOut(waitingFor);
    return *event;
}

void Session::timedOut(const std::string& waitingFor) const {
    throw Failure(kExitTimeout, "time-out: no " + waitingFor + " from " + options_.url +
                                    " within " + std::to_string(options_.timeoutMs) + " ms");
}

void Session::pauseUntil(Clock::time_point until) {
    while (poll(until)) {
    }
}

void Session::start() {
    ++attempts_;
    ZELCDBError error = sdk().endpointStart(endpoint_);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection, "cannot start the endpoint: " + errorText(error));
    }
    running_ = true;
}

void Session::connect() {
    start();
    if (options_.waitForPeer) console::note("waiting for a peer on " + options_.url);
    // Connecting and the list of services share one deadline; waiting for a peer to come
    // has none of its own unless --timeout says so.
    std::optional<Clock::time_point> until = options_.waitForPeer ? openDeadline() : deadline();
    bool listing = false;
    std::string turnedAway;  // why the last try was refused or reset
    auto pause = std::chrono::milliseconds(20);
    connecting_ = true;
    for (;;) {
        std::optional<Event> event = poll(until);
        if (!event && !connected_ && options_.waitForPeer) {
            throw Failure(kExitTimeout, "time-out: no peer connected to " + options_.url +
                                            " within " + std::to_string(options_.timeoutMs) +
                                            " ms");
        }
        // Time that runs out during a try after refusals is still a refusal, not a silent
        // peer: on a slow machine the last try may not even have been answered yet.
        if (!event && !connected_ && !turnedAway.empty()) {
            throw Failure(kExitConnection, "cannot connect to " + options_.url + ": " + turnedAway +
                                               " (" + std::to_string(attempts_) + " attempts)");
        }
        if (!event) timedOut(connected_ ? "list of services" : "connection");
        if (event->kind == EventKind::PeerServices) break;
        if (event->kind == EventKind::EndpointStatus) {
            // Refused or reset (poll() lets only those through): the server is busy with
            // another peer, or not up yet.
            running_ = false;
            turnedAway = endReason(event->error);
            // The pauses double, and shrink again as the deadline nears.
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(*until - Clock::now());
            if (left.count() < 10) connectionEnded(event->error);
            auto wait = std::min(pause, left / 2);
            console::note("not connected (" + endReason(event->error) + "); trying again in " +
                          std::to_string(wait.count()) + " ms");
            pauseUntil(Clock::now() + wait);
            pause = std::min(pause * 2, std::chrono::milliseconds(320));
            connected_ = false;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                lastError_.clear();
                byeBye_ = false;
            }
            start();
            continue;
        }
        if (connected_ && !listing) {
            listing = true;
            if (options_.waitForPeer) until = deadline();
        }
    }
    connecting_ = false;
    std::lock_guard<std::mutex> lock(mutex_);
    services_ = listed_;
}

PeerService Session::find(const std::string& nameOrId) const {
    uint32_t id = 0;
    bool byId = parseNumber(nameOrId, id);
    for (const PeerService& service : services_) {
        if (service.name == nameOrId || (byId && service.id == id)) return service;
    }
    std::string offered;
    for (const PeerService& service : services_) {
        offered += (offered.empty() ? "" : ", ") + service.name + " (" + hex16(service.id) + ")";
    }
    throw Failure(kExitUnknown, "unknown service '" + nameOrId + "'; " + options_.url +
                                    (offered.empty() ? " offers none" : " offers " + offered));
}

void Session::startService(const PeerService& service) {
    ZELCDBError error = sdk().endpointSendStartService(endpoint_, service.id);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection, "cannot start " + service.name + ": " + errorText(error));
    }
    for (;;) {
        Event event = next("answer to StartService of " + service.name);
        if (event.kind != EventKind::SinkStatus) continue;
        if (event.status == ZELCDBServiceResponseStarted) break;
        throw Failure(kExitRefused, "the peer refused to start " + service.name +
                                        " (CDB response " + hex16(uint16_t(event.status)) + ")");
    }
    console::note("service " + service.name + " (" + hex16(service.id) + ") started");
}

void Session::startSbp(const PeerService& service) {
    serviceId_ = service.id;
    ZELCDBError error =
        sdk().sinkCreate(endpoint_, nullptr, service.id, &kSinkCallbacks, sizeof kSinkCallbacks);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection,
                      "cannot attach to " + service.name + ": " + errorText(error));
    }
    startService(service);
}

void Session::startPlain(const PeerService& service) {
    serviceId_ = service.id;
    ZELCDBError error = sdk().endpointAddSink(endpoint_, nullptr, service.id, &kPlainSinkCallbacks,
                                              sizeof kPlainSinkCallbacks);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection,
                      "cannot attach to " + service.name + ": " + errorText(error));
    }
    startService(service);
}

void Session::stop() {
    if (running_ && serviceId_ != 0) sdk().endpointSendStopService(endpoint_, serviceId_);
    // The stop is queued behind the StopService: the peer hears both, then ByeBye.
    close();
}

}  // namespace zelcdb
