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

using zeltest::Bytes;
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

// A TCP socket bound to a free loopback port; the port goes to *port.
inline int boundSocket(int* port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}
inline std::string loopbackUrl(int port) {
    return "cdb://127.0.0.1:" + std::to_string(port);
}
inline std::string freeUrl(int* port = nullptr) {
    int free = 0;
    ::close(boundSocket(&free));
    if (port) *port = free;
    return loopbackUrl(free);
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
struct SilentPeer {
    int port = 0;
    int listener = -1;
    int accepted = -1;
    int queued = -1;

    explicit SilentPeer(int backlog = 4) : listener(boundSocket(&port)) {
        ::listen(listener, backlog);
    }
    ~SilentPeer() {
        hangUp();
        if (queued >= 0) ::close(queued);
        ::close(listener);
    }
    std::string url() const { return loopbackUrl(port); }
    bool accept() { return (accepted = ::accept(listener, nullptr, nullptr)) >= 0; }
    void hangUp() { accepted = accepted >= 0 ? ::close(accepted), -1 : -1; }
    // Fills a backlog of 0, so that a further connect is never answered.
    void fillBacklog() {
        queued = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        ::connect(queued, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
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

// Lines of text from any thread, with bounded waits for them.
class Recorder {
public:
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    Lines startingWith(const std::string& prefix) {
        std::lock_guard<std::mutex> lock(mutex_);
        return startingWithLocked(prefix);
    }
    // Lines equal to text, or with prefix set, starting with it.
    int count(const std::string& text, bool prefix = false) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(text, prefix);
    }
    bool waitFor(const std::string& text, int times = 1, bool prefix = false) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, kPatience, [&] { return countLocked(text, prefix) >= times; }))
            return true;
        std::fprintf(stderr, "never saw \"%s\" (x%d); recorded:\n", text.c_str(), times);
        for (const auto& l : lines_) std::fprintf(stderr, "  %s\n", l.c_str());
        return false;
    }
    bool waitForPrefix(const std::string& prefix, int times = 1) {
        return waitFor(prefix, times, true);
    }
    // Index of the first line equal to `line`, -1 if none.
    int indexOf(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find(lines_.begin(), lines_.end(), line);
        return it == lines_.end() ? -1 : static_cast<int>(it - lines_.begin());
    }

private:
    int countLocked(const std::string& text, bool prefix) {
        int n = 0;
        for (const auto& l : lines_) n += prefix ? l.compare(0, text.size(), text) == 0 : l == text;
        return n;
    }
    Lines startingWithLocked(const std::string& prefix) {
        Lines found;
        for (const auto& l : lines_) {
            if (l.compare(0, prefix.size(), prefix) == 0) found.push_back(l);
        }
        return found;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Lines lines_;
};

inline uint32_t uidOf(const std::string& name) {
    return api().hashName(name.c_str(), ZELSBP_NUL_TERMINATED);
}
inline std::string nameOf(uint32_t uid) {
    for (const char* name : {"speed", "driver", "answer", "challenge", "odometer"}) {
        if (uidOf(name) == uid) return name;
    }
    return format("%x", uid);
}
// One integer element, serialized through the table.
inline Bytes intValue(const char* name, int32_t value) {
    ZELSBPSerializer* serializer = nullptr;
    if (api().serializerCreate(&serializer) != ZELCDBErrorNone) return {};
    api().serializerAddInt(serializer, uidOf(name), value);
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    api().serializerGetData(serializer, &data, &length);
    Bytes bytes(data, data + length);
    api().serializerDestroy(serializer);
    return bytes;
}
// Integers as the deserializer reads them: "speed=88"; "!<code>" when it refuses.
inline std::string decode(const uint8_t* data, int32_t size) {
    if (size <= 0) return "";
    ZELSBPDeserializerCallbacks callbacks{};
    callbacks.intCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        *static_cast<std::string*>(u) += format(" %s=%d", nameOf(uid).c_str(), v);
    };
    ZELSBPDeserializer* deserializer = nullptr;
    api().deserializerCreate(&deserializer, nullptr, &callbacks, sizeof callbacks);
    std::string text;
    ZELCDBError error =
        api().deserializerDeserialize(deserializer, &text, data, static_cast<uint32_t>(size));
    api().deserializerDestroy(deserializer);
    return error == ZELCDBErrorNone ? text.substr(1) : format("!%d", error);
}
inline std::string contextText(void* context) {
    return context ? static_cast<const char*>(context) : "-";
}
inline void* ctx(const char* text) {
    return const_cast<char*>(text);
}

// One application with one endpoint. Every callback adds a line to `events`:
//   log <category>/<level> <text>          status <status> <error>
//   added|removed <major>.<minor> [<id> <name> <major>.<minor> <attribute> <access>]...
//   timeout                                start <id> <major>.<minor>      stop <id>
//   source-payload <id> <text>             sink-payload <id> <text>        response <id> <code>
// Its SBP source (addSbpSource) adds "sbp-start", "sbp-stop", "terminated",
// "set <value>", "subscribe <name> <type> <interval>", "cancel <cmd> <name>",
// "auth-response <cmd> <name> <result> <value>"; its SBP sink (addSbpSink) adds
// "status <code>", "data <ctx> <cmd> <value>", "set-done <ctx> <name>",
// "subscribed <ctx> <name>", "cancelled <ctx> <cmd> <name>",
// "error <ctx> <cmd> <name> <error> <result>", "challenge <ctx> <cmd> <name> <value>",
// "alive <ctx>". Then it calls the hook, if any, on the callback's thread.
class App {
public:
    using Hook = std::function<void(App&, const std::string&)>;

    App(int32_t mode, std::string endpointUrl, plat::ManualClock* clock = nullptr)
        : url(std::move(endpointUrl)), clock_(clock), waker_(this) {
        ZELCDBEndpointParameters parameters = {url.c_str(), mode, this, 1, 1};
        ZELCDBEndpointCallbacks callbacks = {
            [](ZELCDBEndpoint*, void* c, const char* category, int32_t level, const char* text) {
                of(c).record(format("log %s/%d %s", category, level, text));
            },
            [](ZELCDBEndpoint*, void* c, int32_t status, ZELCDBError error) {
                of(c).record(format("status %d %d", status, error));
            },
            [](ZELCDBEndpoint*, void* c, uint8_t major, uint8_t minor, const ZELCDBService* list,
               uint32_t size, uint32_t count) {
                of(c).record("added " + services(major, minor, list, size, count));
            },
            [](ZELCDBEndpoint*, void* c, uint8_t major, uint8_t minor, const ZELCDBService* list,
               uint32_t size, uint32_t count) {
                of(c).record("removed " + services(major, minor, list, size, count));
            },
            [](ZELCDBEndpoint*, void* c) { of(c).record("timeout"); }};
        created =
            api().endpointCreate(&ep, &parameters, sizeof parameters, &callbacks, sizeof callbacks);
        if (clock_ && ep) clock_->addListener(&waker_);
    }
    ~App() { destroy(); }

    ZELCDBError destroy() {
        if (!ep) return ZELCDBErrorNone;
        if (clock_) clock_->removeListener(&waker_);
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
                of(s).record(format("start %d %d.%d", id, major, minor));
            },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s) {
                of(s).record(format("stop %d", id));
            },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data, uint32_t length) {
                of(s).record(format("source-payload %d ", id) + text(data, length));
            }};
        lastResult = api().endpointAddSourceService(ep, this, &service, sizeof service, &callbacks,
                                                    sizeof callbacks);
        return lastResult == ZELCDBErrorNone ? service.serviceId : 0;
    }
    ZELCDBError addSink(uint16_t id) {
        ZELCDBSinkCallbacks callbacks = {
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data, uint32_t length) {
                of(s).record(format("sink-payload %d ", id) + text(data, length));
            },
            [](ZELCDBEndpoint*, void*, uint16_t id, void* s, uint16_t code) {
                of(s).record(format("response %d 0x%04x", id, code));
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

    // An SBP source whose elements are `values`. A Get is answered through the table from
    // inside its callback, except that "driver" is challenged first and answered once the
    // challenge is; an element without a value is refused with 0x10000066 (not the default
    // failure code, so that the application's own code is seen to travel). Sets and
    // Subscribes are answered through the table, also from inside their callbacks.
    uint16_t addSbpSource(const char* name) {
        ZELCDBService service = {0, name, 1, 0, 0, 0};
        ZELSBPSourceCallbacks callbacks = sourceCallbacks();
        lastResult =
            api().sourceCreate(ep, this, &service, sizeof service, &callbacks, sizeof callbacks);
        return sbpSource_ = lastResult == ZELCDBErrorNone ? service.serviceId : 0;
    }
    ZELCDBError addSbpSink(uint16_t id) {
        ZELSBPSinkCallbacks callbacks = sinkCallbacks();
        return api().sinkCreate(ep, this, id, &callbacks, sizeof callbacks);
    }
    // Before the endpoint starts; afterwards the source's own Sets change them.
    void setValue(const std::string& name, Bytes value) { values_[uidOf(name)] = std::move(value); }

    // Replaces the hook once no call of the old one is under way; not from inside a hook.
    void setHook(Hook hook) {
        std::unique_lock<std::mutex> lock(hookMutex_);
        hookIdle_.wait(lock, [&] { return hooksRunning_ == 0; });
        hook_ = std::move(hook);
    }
    bool waitFor(const std::string& line, int times = 1) { return events.waitFor(line, times); }

    std::string url;
    ZELCDBEndpoint* ep = nullptr;
    ZELCDBError created = ZELCDBErrorFailed;
    ZELCDBError lastResult = ZELCDBErrorNone;
    Recorder events;

private:
    struct Waker : plat::ManualClock::Listener {
        explicit Waker(App* app) : app(app) {}
        void timeChanged(plat::ManualClock&) override { app->ep->wakeLoop(); }
        App* app;
    };

    void record(std::string line) {
        events.add(line);
        Hook hook;
        {
            std::lock_guard<std::mutex> lock(hookMutex_);
            if (!hook_) return;
            hook = hook_;
            ++hooksRunning_;
        }
        hook(*this, line);
        std::lock_guard<std::mutex> lock(hookMutex_);
        if (--hooksRunning_ == 0) hookIdle_.notify_all();
    }
    static App& of(void* context) { return *static_cast<App*>(context); }
    static std::string services(uint8_t major, uint8_t minor, const ZELCDBService* list,
                                uint32_t size, uint32_t count) {
        std::string text = format("%d.%d", major, minor);
        if (size != sizeof(ZELCDBService)) text += format(" size %u", size);
        for (uint32_t i = 0; i < count && list; ++i) {
            const ZELCDBService& s = list[i];
            text += format(" [%d %s %d.%d 0x%x 0x%x]", s.serviceId, s.name, s.versionMajor,
                           s.versionMinor, s.serviceAttribute, s.accessControl);
        }
        return text;
    }
    static std::string text(const uint8_t* data, uint32_t length) {
        return std::string(reinterpret_cast<const char*>(data), length);
    }

    // Answers a Get (or a periodic tick, command 0xB3) with the element's value.
    // The buffers handed to the table here are spoilt as soon as the calls return: made
    // from inside callbacks, the calls are performed later, from their own copies.
    ZELCDBError answer(uint32_t command, uint32_t uid) {
        Bytes v = values_[uid];
        ZELCDBError result = api().sourceSendGetResponse(ep, sbpSource_, nullptr, command, uid, 0,
                                                         v.data(), static_cast<uint32_t>(v.size()));
        return std::fill(v.begin(), v.end(), 0xEE), result;
    }
    static ZELSBPSourceCallbacks sourceCallbacks() {
        ZELSBPSourceCallbacks t{};
        t.serviceStartCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint8_t,
                                    uint8_t) -> int32_t { return of(c).record("sbp-start"), 0; };
        t.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c) -> int32_t {
            return of(c).record("sbp-stop"), 0;
        };
        t.serviceTerminatedCallback = [](ZELCDBEndpoint*, uint16_t, void* c) {
            of(c).record("terminated");
        };
        t.getCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t command, uint32_t uid,
                           uint32_t* result) -> ZELCDBError {
            App& app = of(c);
            *result = 0x10000066;
            if (app.values_[uid].empty()) return ZELCDBErrorLocalSBPError;
            if (uid != uidOf("driver")) return app.answer(command, uid);
            Bytes question = intValue("challenge", 1);
            ZELCDBError sent =
                api().sourceSendServiceAuthChallenge(e, s, nullptr, command, uid, question.data(),
                                                     static_cast<uint32_t>(question.size()));
            return std::fill(question.begin(), question.end(), 0xEE), sent;
        };
        t.setCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid,
                           const uint8_t* data, int32_t size, uint32_t*) -> ZELCDBError {
            App& app = of(c);
            app.record("set " + decode(data, size));
            app.values_[uid].assign(data, data + size);
            return api().sourceSendSetResponse(e, s, nullptr, uid, 0);
        };
        t.subscribeCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid,
                                 uint32_t* type, uint32_t* interval, uint32_t*) -> ZELCDBError {
            of(c).record(format("subscribe %s %u %u", nameOf(uid).c_str(), *type, *interval));
            return api().sourceSendSubscribeResponse(e, s, nullptr, uid, 0);
        };
        t.cancelCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid) {
            of(c).record(format("cancel %x ", command) + nameOf(uid));
        };
        t.authResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t command,
                                    uint32_t uid, uint32_t result, const uint8_t* data,
                                    int32_t size) {
            App& app = of(c);
            app.record(format("auth-response %x %s %x ", command, nameOf(uid).c_str(), result) +
                       decode(data, size));
            app.answer(command, uid);
        };
        return t;
    }
    static ZELSBPSinkCallbacks sinkCallbacks() {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t status) {
            of(c).record(format("status %d", status));
        };
        t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command, uint32_t,
                            const uint8_t* payload, int32_t size) {
            of(c).record(format("data %s %x ", contextText(r).c_str(), command) +
                         decode(payload, size));
        };
        t.setDoneCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t uid) {
            of(c).record("set-done " + contextText(r) + " " + nameOf(uid));
        };
        t.subscribedCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t uid) {
            of(c).record("subscribed " + contextText(r) + " " + nameOf(uid));
        };
        t.cancelledCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                                 uint32_t uid) {
            of(c).record(format("cancelled %s %x ", contextText(r).c_str(), command) + nameOf(uid));
        };
        t.errorCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                             uint32_t uid, ZELCDBError error, uint32_t result) {
            of(c).record(format("error %s %x %s %d %x", contextText(r).c_str(), command,
                                nameOf(uid).c_str(), error, result));
        };
        t.authChallengeCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, void* r,
                                     uint32_t command, uint32_t uid, const uint8_t* challenge,
                                     int32_t size) {
            of(c).record(format("challenge %s %x %s ", contextText(r).c_str(), command,
                                nameOf(uid).c_str()) +
                         decode(challenge, size));
            Bytes proof = intValue("answer", 2);
            api().sinkSendServiceAuthResponse(e, s, r, command, uid, 0, proof.data(),
                                              static_cast<uint32_t>(proof.size()));
            std::fill(proof.begin(), proof.end(), 0xEE);
        };
        t.aliveResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r) {
            of(c).record("alive " + contextText(r));
        };
        return t;
    }

    plat::ManualClock* clock_;
    Waker waker_;
    uint16_t sbpSource_ = 0;
    std::map<uint32_t, Bytes> values_;  // the SBP source's elements
    std::mutex hookMutex_;
    std::condition_variable hookIdle_;
    int hooksRunning_ = 0;  // this and hook_ guarded by hookMutex_
    Hook hook_;
};

// A hook for the scope of the test's locals that it refers to: removed before they go.
class ScopedHook {
public:
    ScopedHook(App& app, App::Hook hook) : app_(app) { app_.setHook(std::move(hook)); }
    ~ScopedHook() { app_.setHook(nullptr); }

private:
    App& app_;
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
               server.waitFor("status 2 0", times) &&
               client.events.waitForPrefix("added ", times) &&
               server.events.waitForPrefix("added ", times);
    }

    int port = 0;
    std::string url;
    App server;
    App client;
};

}  // namespace sdktest
