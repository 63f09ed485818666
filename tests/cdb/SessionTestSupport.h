#pragma once

// Sessions on their own thread, driven on the virtual clock, against a scripted peer that
// speaks raw CDB bytes over loopback, or against each other.
//
// SessionHost is the fake endpoint: the queue's servicer, whose run() creates the session on
// the queue's thread (its timer manager binds there) and runs it; tests reach the session
// only through messages posted to that queue, as the endpoint does. RawPeer is the other
// end of the socket; it shows every message it receives as one line of text. Session runs
// the two together and moves virtual time in steps, answering the session's pings.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cdb/CDBReader.h"
#include "cdb/CDBSession.h"
#include "cdb/CDBTestSupport.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "plat/Exception.h"
#include "plat/ManualClock.h"
#include "rdr/MemOutStream.h"

namespace sessiontest {

using cdbtest::Bytes;
using zelcdbsdk::CDBService;
using zelcdbsdk::CDBSession;
using zelcdbsdk::CDBVersion;
using HandlerRef = CDBService::HandlerRef;

// How long a test waits in real time for the other thread or the peer before it fails.
constexpr int kPatienceMs = 10000;

enum class Role { Client, Server };

inline std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

inline std::string describe(const CDBService& s) {
    return fmt("0x%04x %s %d.%d attr=%d ac=%d", s.id, s.name(), s.version.majorNumber,
               s.version.minorNumber, s.serviceAttribute, s.accessControl);
}

// What the owner and the service handlers were told, in order; written by the session
// thread, read by the test.
class Trace {
public:
    void add(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> events;
        events.swap(events_);
        return events;
    }
    // Waits for an event that begins with prefix; leaves the trace alone.
    bool waitFor(const std::string& prefix) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kPatienceMs), [&] {
            for (const std::string& e : events_)
                if (e.compare(0, prefix.size(), prefix) == 0) return true;
            return false;
        });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

// Log lines of every thread, "<level> <text>", one list per facility asked for.
class SharedLog : public plat::Logger {
public:
    void log(int level, const char* facility, const char* format, va_list args) override {
        std::lock_guard<std::mutex> lock(mutex_);
        all_.log(level, facility, format, args);
    }
    std::vector<std::string> lines(const std::string& facility = "CDBSession", int maxLevel = 30) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> out;
        for (const auto& l : all_.lines)
            if (l.facility == facility && l.level <= maxLevel)
                out.push_back(std::to_string(l.level) + " " + l.text);
        return out;
    }
    bool has(const std::string& line, const std::string& facility = "CDBSession") {
        std::vector<std::string> all = lines(facility, 100);
        return std::find(all.begin(), all.end(), line) != all.end();
    }

private:
    std::mutex mutex_;
    zeltest::RecordingLogger all_;
};

// A service handler that writes what it is given into a trace; onStart, if set, runs inside
// startService (on the session thread).
class TraceHandler : public CDBService::Handler {
public:
    TraceHandler(Trace& trace, uint16_t id) : Handler(nullptr, id), trace_(trace) {}
    static HandlerRef make(Trace& trace, uint16_t id) {
        return HandlerRef::adopt(new TraceHandler(trace, id));
    }
    void startService(CDBVersion v) override {
        trace_.add(fmt("start 0x%04x %d.%d", serviceId(), v.majorNumber, v.minorNumber));
        if (onStart) onStart();
    }
    void stopService() override { trace_.add(fmt("stop 0x%04x", serviceId())); }
    void serviceResponse(uint16_t code) override {
        trace_.add(fmt("response 0x%04x 0x%04x", serviceId(), code));
    }
    void servicePayload(const uint8_t* data, size_t n) override {
        trace_.add(fmt("payload 0x%04x ", serviceId()) + cdbtest::hex(Bytes(data, data + n)));
    }
    std::function<void()> onStart;

private:
    Trace& trace_;
};

// The fake endpoint. Configure the public fields, then start().
class SessionHost : public zelcdbsdk::CDBSessionOwner,
                    public messaging::ControlMessageQueue::Servicer,
                    public plat::ManualClock::Listener {
public:
    SessionHost(Role role, std::string url, plat::ManualClock* clock)
        : role_(role), url_(std::move(url)), clock_(clock) {
        if (clock_) clock_->addListener(this);
    }
    ~SessionHost() override {
        if (clock_) clock_->removeListener(this);
        queue_.join();
    }

    void start() {
        started_ = true;
        queue_.start();
        queue_.waitForStartUp();  // from here on, on() reaches the session's loop
    }

    // Runs fn with the session on the session thread; false once the session is gone.
    bool on(const std::function<void(CDBSession&)>& fn) {
        messagingtest::FnMessage message([&] {
            if (!session_) return 0;
            fn(*session_);
            return 1;
        });
        return queue_.postSynchronously(message) == 1;
    }
    // Queues fn for the session thread and returns at once.
    void post(std::function<void(CDBSession&)> fn) {
        queue_.postAsynchronously(new messagingtest::FnMessage([this, fn] {
            if (session_) fn(*session_);
            return 0;
        }));
    }
    // Returns once the session has begun a loop turn after the call, so every timer due at
    // the current virtual time has fired and what it wrote is queued for the socket.
    void settle() {
        uint64_t first = 0, now = 0;
        if (!on([&](CDBSession& s) { first = s.loopTurns(); })) return;
        while (on([&](CDBSession& s) { now = s.loopTurns(); }) && now == first) {
        }
    }
    // How run() ended: "Disconnected" or the text of what it threw; "running" when it has
    // not ended within the patience.
    std::string outcome() {
        if (!started_) return "not started";
        std::unique_lock<std::mutex> lock(mutex_);
        ended_.wait_for(lock, std::chrono::milliseconds(kPatienceMs), [&] { return done_; });
        return done_ ? outcome_ : "running";
    }

    std::vector<CDBService> services;  // own services, handlers attached
    CDBVersion version{1, 1};
    Trace trace;
    SharedLog log;
    std::function<void(CDBSession&)> beforeRun;  // session thread, before run()
    std::function<void()> afterServiceMessages;  // session thread

private:
    void run() override {
        std::unique_ptr<CDBSession> session = role_ == Role::Client
                                                  ? CDBSession::createClient(*this)
                                                  : CDBSession::createServer(*this);
        session_ = session.get();
        std::string outcome = "Disconnected";
        try {
            if (beforeRun) beforeRun(*session);
            session->run();
            if (session->state() != CDBSession::Disconnected) outcome = "returned early";
        } catch (const plat::Exception& e) {
            outcome = e.str();
        } catch (...) {
            outcome = "unexpected exception";
        }
        if (depth_ != 0) outcome += " (callback bracket left open)";
        session_ = nullptr;
        session.reset();
        std::lock_guard<std::mutex> lock(mutex_);
        outcome_ = outcome;
        done_ = true;
        ended_.notify_all();
    }

    // CDBSessionOwner
    const std::vector<CDBService>& localServices() override { return services; }
    CDBVersion cdbVersion() override { return version; }
    const char* url() override { return url_.c_str(); }
    plat::Logger* logger() override { return &log; }
    int wakeupDescriptor() override { return queue_.getWakeupDescriptor(); }
    void serviceMessages() override {
        queue_.serviceMessages();
        if (afterServiceMessages) afterServiceMessages();
    }
    void sessionConnected() override { trace.add("connected"); }
    void peerServicesChanged(CDBVersion v, const std::vector<const CDBService*>& list,
                             bool added) override {
        std::string event =
            fmt("%s %d.%d [", added ? "added" : "removed", v.majorNumber, v.minorNumber);
        for (const CDBService* s : list) event += (event.back() == '[' ? "" : ", ") + describe(*s);
        trace.add(event + "]");
    }
    void servicesRequestTimedOut() override { trace.add("services request timed out"); }
    // CDBEndpointHost
    ZELCDBEndpoint* endpointHandle() override { return reinterpret_cast<ZELCDBEndpoint*>(this); }
    void* endpointContext() override { return this; }
    void enterCallback() override { ++depth_; }
    void leaveCallback() override { --depth_; }
    // ManualClock::Listener: the loop waits without limit on virtual time; wake it.
    void timeChanged(plat::ManualClock&) override {
        queue_.postAsynchronously(new messagingtest::FnMessage([] { return 0; }));
    }

    Role role_;
    std::string url_;
    plat::ManualClock* clock_;
    messaging::ControlMessageQueueUNIX queue_{this};
    CDBSession* session_ = nullptr;  // session thread only
    int depth_ = 0;                  // session thread only
    bool started_ = false;           // test thread only
    std::mutex mutex_;
    std::condition_variable ended_;
    bool done_ = false;    // guarded by mutex_
    std::string outcome_;  // guarded by mutex_
};

// Renders each message the peer receives as one line.
class TextHandler : public zelcdbsdk::CDBProtocolHandler {
public:
    std::deque<std::string> messages;

    void handleServicesRequest(CDBVersion v) override {
        messages.push_back(fmt("ServicesRequest %d.%d", v.majorNumber, v.minorNumber));
    }
    void handleServicesSupported(CDBVersion v, const std::vector<CDBService>& list,
                                 uint16_t) override {
        std::string text = fmt("ServicesSupported %d.%d", v.majorNumber, v.minorNumber);
        for (const CDBService& s : list) text += (&s == &list[0] ? ": " : ", ") + describe(s);
        messages.push_back(text);
    }
    void handleStartService(uint16_t id, CDBVersion v) override {
        messages.push_back(fmt("StartService 0x%04x %d.%d", id, v.majorNumber, v.minorNumber));
    }
    void handleStopService(uint16_t id) override {
        messages.push_back(fmt("StopService 0x%04x", id));
    }
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        messages.push_back(fmt("ServicePayload 0x%04x ac=%d ", id, ac) +
                           cdbtest::hex(Bytes(data, data + n)));
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override {
        messages.push_back(fmt("ServiceResponse 0x%04x 0x%04x", id, code));
    }
    void handlePing(uint16_t n) override { messages.push_back(fmt("Ping %d", n)); }
    void handlePingResponse(uint16_t n) override { messages.push_back(fmt("PingResponse %d", n)); }
    void handleByeBye() override { messages.push_back("ByeBye"); }
};

inline sockaddr_in loopback(int port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

inline int boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// A loopback port for a server session, held bound (not listening) with SO_REUSEADDR so
// that nothing else takes it; the session binds it again and listens.
class ReservedPort {
public:
    ReservedPort() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        int on = 1;
        ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address = loopback();
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        port_ = boundPort(fd_);
    }
    ~ReservedPort() { ::close(fd_); }
    int port() const { return port_; }
    std::string url() const { return "cdb://127.0.0.1:" + std::to_string(port_); }

private:
    int fd_;
    int port_;
};

// The scripted end of the connection. What tests write through w() goes out before the
// peer next reads.
class RawPeer {
public:
    ~RawPeer() {
        close();
        if (listener_ >= 0) ::close(listener_);
    }

    // For a client session: listens on an ephemeral loopback port; returns its URL.
    std::string listen() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback();
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 1);
        return "cdb://127.0.0.1:" + std::to_string(boundPort(listener_));
    }
    bool accept() {
        pollfd entry = {listener_, POLLIN, 0};
        if (::poll(&entry, 1, kPatienceMs) != 1) return false;
        fd_ = ::accept(listener_, nullptr, nullptr);
        return fd_ >= 0;
    }
    // For a server session: connects, retrying while the session is not listening yet.
    bool connect(int port) {
        sockaddr_in address = loopback(port);
        for (int tries = 0; tries < kPatienceMs; ++tries) {
            fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
            if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
                return true;
            close();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    zelcdbsdk::CDBWriter& w() { return writer_; }
    void sendRaw(const Bytes& bytes, int flags = 0) {
        flush();
        if (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags) < 0) ADD_FAILURE();
    }

    // The next message from the session; "closed" when it closed the connection, "nothing"
    // when none came within the patience.
    std::string next() {
        flush();
        while (text_.messages.empty()) {
            pollfd entry = {fd_, POLLIN, 0};
            if (::poll(&entry, 1, kPatienceMs) != 1) return "nothing";
            uint8_t buffer[65536];
            ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0) return "closed";
            in_.feed(buffer, static_cast<size_t>(got));
            while (reader_.processMessages()) {
            }
        }
        std::string message = text_.messages.front();
        text_.messages.pop_front();
        return message;
    }
    // Everything the session sent before it answered a Ping of ours.
    std::vector<std::string> sync() {
        uint16_t sequence = syncSequence_++;
        writer_.sendPing(sequence);
        std::vector<std::string> before;
        for (;;) {
            std::string message = next();
            if (message == fmt("PingResponse %d", sequence)) return before;
            before.push_back(message);
            if (message == "closed" || message == "nothing") return before;
        }
    }

private:
    void flush() {
        if (out_.length() == 0) return;
        if (::send(fd_, out_.data(), out_.length(), MSG_NOSIGNAL) < 0) ADD_FAILURE() << "send";
        out_.clear();
    }

    int listener_ = -1;
    int fd_ = -1;
    rdr::MemOutStream out_;
    zelcdbsdk::CDBWriter writer_{out_, nullptr};
    cdbtest::FeedInStream in_;
    TextHandler text_;
    zelcdbsdk::CDBReader reader_{text_, in_, nullptr};
    uint16_t syncSequence_ = 0xf000;  // far from the session's own pings
};

// One session against a scripted peer on a virtual clock of its own.
class Session {
public:
    explicit Session(Role role) : role(role) {
        host.reset(
            new SessionHost(role, role == Role::Client ? peer.listen() : port_.url(), &clock));
    }
    ~Session() {
        // Whatever state the test left it in: a closed peer ends a connection, terminate()
        // ends the waiting for one, and the ByeBye timer a session that still waits.
        peer.close();
        host->on([](CDBSession& s) { s.terminate(); });
        clock.advanceMs(5000);
        if (host->outcome() == "running") {
            ADD_FAILURE() << "the session did not end";
            std::abort();  // the queue would wait for its thread for ever
        }
    }

    // Own service i (0-based) and the peer's service i, by role.
    uint16_t own(int i) const { return static_cast<uint16_t>((isClient() ? 0x0001 : 0x4001) + i); }
    uint16_t theirs(int i) const {
        return static_cast<uint16_t>((isClient() ? 0x4001 : 0x0001) + i);
    }
    bool isClient() const { return role == Role::Client; }
    int port() const { return port_.port(); }  // a server session's

    // Adds an own service with a trace handler; before connect().
    void addService(const char* name, CDBVersion v, uint8_t attribute = 0, uint8_t access = 0) {
        uint16_t id = own(static_cast<int>(host->services.size()));
        handlers.push_back(TraceHandler::make(host->trace, id));
        host->services.emplace_back(id, v, attribute, access, name, handlers.back().get());
    }
    // Starts the session and the connection; the session's ServicesRequest is taken.
    void connect() {
        host->start();
        bool connected = isClient() ? peer.accept() : peer.connect(port_.port());
        ASSERT_TRUE(connected);
        ASSERT_EQ(peer.next(), "ServicesRequest 1.1");
        ASSERT_TRUE(host->trace.waitFor("connected"));
        host->trace.take();
    }
    // connect(), then the peer answers with its services (in the session's peer range).
    void exchange(const std::vector<CDBService>& services) {
        connect();
        peer.w().sendServicesSupported({1, 1}, services.data(), services.size());
        ASSERT_EQ(peer.sync(), std::vector<std::string>{});
        ASSERT_TRUE(host->trace.waitFor("added"));
        host->trace.take();
    }
    // Adds a sink with a trace handler on a peer service.
    void addSink(uint16_t id) {
        handlers.push_back(TraceHandler::make(host->trace, id));
        CDBService::Handler* handler = handlers.back().get();
        host->on([&](CDBSession& s) { s.addSink(id, handler); });
    }

    // Moves virtual time on by ms in steps of at most a second, answering the session's
    // pings as a healthy peer does unless told not to; returns what else the session sent,
    // each line prefixed with the milliseconds since connect(). What the test wrote through
    // peer.w() reaches the session before time moves.
    std::vector<std::string> advance(int64_t ms, bool answerPings = true) {
        std::vector<std::string> seen;
        bool open = collect(seen, answerPings);
        for (int64_t done = 0; open && done < ms;) {
            int64_t step = std::min<int64_t>(1000, ms - done);
            clock.advanceMs(step);
            done += step;
            elapsedMs += step;
            host->settle();
            open = collect(seen, answerPings);
        }
        return seen;
    }
    int64_t elapsedMs = 0;

    Role role;
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    RawPeer peer;
    std::vector<HandlerRef> handlers;
    std::unique_ptr<SessionHost> host;

private:
    // What the session has sent so far, into seen; false once the connection is gone.
    bool collect(std::vector<std::string>& seen, bool answerPings) {
        bool answered = false;
        for (const std::string& m : peer.sync()) {
            int sequence;
            if (answerPings && std::sscanf(m.c_str(), "Ping %d", &sequence) == 1) {
                peer.w().sendPingResponse(static_cast<uint16_t>(sequence));
                answered = true;
                continue;
            }
            seen.push_back(std::to_string(elapsedMs) + " " + m);
            if (m == "closed" || m == "nothing") return false;
        }
        // The answer is in before time moves on, so the next ping is a second away.
        return answered ? collect(seen, false) : true;
    }

    ReservedPort port_;
};

}  // namespace sessiontest
