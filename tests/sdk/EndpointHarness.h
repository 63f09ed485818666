#pragma once

// Applications as the endpoint tests see them: an endpoint driven through the C function
// table only, every callback (plain CDB and SBP alike) recorded as a line of text, and a
// hook to act from inside a callback. Plus loopback and process-resource helpers.

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TestText.h"
#include "plat/ManualClock.h"
#include "sdk/ZELCDBEndpoint.h"
#include "zelcdbsdk.h"

namespace sdktest {

using zeltest::format;
using Lines = std::vector<std::string>;

// How long a test waits for another thread before it gives up and fails.
constexpr auto kPatience = std::chrono::seconds(10);

inline const ZELCDBSDK& api() {
    static const ZELCDBSDK table = [] {
        ZELCDBSDK t;
        ZELCDBSDKInitialize(&t, sizeof t);
        return t;
    }();
    return table;
}

// A TCP socket bound to a loopback port (a free one for port 0, which is then set).
inline int loopbackSocket(int* port, bool bind = true) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(*port));
    socklen_t length = sizeof address;
    if (!bind) return ::connect(fd, reinterpret_cast<sockaddr*>(&address), length), fd;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}
inline std::string freeUrl(int* port = nullptr) {
    int free = 0;
    ::close(loopbackSocket(&free));
    if (port) *port = free;
    return "cdb://127.0.0.1:" + std::to_string(free);
}

// Waits until something listens on the port (a server's thread listens some time after its
// Start returned). Reads the kernel's table: a connect would take the server's one connection.
inline bool waitListening(int port) {
    const std::string wanted = format(":%04X 00000000:0000 0A", port);
    for (auto end = std::chrono::steady_clock::now() + kPatience;
         std::chrono::steady_clock::now() < end;) {
        std::ifstream table("/proc/net/tcp");
        for (std::string line; std::getline(table, line);) {
            if (line.find(wanted) != std::string::npos) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// A raw TCP listener on a free loopback port: it accepts when asked and never says a word.
// With a backlog of 0 and one connection queued, a further connect is never answered.
struct SilentPeer {
    int port = 0, listener = loopbackSocket(&port), accepted = -1, queued = -1;

    explicit SilentPeer(int backlog = 4) {
        ::listen(listener, backlog);
        if (backlog == 0) queued = loopbackSocket(&port, false);
    }
    ~SilentPeer() {
        hangUp();
        if (queued >= 0) ::close(queued);
        ::close(listener);
    }
    std::string url() const { return "cdb://127.0.0.1:" + std::to_string(port); }
    bool accept() { return (accepted = ::accept(listener, nullptr, nullptr)) >= 0; }
    void hangUp() { accepted = accepted >= 0 ? ::close(accepted), -1 : -1; }
};

inline int countEntries(const char* directory) {
    DIR* dir = ::opendir(directory);
    if (!dir) return -1;
    int count = 0;
    while (dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
    ::closedir(dir);
    return count - (std::string(directory) == "/proc/self/fd" ? 1 : 0);  // opendir's own
}
// The thread count once it has fallen to `baseline`, or after two seconds: a joined thread
// (here or under qemu-user) can still be leaving the task list; a leaked one never does.
inline int threadCount(int baseline = 1 << 30) {
    // Sanitizers start a helper thread with the program's first thread: that happens here.
    static const bool helperStarted = (std::thread([] {}).join(), true);
    (void)helperStarted;
    for (int i = 0; i < 200 && countEntries("/proc/self/task") > baseline; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return countEntries("/proc/self/task");
}

// A pattern ending in '*' stands for every line that starts with the rest of it.
inline bool matches(const std::string& line, const std::string& pattern) {
    if (pattern.empty() || pattern.back() != '*') return line == pattern;
    return line.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
}

inline uint32_t uidOf(const char* name) {
    return api().hashName(name, ZELSBP_NUL_TERMINATED);
}
// Request contexts are texts.
inline void* ctx(const char* text) {
    return const_cast<char*>(text);
}
inline const char* str(void* context) {
    return static_cast<const char*>(context);
}
#define ZEL_TEXT(data, size) static_cast<int>(size), reinterpret_cast<const char*>(data)

// One application with one endpoint, SBP source and sink included. Every callback adds a
// line ("status 2 0", "sink-payload 16385 pong": the formats are in the callbacks below),
// which waitFor, count, all and indexOf find from any thread, then calls the hook, if any.
class App : plat::ManualClock::Listener {
public:
    using Hook = std::function<void(App&, const std::string&)>;

    App(int32_t mode, std::string endpointUrl, plat::ManualClock* clock = nullptr)
        : url(std::move(endpointUrl)), clock_(clock) {
        ZELCDBEndpointParameters parameters = {url.c_str(), mode, this, 1, 1};
        ZELCDBEndpointCallbacks callbacks = {
            [](ZELCDBEndpoint*, void* c, const char* category, int32_t level, const char* text) {
                rec(c, "log %s/%d %s", category, level, text);
            },
            [](ZELCDBEndpoint*, void* c, int32_t status, ZELCDBError error) {
                rec(c, "status %d %d", status, error);
            },
            &servicesChanged<true>, &servicesChanged<false>,
            [](ZELCDBEndpoint*, void* c) { rec(c, "timeout"); }};
        api().endpointCreate(&ep, &parameters, sizeof parameters, &callbacks, sizeof callbacks);
        if (clock_ && ep) clock_->addListener(this);
    }
    ~App() { destroy(); }

    ZELCDBError destroy() {
        if (!ep) return ZELCDBErrorNone;
        if (clock_) clock_->removeListener(this);
        ZELCDBError result = api().endpointDestroy(ep);
        ep = nullptr;
        return result;
    }
    ZELCDBError start() { return api().endpointStart(ep); }
    ZELCDBError stop() { return api().endpointStop(ep); }

    // A plain source; returns its ID, 0 on failure (result in lastResult).
    uint16_t addSource(const char* name, uint8_t major = 1, uint8_t minor = 0,
                       uint32_t attribute = 0, uint32_t access = 0) {
        ZELCDBService service = {0, name, major, minor, attribute, access};
        ZELCDBSourceServiceCallbacks callbacks = {
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, uint8_t major, uint8_t minor) {
                rec(s, "start %d %d.%d", id, major, minor);
            },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s) { rec(s, "stop %d", id); },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data, uint32_t size) {
                rec(s, "source-payload %d %.*s", id, ZEL_TEXT(data, size));
            }};
        lastResult = api().endpointAddSourceService(ep, this, &service, sizeof service, &callbacks,
                                                    sizeof callbacks);
        return lastResult == ZELCDBErrorNone ? service.serviceId : 0;
    }
    ZELCDBError addSink(uint16_t id) {
        ZELCDBSinkCallbacks callbacks = {
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data, uint32_t size) {
                rec(s, "sink-payload %d %.*s", id, ZEL_TEXT(data, size));
            },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, uint16_t code) {
                rec(s, "response %d 0x%04x", id, code);
            }};
        return api().endpointAddSink(ep, this, id, &callbacks, sizeof callbacks);
    }
    ZELCDBError send(uint16_t id, const std::string& text) {
        return api().endpointSendServicePayload(ep, id,
                                                reinterpret_cast<const uint8_t*>(text.data()),
                                                static_cast<uint32_t>(text.size()));
    }
    ZELCDBError respond(uint16_t id, uint16_t code) {
        return api().endpointSendServiceResponse(ep, id, code);
    }
    ZELCDBError startService(uint16_t id) { return api().endpointSendStartService(ep, id); }
    ZELCDBError stopService(uint16_t id) { return api().endpointSendStopService(ep, id); }

    // An SBP source whose elements are `values`: Gets, Sets and Subscribes are answered
    // through the table from inside their callbacks.
    uint16_t addSbpSource(const char* name) {
        ZELCDBService service = {0, name, 1, 0, 0, 0};
        ZELSBPSourceCallbacks t{};
        t.serviceStartCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint8_t,
                                    uint8_t) -> int32_t { return rec(c, "sbp-start"), 0; };
        t.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c) -> int32_t {
            return rec(c, "sbp-stop"), 0;
        };
        t.serviceTerminatedCallback = [](ZELCDBEndpoint*, uint16_t, void* c) {
            rec(c, "terminated");
        };
        t.getCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid,
                           uint32_t*) { return of(c).answer(command, uid); };
        t.setCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid,
                           const uint8_t* data, int32_t size, uint32_t*) -> ZELCDBError {
            of(c).values[uid].assign(reinterpret_cast<const char*>(data), size_t(size));
            rec(c, "set %s", of(c).values[uid].c_str());
            return api().sourceSendSetResponse(e, s, nullptr, uid, 0);
        };
        t.subscribeCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid,
                                 uint32_t* type, uint32_t* interval, uint32_t*) -> ZELCDBError {
            rec(c, "subscribe %u %u", *type, *interval);
            return api().sourceSendSubscribeResponse(e, s, nullptr, uid, 0);
        };
        t.cancelCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t) {
            rec(c, "cancel %x", command);
        };
        lastResult = api().sourceCreate(ep, this, &service, sizeof service, &t, sizeof t);
        return sbpSource_ = lastResult == ZELCDBErrorNone ? service.serviceId : 0;
    }
    ZELCDBError addSbpSink(uint16_t id) {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t status) {
            rec(c, "status %d", status);
        };
        t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command, uint32_t,
                            const uint8_t* payload, int32_t size) {
            rec(c, "data %s %x %.*s", str(r), command, ZEL_TEXT(payload, size));
        };
        t.setDoneCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t) {
            rec(c, "set-done %s", str(r));
        };
        t.subscribedCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t) {
            rec(c, "subscribed %s", str(r));
        };
        t.cancelledCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                                 uint32_t) { rec(c, "cancelled %s %x", str(r), command); };
        t.errorCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                             uint32_t, ZELCDBError error, uint32_t result) {
            rec(c, "error %s %x %d %x", str(r), command, error, result);
        };
        t.aliveResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r) {
            rec(c, "alive %s", str(r));
        };
        return api().sinkCreate(ep, this, id, &t, sizeof t);
    }

    // Replaces the hook once no call of the old one is under way. Calls of the hook never
    // overlap.
    void setHook(Hook hook) {
        std::lock_guard<std::recursive_mutex> lock(hookMutex_);
        hook_ = std::move(hook);
    }
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    Lines all(const std::string& pattern) {
        std::lock_guard<std::mutex> lock(mutex_);
        return allLocked(pattern);
    }
    int count(const std::string& pattern) { return static_cast<int>(all(pattern).size()); }
    bool waitFor(const std::string& pattern, int times = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, kPatience,
                              [&] { return allLocked(pattern).size() >= size_t(times); }))
            return true;
        std::fprintf(stderr, "never saw \"%s\" (x%d); recorded:\n", pattern.c_str(), times);
        for (const auto& l : lines_) std::fprintf(stderr, "  %s\n", l.c_str());
        return false;
    }
    // Index of the first line equal to `line`, -1 if none.
    int indexOf(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find(lines_.begin(), lines_.end(), line);
        return it == lines_.end() ? -1 : static_cast<int>(it - lines_.begin());
    }

    std::string url;
    ZELCDBEndpoint* ep = nullptr;
    ZELCDBError lastResult = ZELCDBErrorNone;
    // The SBP source's elements: set before the endpoint starts, then by the source's Sets.
    std::map<uint32_t, std::string> values;

private:
    void timeChanged(plat::ManualClock&) override { ep->wakeLoop(); }

    Lines allLocked(const std::string& pattern) {
        Lines found;
        std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(found),
                     [&](const std::string& l) { return matches(l, pattern); });
        return found;
    }
    static App& of(void* context) { return *static_cast<App*>(context); }
    __attribute__((format(printf, 2, 3))) static void rec(void* context, const char* text, ...) {
        va_list args;
        va_start(args, text);
        std::string line = zeltest::formatV(text, args);
        va_end(args);
        of(context).add(line);
        std::lock_guard<std::recursive_mutex> lock(of(context).hookMutex_);
        if (of(context).hook_) of(context).hook_(of(context), line);
    }

    template <bool kAdded>
    static void servicesChanged(ZELCDBEndpoint*, void* c, uint8_t major, uint8_t minor,
                                const ZELCDBService* list, uint32_t, uint32_t count) {
        std::string text = format("%s %d.%d", kAdded ? "added" : "removed", major, minor);
        for (const ZELCDBService* s = list; s != list + count; ++s) {
            text += format(" [%d %s %d.%d 0x%x 0x%x]", s->serviceId, s->name, s->versionMajor,
                           s->versionMinor, s->serviceAttribute, s->accessControl);
        }
        rec(c, "%s", text.c_str());
    }

    // Answers a Get (or a periodic tick, command 0xB3) with the element's value, from a
    // buffer spoilt as soon as the call returns: made from inside a callback, the call is
    // performed later, from its own copy.
    ZELCDBError answer(uint32_t command, uint32_t uid) {
        std::string value = values[uid];
        ZELCDBError result = api().sourceSendGetResponse(
            ep, sbpSource_, nullptr, command, uid, 0,
            reinterpret_cast<const uint8_t*>(value.data()), uint32_t(value.size()));
        return std::fill(value.begin(), value.end(), '#'), result;
    }

    plat::ManualClock* clock_;
    uint16_t sbpSource_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    Lines lines_;  // guarded by mutex_
    std::recursive_mutex hookMutex_;
    Hook hook_;  // guarded by hookMutex_
};

// A hook for the scope of the test's locals that it refers to: removed before they go.
struct ScopedHook {
    ScopedHook(App& app, App::Hook hook) : app(app) { app.setHook(std::move(hook)); }
    ~ScopedHook() { app.setHook(nullptr); }
    App& app;
};

// A server and a client application on one port.
struct Pair {
    explicit Pair(plat::ManualClock* clock = nullptr)
        : url(freeUrl(&port)),
          server(ZELCDBEndpointModeServer, url, clock),
          client(ZELCDBEndpointModeClient, url, clock) {}

    // Starts the server, then the client, and waits until both have exchanged their service
    // lists (the n-th time).
    bool connect(int times = 1) {
        return server.start() == ZELCDBErrorNone && waitListening(port) &&
               client.start() == ZELCDBErrorNone && client.waitFor("status 2 0", times) &&
               server.waitFor("status 2 0", times) && client.waitFor("added *", times) &&
               server.waitFor("added *", times);
    }

    int port = 0;
    std::string url;
    App server, client;
};

}  // namespace sdktest
