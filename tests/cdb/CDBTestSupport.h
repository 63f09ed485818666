#pragma once

// The CDB layer's test kit: a stream the test feeds, a text form of every message, and
// Bench, which runs one session on the test's own thread between a scripted raw peer and a
// recording application, one step of a script per turn of the session's loop.

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
// and sinks. Each writes what it was given into the calls of the Bench that is its endpoint
// context, and checks the handle, the service context and the callback bracket.
inline void record(ZELCDBEndpoint* e, void* bench, void* serviceContext, const std::string& call);
const ZELCDBSourceServiceCallbacks kSourceCallbacks = {
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, uint8_t major, uint8_t minor) {
        record(e, b, sc, format("start 0x%04x %d.%d", id, major, minor));
    },
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc) {
        record(e, b, sc, format("stop 0x%04x", id));
    },
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, const uint8_t* data, uint32_t n) {
        record(e, b, sc, format("payload 0x%04x ", id) + zeltest::hex(data, n, ""));
    }};
const ZELCDBSinkCallbacks kSinkCallbacks = {
    kSourceCallbacks.payloadCallback,
    [](ZELCDBEndpoint* e, void* b, uint16_t id, void* sc, uint16_t code) {
        record(e, b, sc, format("response 0x%04x 0x%04x", id, code));
    }};

// One session on the test's thread and a virtual clock, between a peer that speaks raw CDB
// at the far end of a socket pair (or, with tcp set, of loopback) and an application whose
// callbacks and owner calls land in `calls`. The wake-up descriptor always holds a byte, so
// every turn of the session's loop services the owner's messages, and such a turn performs
// the next row's step. After a step the loop turns until nothing has moved either way for
// three turns, the clock moving as advance() asked; then observe() must match the row. Once
// the rows are done the peer closes the connection; once run() has ended the sinks are told.
//
// What the peer receives becomes one line per message (TextHandler), except what an answer
// takes: an answer answers each message that begins with its prefix. The peer answers pings,
// and the ServicesRequest with `theirs`; unless preamble is cleared, the script begins after
// that exchange, its effects unobserved.
class Bench : public zelcdbsdk::CDBSessionOwner, public TextHandler {
public:
    using Answer = std::function<void(CDBWriter&, const std::string& message)>;
    explicit Bench(Role role, std::vector<CDBService> theirs = {}) : role_(role) {
        if (::pipe(wake) != 0 || ::write(wake[1], "w", 1) != 1) ADD_FAILURE() << "pipe";
        answers["Ping "] = pong;
        answers["ServicesRequest "] = [theirs](CDBWriter& w, const std::string&) {
            w.sendServicesSupported({1, 1}, theirs.data(), theirs.size());
        };
    }
    ~Bench() override {
        for (int fd : {wake[0], wake[1], peerFd, listener_})
            if (fd >= 0) ::close(fd);
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
            struct Sink : zelcdbsdk::CDBSinkHandler {  // told of the end as SBP's sinks are
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
        return [fn](Bench& b) { fn(b.peer_); };
    }

    // What the peer received, then what the owner and the callbacks were told, then the
    // session's lines at `level` or more severe, since the last observation; " | " between.
    std::string observe() {
        Lines items = sent_;
        items.insert(items.end(), calls.begin(), calls.end());
        for (size_t i = logged_; i < log.lines.size(); ++i)
            if (log.lines[i].facility == "CDBSession" && log.lines[i].level <= level)
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
                peerFd = pair[1];
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
        listener_ = loopback(0, &port_);
        if (client()) ::listen(listener_, 1);
        return (url_ = "cdb://127.0.0.1:" + std::to_string(port_)).c_str();
    }
    // Makes the connection a tcp bench's session is waiting for.
    void connectPeer() {
        pollfd entry = {listener_, POLLIN, 0};
        if (client() && ::poll(&entry, 1, 10000) == 1)
            peerFd = ::accept(listener_, nullptr, nullptr);
        if (!client()) peerFd = loopback(port_);
        if (peerFd < 0) throw plat::Exception("no peer");
    }
    void closePeer() {
        ::close(peerFd);
        peerFd = -1;
    }
    // Sends what the peer wrote, without blocking: what the socket cannot take yet waits for
    // the next flush. Then sends bytes, if any, with the flags given.
    void flush(const Bytes& bytes = {}, int flags = 0) {
        unsent_.insert(unsent_.end(), out_.data(), out_.data() + out_.length());
        out_.clear();
        ssize_t n = unsent_.empty() || peerFd < 0 ? 0
                                                  : ::send(peerFd, unsent_.data(), unsent_.size(),
                                                           MSG_NOSIGNAL | MSG_DONTWAIT);
        unsent_.erase(unsent_.begin(), unsent_.begin() + std::max<ssize_t>(n, 0));
        if (!bytes.empty() && ::send(peerFd, bytes.data(), bytes.size(), flags) < 0) ADD_FAILURE();
    }
    int wakeupDescriptor() override { return wake[0]; }
    ZELCDBEndpoint* endpointHandle() override { return reinterpret_cast<ZELCDBEndpoint*>(0x1234); }
    void* endpointContext() override { return this; }

    bool tcp = false, preamble = true;
    bool answerOnStart = false;  // the start callback answers with 0x0001 at once
    int level = 30, depth = 0;   // depth: how deep the thread is in application callbacks
    int peerFd = -1, wake[2];
    int64_t elapsedMs = 0;
    std::map<std::string, Answer> answers;
    Lines calls;
    zeltest::RecordingLogger log;
    plat::ManualClock clock;
    plat::ScopedClock useClock{&clock};

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
            open ? closePeer() : s().terminate();
            return;
        }
        const Row& row = (*rows_)[row_];
        row.step(*this);
        flush();
        settling_ = row.expect != "-";
        quiet_ = 0;
        if (!settling_) ++row_;
    }

    // Reads what reached the peer, answering by the answers, and takes the rest in sent_
    // ("closed" once the session closed); true if anything moved either way.
    bool collect() {
        bool moved = !unsent_.empty();
        flush();
        pollfd entry = {peerFd, POLLIN, 0};
        while (peerFd >= 0 && ::poll(&entry, 1, 0) == 1) {
            moved = true;
            uint8_t buffer[65536];
            ssize_t got = ::recv(peerFd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got <= 0) {
                closePeer();
                sent_.push_back(stamp("closed"));
                break;
            }
            in_.feed(buffer, static_cast<size_t>(got));
            while (reader_.processMessages()) {
            }
            for (std::string& m : messages) {
                auto answer = std::find_if(answers.begin(), answers.end(), [&](const auto& a) {
                    return m.compare(0, a.first.size(), a.first) == 0;
                });
                if (answer != answers.end()) answer->second(peer_, m);
                if (answer == answers.end()) sent_.push_back(stamp(m));
            }
            messages.clear();
            flush();
        }
        return moved;
    }
    std::string stamp(const std::string& m) const {
        return stamped_ ? format("@%lld ", static_cast<long long>(elapsedMs)) + m : m;
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
    int port_ = 0, listener_ = -1;
    rdr::MemOutStream out_;
    CDBWriter peer_{out_, nullptr};  // what the peer sends
    Bytes unsent_;
    FeedInStream in_;
    zelcdbsdk::CDBReader reader_{*this, in_, nullptr};
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

inline void record(ZELCDBEndpoint* e, void* bench, void* serviceContext, const std::string& call) {
    Bench& b = *static_cast<Bench*>(bench);
    EXPECT_EQ(e, b.endpointHandle());
    EXPECT_EQ(serviceContext, &b.calls);
    EXPECT_EQ(b.depth, 1) << call;
    b.calls.push_back(call);
    if (b.answerOnStart && call.compare(0, 6, "start ") == 0) b.s().sendServiceResponse(1, 1);
}

}  // namespace cdbtest
