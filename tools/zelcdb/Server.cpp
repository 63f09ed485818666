#include "Server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "Console.h"
#include "ElementFile.h"
#include "Failure.h"
#include "Inbox.h"
#include "Library.h"
#include "SbpData.h"

namespace zelcdb {

namespace {

using Clock = std::chrono::steady_clock;

// A server endpoint accepts one peer and then stops listening, so serve keeps one endpoint
// per peer plus one that listens for the next. In --client mode there is one endpoint that
// reconnects after a second whenever its connection ends.
//
// Threads: each endpoint calls back on its own thread. The element values, the list of
// connections and each connection's subscriptions are shared between them and guarded by
// Server::mutex_. The main thread alone creates and destroys endpoints, and removes a
// connection from the list (under the mutex) before destroying its endpoint, so that a
// callback that found an endpoint in the list may still post to it.
class Server {
public:
    Server(const ServeArgs& args, ElementFile file, ServiceName service)
        : args_(args), file_(std::move(file)), service_(std::move(service)) {}
    ~Server() { closeAll(); }

    int run();

    struct Connection {
        Server* server = nullptr;
        int number = 0;  // set when the peer connects
        ZELCDBEndpoint* endpoint = nullptr;
        uint16_t sbpId = 0;
        uint16_t echoId = 0;
        bool connected = false;       // main thread only
        std::set<uint32_t> onChange;  // guarded by Server::mutex_
        bool echoStarted = false;     // guarded by Server::mutex_
        std::mutex logMutex;
        std::string lastError;  // guarded by logMutex
    };

private:
    void open();
    void close(Connection* connection);
    void closeAll();
    Connection* find(ZELCDBEndpoint* endpoint);
    std::string label(const Connection& c) const { return "peer #" + std::to_string(c.number); }
    std::string nameOf(uint32_t uid) const { return file_.names.keyFor(uid); }

    // Answers, on endpoint threads.
    ZELCDBError get(Connection& c, uint32_t command, uint32_t uid, uint32_t* result);
    ZELCDBError set(Connection& c, uint32_t uid, const uint8_t* data, int32_t size,
                    uint32_t* result);
    ZELCDBError subscribe(Connection& c, uint32_t uid, uint32_t* type, uint32_t* interval,
                          uint32_t* result);
    void cancel(Connection& c, uint32_t command, uint32_t uid);
    void echo(Connection& c, const uint8_t* data, uint32_t length);

    static const ZELSBPSourceCallbacks kSourceCallbacks;
    static const ZELCDBSourceServiceCallbacks kEchoCallbacks;
    static const ZELCDBEndpointCallbacks kEndpointCallbacks;

    const ServeArgs& args_;
    ElementFile file_;  // values guarded by mutex_
    ServiceName service_;
    std::mutex mutex_;
    std::list<std::unique_ptr<Connection>> connections_;  // guarded by mutex_
    std::atomic<int> peers_{0};                           // peers that connected so far
};

Server::Connection& connectionOf(void* context) {
    return *static_cast<Server::Connection*>(context);
}

// No exception may cross back into the library: a failure there refuses the request.
template <typename Body>
ZELCDBError guarded(uint32_t* result, Body body) {
    try {
        return body();
    } catch (const std::exception& e) {
        console::message(std::string("internal error: ") + e.what());
    }
    if (result) *result = ZELSBPResultFailed;
    return ZELCDBErrorLocalSBPError;
}

const ZELSBPSourceCallbacks Server::kSourceCallbacks = {
    [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint8_t major, uint8_t minor) -> int32_t {
        Connection& connection = connectionOf(c);
        console::note(connection.server->label(connection) + " started the service (version " +
                      std::to_string(major) + "." + std::to_string(minor) + ")");
        return 0;
    },
    [](ZELCDBEndpoint*, void*, uint16_t, void* c) -> int32_t {
        Connection& connection = connectionOf(c);
        std::lock_guard<std::mutex> lock(connection.server->mutex_);
        connection.onChange.clear();
        return 0;
    },
    nullptr,
    [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid, uint32_t* result) {
        Connection& connection = connectionOf(c);
        return guarded(result,
                       [&] { return connection.server->get(connection, command, uid, result); });
    },
    [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t uid, const uint8_t* data, int32_t size,
       uint32_t* result) {
        Connection& connection = connectionOf(c);
        return guarded(result,
                       [&] { return connection.server->set(connection, uid, data, size, result); });
    },
    [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t uid, uint32_t* type, uint32_t* interval,
       uint32_t* result) {
        Connection& connection = connectionOf(c);
        return guarded(result, [&] {
            return connection.server->subscribe(connection, uid, type, interval, result);
        });
    },
    [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid) {
        Connection& connection = connectionOf(c);
        guarded(nullptr, [&] {
            connection.server->cancel(connection, command, uid);
            return ZELCDBErrorNone;
        });
    },
    nullptr,
    nullptr,
};

// The plain echo service answers its start and stop itself, as the CDB wants of every
// plain source.
const ZELCDBSourceServiceCallbacks Server::kEchoCallbacks = {
    [](ZELCDBEndpoint* e, void*, uint16_t id, void* c, uint8_t, uint8_t) {
        Connection& connection = connectionOf(c);
        {
            std::lock_guard<std::mutex> lock(connection.server->mutex_);
            connection.echoStarted = true;
        }
        sdk().endpointSendServiceResponse(e, id, ZELCDBServiceResponseStarted);
        console::note(connection.server->label(connection) + " started the echo service");
    },
    [](ZELCDBEndpoint* e, void*, uint16_t id, void* c) {
        Connection& connection = connectionOf(c);
        {
            std::lock_guard<std::mutex> lock(connection.server->mutex_);
            connection.echoStarted = false;
        }
        sdk().endpointSendServiceResponse(e, id, ZELCDBServiceResponseStopped);
    },
    [](ZELCDBEndpoint*, void*, uint16_t, void* c, const uint8_t* data, uint32_t length) {
        Connection& connection = connectionOf(c);
        guarded(nullptr, [&] {
            connection.server->echo(connection, data, length);
            return ZELCDBErrorNone;
        });
    },
};

const ZELCDBEndpointCallbacks Server::kEndpointCallbacks = {
    [](ZELCDBEndpoint*, void* c, const char* category, int32_t level, const char* text) {
        console::libraryLog(category, level, text);
        if (level <= ZELCDBLogError && text) {
            Connection& connection = connectionOf(c);
            std::lock_guard<std::mutex> lock(connection.logMutex);
            connection.lastError = text;
        }
    },
    [](ZELCDBEndpoint* e, void* c, int32_t status, ZELCDBError error) {
        // Numbered on the endpoint's own thread, before any request of the peer arrives.
        if (status == ZELCDBStatusConnected) {
            Connection& connection = connectionOf(c);
            connection.number = ++connection.server->peers_;
        }
        Event event(EventKind::EndpointStatus);
        event.endpoint = e;
        event.status = status;
        event.error = error;
        inbox().post(std::move(event));
    },
    nullptr,
    nullptr,
    nullptr,
};

ZELCDBError Server::get(Connection& c, uint32_t command, uint32_t uid, uint32_t* result) {
    std::vector<uint8_t> data;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const Element* element = file_.find(uid);
        if (!element) {
            console::message(label(c) + ": Get of unknown element " + hex32(uid) + " refused");
            *result = ZELSBPResultFailed;
            return ZELCDBErrorLocalSBPError;
        }
        data = encode(uid, element->type, element->value);
    }
    // Periodic updates come here too (command Subscribe); only a Get is worth a note.
    if (command == ZELSBPCommandGet) console::note(label(c) + ": Get " + nameOf(uid));
    sdk().sourceSendGetResponse(c.endpoint, c.sbpId, nullptr, command, uid, ZELSBPResultSuccess,
                                data.data(), static_cast<uint32_t>(data.size()));
    return ZELCDBErrorNone;
}

ZELCDBError Server::set(Connection& c, uint32_t uid, const uint8_t* data, int32_t size,
                        uint32_t* result) {
    *result = ZELSBPResultFailed;
    std::string refused;
    std::optional<Value> value;
    try {
        value = decode(data, size > 0 ? size_t(size) : 0);
    } catch (const ValueError& e) {
        refused = e.what();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    Element* element = file_.find(uid);
    if (!element) {
        console::message(label(c) + ": Set of unknown element " + hex32(uid) + " refused");
        return ZELCDBErrorLocalSBPError;
    }
    if (value) refused = mismatch(*value, element->type).value_or("");
    if (!refused.empty()) {
        console::message(label(c) + ": Set of " + element->name + " refused: " + refused);
        return ZELCDBErrorLocalSBPError;
    }
    Json now = toJson(*value, file_.names);
    bool changed = now != element->value;
    element->value = std::move(now);
    std::vector<uint8_t> update = encode(uid, element->type, element->value);
    console::note(label(c) + ": Set " + element->name + " = " +
                  element->value.dump(-1, ' ', false, Json::error_handler_t::replace) +
                  (changed ? "" : " (unchanged)"));
    // Queued behind the Set's own answer, which the library sends when this returns.
    for (const auto& other : connections_) {
        if (changed && other->onChange.count(uid)) {
            sdk().sourceSendGetResponse(other->endpoint, other->sbpId, nullptr,
                                        ZELSBPCommandSubscribe, uid, ZELSBPResultSuccess,
                                        update.data(), static_cast<uint32_t>(update.size()));
        }
    }
    *result = ZELSBPResultSuccess;
    return ZELCDBErrorLocalSBPError;
}

ZELCDBError Server::subscribe(Connection& c, uint32_t uid, uint32_t* type, uint32_t* interval,
                              uint32_t* result) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!file_.find(uid)) {
        console::message(label(c) + ": Subscribe to unknown element " + hex32(uid) + " refused");
        *result = ZELSBPResultFailed;
        return ZELCDBErrorLocalSBPError;
    }
    if (*type == ZELSBPSubscribeEither) *type = ZELSBPSubscribeOnChange;
    if (*type == ZELSBPSubscribeOnChange) {
        // The interval means nothing here, but the library checks it all the same.
        if (*interval == 0 || *interval > ZELSBP_SUBSCRIBE_INTERVAL_MAX) *interval = 1000;
        c.onChange.insert(uid);
        console::note(label(c) + ": Subscribe " + nameOf(uid) + " on change");
    } else {
        console::note(label(c) + ": Subscribe " + nameOf(uid) + " every " +
                      std::to_string(*interval) + " ms");
    }
    *result = ZELSBPResultSuccess;
    return ZELCDBErrorLocalSBPError;
}

void Server::cancel(Connection& c, uint32_t command, uint32_t uid) {
    if (command != ZELSBPCommandSubscribe) return;
    std::lock_guard<std::mutex> lock(mutex_);
    c.onChange.erase(uid);
    console::note(label(c) + ": Cancel subscription to " + nameOf(uid));
}

void Server::echo(Connection& c, const uint8_t* data, uint32_t length) {
    console::note(label(c) + ": echo " + toHex(data, length));
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& other : connections_) {
        if (other->echoStarted) {
            sdk().endpointSendServicePayload(other->endpoint, other->echoId, data, length);
        }
    }
}

void Server::open() {
    auto connection = std::make_unique<Connection>();
    connection->server = this;
    ZELCDBEndpointParameters parameters{};
    parameters.url = args_.url.c_str();
    parameters.mode = args_.client ? ZELCDBEndpointModeClient : ZELCDBEndpointModeServer;
    parameters.context = connection.get();
    parameters.versionMajor = 1;
    parameters.versionMinor = 1;
    ZELCDBError error = sdk().endpointCreate(&connection->endpoint, &parameters, sizeof parameters,
                                             &kEndpointCallbacks, sizeof kEndpointCallbacks);
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection, "cannot create an endpoint: " + errorText(error));
    }
    ZELCDBService service{};
    service.name = service_.name.c_str();
    service.versionMajor = service_.versionMajor;
    service.versionMinor = service_.versionMinor;
    error = sdk().sourceCreate(connection->endpoint, connection.get(), &service, sizeof service,
                               &kSourceCallbacks, sizeof kSourceCallbacks);
    connection->sbpId = service.serviceId;
    if (error == ZELCDBErrorNone && !args_.echo.empty()) {
        ZELCDBService echoService{};
        echoService.name = args_.echo.c_str();
        echoService.versionMajor = 1;
        error = sdk().endpointAddSourceService(connection->endpoint, connection.get(), &echoService,
                                               sizeof echoService, &kEchoCallbacks,
                                               sizeof kEchoCallbacks);
        connection->echoId = echoService.serviceId;
    }
    if (error == ZELCDBErrorNone) error = sdk().endpointStart(connection->endpoint);
    Connection* raw = connection.get();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connections_.push_back(std::move(connection));
    }
    if (error != ZELCDBErrorNone) {
        close(raw);
        throw Failure(kExitConnection, "cannot offer " + service_.name + ": " + errorText(error));
    }
}

Server::Connection* Server::find(ZELCDBEndpoint* endpoint) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& connection : connections_) {
        if (connection->endpoint == endpoint) return connection.get();
    }
    return nullptr;
}

void Server::close(Connection* connection) {
    std::unique_ptr<Connection> owned;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = connections_.begin(); it != connections_.end(); ++it) {
            if (it->get() == connection) {
                owned = std::move(*it);
                connections_.erase(it);
                break;
            }
        }
    }
    // Stops the endpoint if it still runs (ByeBye to a connected peer), then frees it.
    if (owned && owned->endpoint) sdk().endpointDestroy(owned->endpoint);
}

void Server::closeAll() {
    for (;;) {
        Connection* first = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (connections_.empty()) return;
            first = connections_.front().get();
        }
        close(first);
    }
}

// The library binds on its own thread and says nothing once it listens, so a port in use
// would show only after serve had said it serves. Binding here first, as the library does,
// finds that out before anything is promised.
void checkCanListen(const std::string& url) {
    Address address = checkUrl(url);
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(address.port);
    inet_pton(AF_INET, address.host.c_str(), &socketAddress.sin_addr);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int reuse = 1;
    int error = 0;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&socketAddress), sizeof socketAddress) != 0) {
        error = errno;
    }
    if (fd >= 0) ::close(fd);
    if (error != 0) {
        throw Failure(kExitConnection, "cannot listen on " + url +
                                           ": bind() failed: " + std::strerror(error) + " (" +
                                           std::to_string(error) + ")");
    }
}

int Server::run() {
    if (!args_.client) checkCanListen(args_.url);
    open();
    console::message("serving " + service_.name + " " + std::to_string(service_.versionMajor) +
                     "." + std::to_string(service_.versionMinor) + " (" +
                     std::to_string(file_.elements.size()) + " elements" +
                     (args_.echo.empty() ? "" : ", echo service " + args_.echo) + ") " +
                     (args_.client ? "to " : "on ") +
                     (args_.shownUrl.empty() ? args_.url : args_.shownUrl) + "; Ctrl-C to stop");
    std::optional<Clock::time_point> reconnectAt;
    bool reportedRefusal = false;
    for (;;) {
        std::optional<Event> event = inbox().wait(reconnectAt);
        if (!event) {
            reconnectAt.reset();
            open();
            continue;
        }
        if (event->kind == EventKind::Interrupt) break;
        if (event->kind != EventKind::EndpointStatus) continue;
        Connection* connection = find(event->endpoint);
        if (!connection) continue;
        if (event->status == ZELCDBStatusConnected) {
            connection->connected = true;
            reportedRefusal = false;
            console::note(label(*connection) + " connected");
            // The next peer needs an endpoint that listens.
            if (!args_.client) open();
            continue;
        }
        if (event->status != ZELCDBStatusStopping) continue;
        std::string detail;
        {
            std::lock_guard<std::mutex> lock(connection->logMutex);
            detail = connection->lastError;
        }
        const std::string prefix = "Caught exception: ";
        if (detail.compare(0, prefix.size(), prefix) == 0) detail = detail.substr(prefix.size());
        bool wasConnected = connection->connected;
        std::string who = label(*connection);
        close(connection);
        if (wasConnected) {
            console::note(who + " left");
        } else if (!args_.client) {
            throw Failure(kExitConnection, "cannot listen on " + args_.url + ": " +
                                               (detail.empty() ? errorText(event->error) : detail));
        } else if (!reportedRefusal) {
            console::message("cannot connect to " +
                             (args_.shownUrl.empty() ? args_.url : args_.shownUrl) + " (" + detail +
                             "); trying again every second");
            reportedRefusal = true;
        }
        if (args_.client) reconnectAt = Clock::now() + std::chrono::seconds(1);
    }
    console::message("stopping");
    closeAll();
    return kExitOk;
}

}  // namespace

ServiceName parseServiceName(const std::string& text) {
    ServiceName service;
    size_t colon = text.rfind(':');
    service.name = text.substr(0, colon);
    if (colon != std::string::npos) {
        std::string version = text.substr(colon + 1);
        size_t dot = version.find('.');
        uint32_t major = 0, minor = 0;
        if (dot == std::string::npos || !parseNumber(version.substr(0, dot), major) ||
            !parseNumber(version.substr(dot + 1), minor) || major > 255 || minor > 255) {
            throw Failure(kExitUsage, "bad service '" + text +
                                          "': expected NAME or NAME:MAJOR.MINOR, such as "
                                          "com.example.vehicle:1.0");
        }
        service.versionMajor = static_cast<uint8_t>(major);
        service.versionMinor = static_cast<uint8_t>(minor);
    }
    if (service.name.empty() || service.name.size() > 255) {
        throw Failure(kExitUsage, "bad service '" + text + "': the name must be 1 to 255 bytes");
    }
    return service;
}

int runServe(const ServeArgs& args) {
    ElementFile file = loadElementFile(args.elementFile);
    std::string service = !args.service.empty()   ? args.service
                          : !file.service.empty() ? file.service
                                                  : "zelcdb:1.0";
    ServiceName name = parseServiceName(service);
    checkUrl(args.url);
    if (!args.echo.empty() && (args.echo == name.name || args.echo.size() > 255)) {
        throw Failure(kExitUsage, "the echo service needs a name of its own, up to 255 bytes");
    }
    requireEndpoints();
    Server server(args, std::move(file), std::move(name));
    return server.run();
}

}  // namespace zelcdb
