#pragma once

// The CDB layer's test kit: a stream the test feeds, a text form of every message, the
// scripted raw peer, and Bench, which runs one session on the test's own thread against that
// peer, one step of a script per turn of the session's loop.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TestText.h"
#include "cdb/CDBReader.h"
#include "cdb/CDBServiceHandlers.h"
#include "cdb/CDBSession.h"
#include "cdb/CDBWriter.h"
#include "mirrorlink/TcpSocket.h"
#include "plat/Exception.h"
#include "plat/ManualClock.h"
#include "plat/RecordingLogger.h"
#include "rdr/BufferedInStream.h"
#include "rdr/MemOutStream.h"

namespace cdbtest {

using zeltest::Bytes;
using zeltest::format;
using Lines = std::vector<std::string>;
using zelcdbsdk::CDBService;
using zelcdbsdk::CDBSession;
using zelcdbsdk::CDBVersion;
using zelcdbsdk::CDBWriter;

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Bytes written(const std::function<void(CDBWriter&)>& write) {
    rdr::MemOutStream out;
    CDBWriter writer(out, nullptr);
    write(writer);
    return Bytes(out.data(), out.data() + out.length());
}

// Behaves like a non-blocking socket under a BufferedInStream: each read hands out as much
// of the bytes fed so far as fits, and nothing when none are pending.
class FeedInStream : public rdr::BufferedInStream {
public:
    explicit FeedInStream(size_t bufferSize = 0) : rdr::BufferedInStream(bufferSize) {}
    void feed(const uint8_t* data, size_t n) { pending_.insert(pending_.end(), data, data + n); }
    void feed(const Bytes& bytes) { feed(bytes.data(), bytes.size()); }
    bool inBuffer(const uint8_t* p) const { return p >= buffer_ && p < buffer_ + bufferSize_; }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        size_t n = std::min(maxBytes, pending_.size() - taken_);
        if (n > 0) std::memcpy(dest, pending_.data() + taken_, n);
        taken_ += n;
        return n;
    }

private:
    Bytes pending_;
    size_t taken_ = 0;
};

inline std::string describe(const CDBService& s) {
    return format("0x%04x %s %d.%d attr=%d ac=%d", s.id, s.name(), s.version.majorNumber,
                  s.version.minorNumber, s.serviceAttribute, s.accessControl);
}

// Renders each message it is handed as one line.
struct TextHandler : zelcdbsdk::CDBProtocolHandler {
    Lines messages;
    template <typename... A>
    void add(const char* text, A... args) {
        messages.push_back(format(text, args...));
    }
    void handleServicesRequest(CDBVersion v) override {
        add("ServicesRequest %d.%d", v.majorNumber, v.minorNumber);
    }
    void handleServicesSupported(CDBVersion v, const std::vector<CDBService>& list,
                                 uint16_t) override {
        add("ServicesSupported %d.%d", v.majorNumber, v.minorNumber);
        for (const CDBService& s : list)
            messages.back() += (&s == &list[0] ? ": " : ", ") + describe(s);
    }
    void handleStartService(uint16_t id, CDBVersion v) override {
        add("StartService 0x%04x %d.%d", id, v.majorNumber, v.minorNumber);
    }
    void handleStopService(uint16_t id) override { add("StopService 0x%04x", id); }
    void handleServicePayload(uint16_t id, uint8_t ac, size_t n, const uint8_t* data) override {
        add("ServicePayload 0x%04x ac=%d %s", id, ac, zeltest::hex(data, n, "").c_str());
    }
    void handleServiceResponse(uint16_t id, uint16_t code) override {
        add("ServiceResponse 0x%04x 0x%04x", id, code);
    }
    void handlePing(uint16_t n) override { add("Ping %d", n); }
    void handlePingResponse(uint16_t n) override { add("PingResponse %d", n); }
    void handleByeBye() override { messages.push_back("ByeBye"); }
};

// A loopback socket connected to port, or else bound to a free port, which *bound receives
// (with SO_REUSEADDR, so that a server may bind the port again while this one holds it).
inline int loopback(int port, int* bound = nullptr) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0), on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof address;
    auto* a = reinterpret_cast<sockaddr*>(&address);
    if (port) return ::connect(fd, a, length) == 0 ? fd : (::close(fd), -1);
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::bind(fd, a, length);
    ::getsockname(fd, a, &length);
    *bound = ntohs(address.sin_port);
    return fd;
}

// The far end of a session's connection, speaking raw CDB. What it receives becomes one line
// per message. A rule answers every message that begins with its prefix and hides it, as a
// healthy peer answers pings without the test spelling each one out.
class Peer {
public:
    using Reply = std::function<void(CDBWriter&, const std::string& message)>;
    ~Peer() {
        close();
        if (listener >= 0) ::close(listener);
    }
    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    void on(const std::string& prefix, Reply reply) { rules_[prefix] = std::move(reply); }
    void off(const std::string& prefix) { rules_.erase(prefix); }

    // What is written here goes out with the next flush(), sendRaw() or take(), without
    // blocking: what the socket cannot take yet waits for the flush after.
    CDBWriter& w() { return writer_; }
    void flush() {
        unsent_.insert(unsent_.end(), out_.data(), out_.data() + out_.length());
        out_.clear();
        ssize_t n = unsent_.empty() || fd < 0
                        ? 0
                        : ::send(fd, unsent_.data(), unsent_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        unsent_.erase(unsent_.begin(), unsent_.begin() + std::max<ssize_t>(n, 0));
    }
    bool unsent() const { return !unsent_.empty(); }
    void sendRaw(const Bytes& bytes, int flags = 0) {
        flush();
        if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags) < 0) ADD_FAILURE();
    }

    // Every message that has arrived, without waiting; "closed" once the session closed.
    Lines take() {
        while (receive()) {
        }
        Lines got;
        got.swap(text_.messages);
        return got;
    }
    int fd = -1, listener = -1;
    int answered = 0;  // messages the rules answered

private:
    // Reads what is there, answering by the rules; false when nothing came.
    bool receive() {
        flush();
        pollfd entry = {fd, POLLIN, 0};
        if (fd < 0 || ::poll(&entry, 1, 0) != 1) return false;
        uint8_t buffer[65536];
        ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        Lines& all = text_.messages;
        size_t i = all.size();
        if (got <= 0) {
            close();
            all.push_back("closed");
            return true;
        }
        in_.feed(buffer, static_cast<size_t>(got));
        while (reader_.processMessages()) {
        }
        while (i < all.size()) {
            auto rule = std::find_if(rules_.begin(), rules_.end(), [&](const auto& r) {
                return all[i].compare(0, r.first.size(), r.first) == 0;
            });
            if (rule == rules_.end() && ++i) continue;
            rule->second(writer_, all[i]);
            ++answered;
            all.erase(all.begin() + static_cast<std::ptrdiff_t>(i));
        }
        flush();
        return true;
    }

    std::map<std::string, Reply> rules_;
    rdr::MemOutStream out_;
    Bytes unsent_;
    CDBWriter writer_{out_, nullptr};
    FeedInStream in_;
    TextHandler text_;
    zelcdbsdk::CDBReader reader_{text_, in_, nullptr};
};

inline void pong(CDBWriter& w, const std::string& ping) {
    w.sendPingResponse(static_cast<uint16_t>(std::stoi(ping.substr(5))));
}

enum class Role { kClient, kServer };

class Bench;
using Step = std::function<void(Bench&)>;
// A step of the script and what must come of it (see Bench::observe()). "-" runs the next
// row in the very next turn of the loop, without waiting or checking; "*" waits as for a
// check, then forgets what came. "URL" in what must come stands for the bench's URL.
struct Row {
    Step step;
    std::string expect;
};

// The application's plain CDB callbacks, as an endpoint holds them behind its own services
// and sinks. Each writes into the calls of the Bench that is its endpoint context what it
// was given, and checks that the handle, the service context and the callback bracket are
// right.
inline void record(ZELCDBEndpoint* e, void* bench, uint16_t id, void* serviceContext,
                   const std::string& call);
const ZELCDBSourceServiceCallbacks kSourceCallbacks = {
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, uint8_t major, uint8_t minor) {
        record(e, b, id, sc, format("start 0x%04x %d.%d", id, major, minor));
    },
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc) {
        record(e, b, id, sc, format("stop 0x%04x", id));
    },
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, const uint8_t* data, uint32_t n) {
        record(e, b, id, sc, format("payload 0x%04x ", id) + zeltest::hex(data, n, ""));
    }};
const ZELCDBSinkCallbacks kSinkCallbacks = {
    kSourceCallbacks.payloadCallback,
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, uint16_t code) {
        record(e, b, id, sc, format("response 0x%04x 0x%04x", id, code));
    }};

// One session on the test's thread and a virtual clock, connected to a Peer through a socket
// pair (or, with tcp set, through loopback). The wake-up descriptor the session watches
// always holds a byte, so every turn of its loop services the owner's messages, and each
// such turn performs the next row's step. After a step the bench lets the loop turn until
// nothing has moved either way for three turns, moving the clock as advance() asked, then
// checks observe() against the row. Once the rows are done the peer closes the connection;
// once run() has ended the sinks are told, as the endpoint tells them.
//
// The peer answers pings, and the session's ServicesRequest with `theirs`; unless preamble
// is cleared, the script begins after that exchange, its effects unobserved.
class Bench : public zelcdbsdk::CDBSessionOwner {
public:
    explicit Bench(Role role, std::vector<CDBService> theirs = {}) : role_(role) {
        if (::pipe(wake_) != 0 || ::write(wake_[1], "w", 1) != 1) ADD_FAILURE() << "pipe";
        peer.on("Ping ", pong);
        peer.on("ServicesRequest ", [theirs](CDBWriter& w, const std::string&) {
            w.sendServicesSupported({1, 1}, theirs.data(), theirs.size());
        });
    }
    ~Bench() override {
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    bool client() const { return role_ == Role::kClient; }
    // Own service i, in order of adding, forwarding to the source callbacks.
    void addService(const char* name, CDBVersion v, uint8_t attr = 0, uint8_t ac = 0) {
        uint16_t id = static_cast<uint16_t>((client() ? 1 : 0x4001) + services_.size());
        auto* source = new zelcdbsdk::CDBSourceHandler(this, &calls, &kSourceCallbacks,
                                                       sizeof kSourceCallbacks);
        source->setServiceId(id);
        handlers_.push_back(CDBService::HandlerRef::adopt(source));
        services_.emplace_back(id, v, attr, ac, name, source);
    }

    // Steps. sink() attaches a sink to a peer service; advance() moves the clock on in steps
    // of at most a second, and what the session sends meanwhile is stamped "@<ms since the
    // script began>"; on() runs fn as a control message from the application does; send()
    // has the peer send what fn writes.
    static Step sink(uint16_t id) {
        return [id](Bench& b) {
            // Told of the session's end as the endpoint's sinks are.
            struct Sink : zelcdbsdk::CDBSinkHandler {
                using CDBSinkHandler::CDBSinkHandler;
                void sessionEnded() override {
                    static_cast<Bench*>(host())->calls.push_back(
                        format("ended 0x%04x", serviceId()));
                }
            };
            auto* sink = new Sink(&b, id, &b.calls, &kSinkCallbacks, sizeof kSinkCallbacks);
            b.handlers_.push_back(CDBService::HandlerRef::adopt(sink));
            b.s().addSink(id, sink);
        };
    }
    static Step advance(int64_t ms) {
        return [ms](Bench& b) { b.advanceLeft_ = ms, b.stamped_ = true; };
    }
    static Step on(std::function<void(CDBSession&)> fn) {
        return [fn](Bench& b) { fn(b.s()); };
    }
    static Step send(std::function<void(CDBWriter&)> fn) {
        return [fn](Bench& b) { fn(b.peer.w()); };
    }

    // What the peer received, then what the owner and the callbacks were told, then the
    // session's lines at level 30 or more severe, since the last observation; " | " between
    // items.
    std::string observe() {
        Lines items = sent_;
        items.insert(items.end(), calls.begin(), calls.end());
        for (size_t i = logged_; i < log.lines.size(); ++i)
            if (log.lines[i].facility == "CDBSession" && log.lines[i].level <= 30)
                items.push_back(std::to_string(log.lines[i].level) + " " + log.lines[i].text);
        sent_.clear();
        calls.clear();
        logged_ = log.lines.size();
        std::string text;
        for (const std::string& item : items) text += (text.empty() ? "" : " | ") + item;
        return text;
    }

    // Runs the session through the rows; returns how run() ended: "Disconnected" or the text
    // of what it threw.
    std::string play(const std::vector<Row>& rows) {
        rows_ = &rows;
        session_ = client() ? CDBSession::createClient(*this) : CDBSession::createServer(*this);
        std::string outcome = "Disconnected";
        try {
            if (tcp) {
                session_->run();
            } else {
                int pair[2];
                mirrorlink::TcpSocket end;  // takes over the pair's descriptor
                if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0 ||
                    end.create(AF_UNIX, SOCK_STREAM) != 0 || ::dup2(pair[0], end.fd()) < 0)
                    ADD_FAILURE() << "socketpair";
                ::close(pair[0]);
                end.setBlocking(false);
                peer.fd = pair[1];
                session_->runConnected(end);
            }
        } catch (const plat::Exception& e) {
            outcome = e.str();
        }
        session_->endSinks();
        session_.reset();
        collect();
        if (settling_) finishRow();
        if (row_ < rows.size()) ADD_FAILURE() << "the session ended before row " << row_;
        return outcome;
    }

    CDBSession& s() { return *session_; }
    // A tcp bench's URL: the peer's listening port for a client, a reserved one for a server.
    const char* url() override {
        if (!url_.empty()) return url_.c_str();
        peer.listener = loopback(0, &port_);
        if (client()) ::listen(peer.listener, 1);
        return (url_ = "cdb://127.0.0.1:" + std::to_string(port_)).c_str();
    }
    // Makes the connection a tcp bench's session is waiting for.
    void connectPeer() {
        pollfd entry = {peer.listener, POLLIN, 0};
        if (client() && ::poll(&entry, 1, 10000) == 1)
            peer.fd = ::accept(peer.listener, nullptr, nullptr);
        if (!client()) peer.fd = loopback(port_);
        if (peer.fd < 0) throw plat::Exception("no peer");
    }
    int wakeupDescriptor() override { return wake_[0]; }
    int wakeupWriter() const { return wake_[1]; }
    ZELCDBEndpoint* endpointHandle() override { return reinterpret_cast<ZELCDBEndpoint*>(0x1234); }
    void* endpointContext() override { return this; }

    bool tcp = false, preamble = true;
    bool answerOnStart = false;  // the start callback answers with 0x0001 at once
    int depth = 0;               // how deep the thread is in application callbacks
    int64_t elapsedMs = 0;
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};
    Peer peer;
    Lines calls;
    zeltest::RecordingLogger log;

private:
    // CDBSessionOwner
    const std::vector<CDBService>& localServices() override { return services_; }
    CDBVersion cdbVersion() override { return {1, 1}; }
    plat::Logger* logger() override { return &log; }
    void endWait() override {
        // A loop that no longer services its messages would never end the script.
        if (++unserviced_ > 1000) throw plat::Exception("the loop stopped servicing messages");
    }
    void sessionConnected() override { calls.push_back("connected"); }
    void peerServicesChanged(CDBVersion v, const std::vector<const CDBService*>& list,
                             bool added) override {
        std::string event =
            format("%s %d.%d [", added ? "added" : "removed", v.majorNumber, v.minorNumber);
        for (const CDBService* s : list) event += (event.back() == '[' ? "" : ", ") + describe(*s);
        calls.push_back(event + "]");
    }
    void servicesRequestTimedOut() override { calls.push_back("services request timed out"); }
    void enterCallback() override { ++depth; }
    void leaveCallback() override { --depth; }

    // One turn of the loop.
    void serviceMessages() override {
        unserviced_ = 0;
        bool moved = collect();
        if (++turns_ > 100000) throw plat::Exception("the script does not end");
        quiet_ = moved ? 0 : quiet_ + 1;
        if (preamble) {
            if (turns_ == 1 && tcp) connectPeer();
            if (quiet_ < 3 || s().state() != CDBSession::Connected) return;
            preamble = false;
            observe();
        }
        if (settling_) {
            if (quiet_ < 3) return;
            if (advanceLeft_ > 0) {
                int64_t step = std::min<int64_t>(1000, advanceLeft_);
                advanceLeft_ -= step;
                elapsedMs += step;
                clock.advanceMs(step);
                quiet_ = 0;
                return;
            }
            finishRow();
        }
        if (row_ == rows_->size()) {
            CDBSession::State state = s().state();
            bool open = state == CDBSession::Connected || state == CDBSession::Closing;
            open ? peer.close() : s().terminate();
            return;
        }
        const Row& row = (*rows_)[row_];
        row.step(*this);
        peer.flush();
        settling_ = row.expect != "-";
        quiet_ = 0;
        if (!settling_) ++row_;
    }

    // Takes what the peer received; true if anything moved either way.
    bool collect() {
        int answered = peer.answered;
        Lines got = peer.take();
        for (std::string& m : got)
            sent_.push_back(stamped_ ? format("@%lld ", static_cast<long long>(elapsedMs)) + m : m);
        return !got.empty() || peer.answered != answered || peer.unsent();
    }
    void finishRow() {
        std::string seen = observe(), expect = (*rows_)[row_].expect;
        size_t at = expect.find("URL");
        if (at != std::string::npos) expect.replace(at, 3, url_);
        if (expect != "*") {
            EXPECT_EQ(seen, expect) << "row " << row_;
        }
        stamped_ = settling_ = false;
        ++row_;
    }

    Role role_;
    std::string url_;
    int port_ = 0, wake_[2];
    std::unique_ptr<CDBSession> session_;
    std::vector<CDBService> services_;
    std::vector<CDBService::HandlerRef> handlers_;
    const std::vector<Row>* rows_ = nullptr;
    size_t row_ = 0;
    bool settling_ = false, stamped_ = false;
    int quiet_ = 0, unserviced_ = 0;
    long turns_ = 0;
    int64_t advanceLeft_ = 0;
    Lines sent_;
    size_t logged_ = 0;
};

inline void record(ZELCDBEndpoint* e, void* bench, uint16_t, void* serviceContext,
                   const std::string& call) {
    Bench& b = *static_cast<Bench*>(bench);
    EXPECT_EQ(e, b.endpointHandle());
    EXPECT_EQ(serviceContext, &b.calls);
    EXPECT_EQ(b.depth, 1) << call;
    b.calls.push_back(call);
    if (b.answerOnStart && call.compare(0, 6, "start ") == 0) b.s().sendServiceResponse(1, 1);
}

}  // namespace cdbtest
