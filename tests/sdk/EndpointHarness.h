#pragma once

// An application as the endpoint tests see it: one endpoint driven through the C function
// table only, with every callback recorded as a line of text, and hooks that let a test act
// from inside a callback. Plus loopback helpers: free ports, silent raw peers, and counts of
// the process's threads and descriptors.

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "plat/ManualClock.h"
#include "sdk/ZELCDBEndpoint.h"
#include "zelcdbsdk.h"

namespace sdktest {

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

inline std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* fmt, ...) {
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
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

// A loopback port that nothing listens on at the moment.
inline int freePort() {
    int port = 0;
    ::close(boundSocket(&port));
    return port;
}

inline std::string loopbackUrl(int port) {
    return "cdb://127.0.0.1:" + std::to_string(port);
}
inline std::string freeUrl() {
    return loopbackUrl(freePort());
}

// Waits until something listens on the loopback port (a server endpoint's thread listens
// some time after its Start has returned). Reads the kernel's table rather than connecting,
// which would take the server's one connection.
inline bool waitListening(int port) {
    char wanted[32];
    std::snprintf(wanted, sizeof wanted, ":%04X 00000000:0000 0A", port);
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream table("/proc/net/tcp");
        for (std::string line; std::getline(table, line);) {
            if (line.find(wanted) != std::string::npos) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// A raw TCP listener on a free loopback port: it accepts (when asked) and never says a word.
struct SilentPeer {
    int port = 0;
    int listener = -1;
    int accepted = -1;
    std::vector<int> extra;

    explicit SilentPeer(int backlog = 4) : listener(boundSocket(&port)) {
        ::listen(listener, backlog);
    }
    ~SilentPeer() {
        if (accepted >= 0) ::close(accepted);
        for (int fd : extra) ::close(fd);
        ::close(listener);
    }
    std::string url() const { return loopbackUrl(port); }
    bool accept() {
        accepted = ::accept(listener, nullptr, nullptr);
        return accepted >= 0;
    }
    // Closes the accepted connection: the peer is gone.
    void hangUp() {
        if (accepted >= 0) ::close(accepted);
        accepted = -1;
    }
    // Ends the peer's side of the stream; the other end reads its end.
    void finish() { ::shutdown(accepted, SHUT_WR); }
    // Waits until the other end has sent something.
    bool waitReadable() {
        pollfd entry = {accepted, POLLIN, 0};
        return ::poll(&entry, 1, 10000) == 1;
    }
    // Fills the accept queue, so that a further connect is never answered.
    void fillBacklog() {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        extra.push_back(fd);
    }
};

inline int countEntries(const char* directory) {
    DIR* dir = ::opendir(directory);
    if (!dir) return -1;
    int count = 0;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(dir);
    return count - (std::string(directory) == "/proc/self/fd" ? 1 : 0);  // opendir's own
}
inline int threadCount() {
    // Sanitizers start a helper thread of their own when the program creates its first
    // thread: that happens here, before anything is counted.
    static const bool helperStarted = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)helperStarted;
    return countEntries("/proc/self/task");
}
// The thread count once it has fallen to `baseline`, or after two seconds. Threads that an
// earlier step joined, or that the test's own helpers ran, can still be leaving the task
// list when the test looks; a thread that leaked never does.
inline int threadCountSettledAt(int baseline) {
    for (int i = 0; i < 200 && threadCount() > baseline; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return threadCount();
}
inline int descriptorCount() {
    return countEntries("/proc/self/fd");
}

// Lines of text from any thread, with bounded waits for them.
class Recorder {
public:
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    int count(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(line, false);
    }
    template <typename Duration = decltype(kPatience)>
    bool waitFor(const std::string& line, int times = 1, Duration patience = kPatience) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return countLocked(line, false) >= times; });
    }
    bool waitForPrefix(const std::string& prefix, int times = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience,
                                 [&] { return countLocked(prefix, true) >= times; });
    }
    // Index of the first line equal to `line`, -1 if none.
    int indexOf(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < lines_.size(); ++i) {
            if (lines_[i] == line) return static_cast<int>(i);
        }
        return -1;
    }
    // The lines that start with prefix, in order.
    std::vector<std::string> startingWith(const std::string& prefix) {
        std::vector<std::string> found;
        for (const auto& l : lines()) {
            if (l.compare(0, prefix.size(), prefix) == 0) found.push_back(l);
        }
        return found;
    }

private:
    int countLocked(const std::string& text, bool prefix) {
        int n = 0;
        for (const auto& l : lines_) n += prefix ? l.compare(0, text.size(), text) == 0 : l == text;
        return n;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

// One application with one endpoint. Every callback adds a line to `events`:
//   log <category>/<level> <text>          status <status> <error>
//   added|removed <major>.<minor> [<id> <name> <major>.<minor> <attribute> <access>]...
//   timeout                                start <id> <major>.<minor>      stop <id>
//   source-payload <id> <text>             sink-payload <id> <text>        response <id> <code>
// then calls the hook, if any, on the callback's thread, outside any test lock.
class App {
public:
    using Hook = std::function<void(App&, const std::string&)>;

    App(int32_t mode, const std::string& endpointUrl, plat::ManualClock* clock = nullptr)
        : url(endpointUrl), clock_(clock), waker_(this) {
        ZELCDBEndpointParameters parameters = {url.c_str(), mode, this, 1, 1};
        ZELCDBEndpointCallbacks callbacks = {&onLog, &onStatus, &onAdded, &onRemoved, &onTimeout};
        created =
            api().endpointCreate(&ep, &parameters, sizeof parameters, &callbacks, sizeof callbacks);
        if (clock_ && ep) clock_->addListener(&waker_);
    }
    ~App() { destroy(); }
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    ZELCDBError destroy() {
        if (!ep) return ZELCDBErrorNone;
        if (clock_) clock_->removeListener(&waker_);
        ZELCDBError result = api().endpointDestroy(ep);
        ep = nullptr;
        return result;
    }

    ZELCDBError start() { return api().endpointStart(ep); }
    ZELCDBError stop() { return api().endpointStop(ep); }

    // Registers a plain source whose callbacks record start, stop and payload. Returns the
    // ID, 0 on failure (result in lastResult).
    uint16_t addSource(const char* name, uint8_t major = 1, uint8_t minor = 0,
                       uint32_t attribute = 0, uint32_t access = 0) {
        ZELCDBService service = {0, name, major, minor, attribute, access};
        ZELCDBSourceServiceCallbacks callbacks = {&onStart, &onStop, &onSourcePayload};
        lastResult = api().endpointAddSourceService(ep, this, &service, sizeof service, &callbacks,
                                                    sizeof callbacks);
        return lastResult == ZELCDBErrorNone ? service.serviceId : 0;
    }
    ZELCDBError addSink(uint16_t id) {
        ZELCDBSinkCallbacks callbacks = {&onSinkPayload, &onResponse};
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

    // Replaces the hook once no call of the old one is under way, so that a test may clear
    // a hook that refers to its locals before they go. Not from inside a hook.
    void setHook(Hook hook) {
        std::unique_lock<std::mutex> lock(hookMutex_);
        hookIdle_.wait(lock, [&] { return hooksRunning_ == 0; });
        hook_ = std::move(hook);
    }

    // Waits for a line; on failure prints what was recorded.
    bool waitFor(const std::string& line, int times = 1) {
        if (events.waitFor(line, times)) return true;
        std::fprintf(stderr, "never saw \"%s\" (x%d); recorded:\n", line.c_str(), times);
        for (const auto& l : events.lines()) std::fprintf(stderr, "  %s\n", l.c_str());
        return false;
    }
    bool waitForLog(int level, const std::string& text, const char* category = "CDBEndpoint") {
        return waitFor(format("log %s/%d %s", category, level, text.c_str()));
    }

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
        if ((list == nullptr) != (count == 0)) text += " bad-pointer";
        for (uint32_t i = 0; i < count && list; ++i) {
            const ZELCDBService& s = list[i];
            text += format(" [%d %s %d.%d 0x%x 0x%x]", s.serviceId, s.name, s.versionMajor,
                           s.versionMinor, s.serviceAttribute, s.accessControl);
        }
        return text;
    }
    static std::string bytes(const uint8_t* data, uint32_t length) {
        return std::string(reinterpret_cast<const char*>(data), length);
    }

    static void onLog(ZELCDBEndpoint*, void* c, const char* category, int32_t level,
                      const char* text) {
        of(c).record(format("log %s/%d %s", category, level, text));
    }
    static void onStatus(ZELCDBEndpoint*, void* c, int32_t status, ZELCDBError error) {
        of(c).record(format("status %d %d", status, error));
    }
    static void onAdded(ZELCDBEndpoint*, void* c, uint8_t major, uint8_t minor,
                        const ZELCDBService* list, uint32_t size, uint32_t count) {
        of(c).record("added " + services(major, minor, list, size, count));
    }
    static void onRemoved(ZELCDBEndpoint*, void* c, uint8_t major, uint8_t minor,
                          const ZELCDBService* list, uint32_t size, uint32_t count) {
        of(c).record("removed " + services(major, minor, list, size, count));
    }
    static void onTimeout(ZELCDBEndpoint*, void* c) { of(c).record("timeout"); }
    static void onStart(ZELCDBEndpoint*, void*, uint16_t id, void* s, uint8_t major,
                        uint8_t minor) {
        of(s).record(format("start %d %d.%d", id, major, minor));
    }
    static void onStop(ZELCDBEndpoint*, void*, uint16_t id, void* s) {
        of(s).record(format("stop %d", id));
    }
    static void onSourcePayload(ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data,
                                uint32_t length) {
        of(s).record(format("source-payload %d ", id) + bytes(data, length));
    }
    static void onSinkPayload(ZELCDBEndpoint*, void*, uint16_t id, void* s, const uint8_t* data,
                              uint32_t length) {
        of(s).record(format("sink-payload %d ", id) + bytes(data, length));
    }
    static void onResponse(ZELCDBEndpoint*, void*, uint16_t id, void* s, uint16_t code) {
        of(s).record(format("response %d 0x%04x", id, code));
    }

    plat::ManualClock* clock_;
    Waker waker_;
    std::mutex hookMutex_;
    std::condition_variable hookIdle_;
    int hooksRunning_ = 0;
    Hook hook_;
};

// A hook for the scope of a test's locals that it refers to: declared after them, it is
// removed (once no call of it is under way) before they go.
class ScopedHook {
public:
    ScopedHook(App& app, App::Hook hook) : app_(app) { app_.setHook(std::move(hook)); }
    ~ScopedHook() { app_.setHook(nullptr); }
    ScopedHook(const ScopedHook&) = delete;
    ScopedHook& operator=(const ScopedHook&) = delete;

private:
    App& app_;
};

// Moves the clock in steps until the line shows (the loop may not have armed its timer yet
// when the first step is taken).
inline bool advanceUntil(plat::ManualClock& clock, App& app, const std::string& line, int stepMs,
                         int maxSteps = 20) {
    for (int i = 0; i < maxSteps; ++i) {
        clock.advanceMs(stepMs);
        if (app.events.waitFor(line, 1, std::chrono::milliseconds(100))) return true;
    }
    return app.waitFor(line);
}

// A connected pair on one port: a server and a client application.
struct Pair {
    explicit Pair(plat::ManualClock* clock = nullptr)
        : port(freePort()),
          url(loopbackUrl(port)),
          server(ZELCDBEndpointModeServer, url, clock),
          client(ZELCDBEndpointModeClient, url, clock) {}

    // Starts the server, then the client, and waits until both have exchanged their
    // service lists (the n-th time).
    bool connect(int times = 1) {
        if (server.start() != ZELCDBErrorNone || !waitListening(port) ||
            client.start() != ZELCDBErrorNone) {
            return false;
        }
        return client.waitFor("status 2 0", times) && server.waitFor("status 2 0", times) &&
               client.events.waitForPrefix("added ", times) &&
               server.events.waitForPrefix("added ", times);
    }

    int port;
    std::string url;
    App server;
    App client;
};

}  // namespace sdktest
