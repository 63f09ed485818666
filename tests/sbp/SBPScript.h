#pragma once

// One SBP sink or source alone on a manual clock. The test plays the peer and the
// application in steps written as text, separated by "; ", and reads back one trace of
// everything the unit sent and told the application, items joined by " | ".
//
// Packets read "<Name> #<packetId> <uid> [<commandValue>] [+<n>]", numbers in hex, the value
// left out when 0, +n a payload of n bytes 01 02 03 ... ("+?n" in a trace: other bytes).
// A step is a packet (or raw <hex>) the peer sends, +<ms> of time, an application's call or
// answer (see step(); a last word @<label> is a sink request's context), or the session's
// end, nosession, or new (first step only: the service is not started). The trace holds the
// packets sent, "ServiceResponse <code>", "StopService", the callbacks ("data@g b1 5 +8"; a
// "?" marks one made outside the host's callback bracket), "! <text>" for each warning or
// error logged, and "<ms>: " before an item a timer caused.

#include <algorithm>
#include <cstdarg>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include "TestText.h"
#include "cdb/CDBEndpointHost.h"
#include "cdb/CDBWriter.h"
#include "plat/DString.h"
#include "plat/ManualClock.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/ZELSBPSink.h"
#include "sbp/ZELSBPSource.h"

namespace sbptest {

using zeltest::Bytes;
using zeltest::format;

inline const char* const kCommandNames[] = {"Get",       "Set",          "Subscribe",
                                            "Cancel",    "AliveRequest", "AliveResponse",
                                            "Challenge", "AuthResponse", "Response"};

inline Bytes pattern(size_t n) {
    Bytes bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
    return bytes;
}
inline std::string payloadText(const uint8_t* data, size_t size) {
    if (size == 0) return "";
    return (Bytes(data, data + size) == pattern(size) ? " +" : " +?") + std::to_string(size);
}
inline std::string describe(const zelcdbsdk::SBPPacket& p) {
    std::string name = p.command >= 0xB1 && p.command <= 0xB9 ? kCommandNames[p.command - 0xB1]
                                                              : format("0x%x", p.command);
    return format("%s #%x %x", name.c_str(), p.packetId, p.uid) +
           (p.commandValue ? format(" %x", p.commandValue) : "") +
           payloadText(p.payload, p.payloadSize);
}
// A step or packet in the notation above: its first two words, numbers in hex ('#' skipped),
// a payload size and a label.
struct Words {
    std::string verb, how, label;
    uint32_t n[4] = {0, 0, 0, 0};
    size_t size = 0;
};
inline Words parse(const std::string& text) {
    std::istringstream in(text);
    Words w;
    std::string word;
    in >> w.verb;
    for (size_t count = 0; in >> word;) {
        if (word[0] == '+') {
            w.size = std::strtoul(word.c_str() + 1, nullptr, 10);
        } else if (word[0] == '@') {
            w.label = word.substr(1);
        } else if (count < 4) {
            if (w.how.empty()) w.how = word;
            w.n[count++] =
                static_cast<uint32_t>(std::strtoul(word.c_str() + (word[0] == '#'), nullptr, 16));
        }
    }
    return w;
}
// A packet; the name may also be a code ("0xba").
inline Bytes encode(const std::string& text) {
    Words w = parse(text);
    auto known = std::find(std::begin(kCommandNames), std::end(kCommandNames), w.verb);
    uint32_t command = static_cast<uint32_t>(known - kCommandNames + 0xB1);
    if (known == std::end(kCommandNames)) command = std::strtoul(w.verb.c_str(), nullptr, 16);
    rdr::MemOutStream out;
    Bytes payload = pattern(w.size);
    zelcdbsdk::writeSBPPacket(out, static_cast<uint8_t>(command), w.n[1],
                              static_cast<uint16_t>(w.n[0]), w.n[2], payload.data(), w.size);
    return Bytes(out.data(), out.data() + out.length());
}

class SBPScript : public zelcdbsdk::CDBEndpointHost, public plat::Logger {
public:
    static constexpr uint16_t kServiceId = 0x4001;

    // The unit is made, and its service started, at the first run(): until then a test may
    // change the callbacks.
    explicit SBPScript(bool sink) : isSink_(sink) {}
    ~SBPScript() override {
        if (unit_) unit_->release();
    }

    // Runs the steps; returns what they caused, items joined by " | ".
    std::string run(const std::string& steps) {
        if (!unit_) create(steps.compare(0, 3, "new") != 0);
        trace_.clear();
        for (size_t at = 0, end; at < steps.size(); at = end + 2) {
            end = std::min(steps.find("; ", at), steps.size());
            step(steps.substr(at, end - at));
        }
        return trace_.substr(std::min<size_t>(3, trace_.size()));
    }

    ZELSBPSink* sink = nullptr;
    ZELSBPSource* source = nullptr;
    ZELSBPSinkCallbacks sinkCallbacks = sinkTable();
    ZELSBPSourceCallbacks sourceCallbacks = sourceTable();

    // The host, as the unit sees it.
    ZELCDBEndpoint* endpointHandle() override { return nullptr; }
    void* endpointContext() override { return this; }
    void enterCallback() override { ++depth_; }
    void leaveCallback() override { --depth_; }
    bool hasSession() override { return session_; }
    void sendServicePayload(uint16_t serviceId, const uint8_t* data, size_t length) override {
        writer_.sendServicePayload(serviceId, 0, data, length);  // so that its limits apply
        zelcdbsdk::SBPPacket p;
        bool ok = zelcdbsdk::readSBPPacket(data, length, {"peer", nullptr}, &p) == ZELCDBErrorNone;
        note(ok && serviceId == kServiceId ? describe(p) : "unreadable");
    }
    void sendServiceResponse(uint16_t, uint16_t code) override {
        note(format("ServiceResponse %x", code));
    }
    void stopPeerService(uint16_t) override { note("StopService"); }
    void log(int level, const char*, const char* text, va_list args) override {
        if (level > plat::kLogWarning) return;
        plat::DString line;
        line.formatV(text, args);
        note(std::string("! ") + line.c_str());
    }

private:
    void create(bool start) {
        if (isSink_) {
            unit_ = sink =
                new ZELSBPSink(this, kServiceId, this, &sinkCallbacks, sizeof sinkCallbacks);
            if (start) sink->serviceResponse(1);
        } else {
            unit_ = source = new ZELSBPSource(this, this, &sourceCallbacks, sizeof sourceCallbacks);
            source->setServiceId(kServiceId);
            if (start) source->startService({1, 0});
        }
    }

    void step(const std::string& text) {
        Words w = parse(text);
        const std::string& verb = w.verb;
        const uint32_t* n = w.n;
        void* context = w.label.empty() ? nullptr : &labels_.emplace_back(w.label);
        const Bytes payload = pattern(w.size);
        const uint8_t* data = payload.data();
        if (verb[0] == '+') {
            elapsedMs_ += std::atoi(verb.c_str() + 1);
            clock_.advanceMs(std::atoi(verb.c_str() + 1));
            timersFiring_ = true;
            timers_.processTimers();
            timersFiring_ = false;
        } else if (verb == "raw" || std::isupper(static_cast<unsigned char>(verb[0])) ||
                   verb[0] == '0') {
            Bytes bytes = verb == "raw" ? zeltest::parseHex(text.substr(4)) : encode(text);
            unit_->servicePayload(bytes.data(), bytes.size());
        } else if (verb == "end") {
            unit_->sessionEnded();
        } else if (verb == "nosession") {
            session_ = false;
        } else if (sink) {
            // get <uid> | set <uid> +n | subscribe <uid> <type> <interval> | cancel <uid>
            // <command> | alive <seconds> | auth <command> <uid> <result> [+n] | status <code>
            if (verb == "get") sink->sendGet(context, n[0]);
            if (verb == "set") sink->sendSet(context, n[0], data, w.size);
            if (verb == "subscribe") sink->sendSubscribe(context, n[0], n[1], n[2]);
            if (verb == "cancel") sink->sendCancel(context, n[0], n[1]);
            if (verb == "alive") sink->sendAlive(context, static_cast<int32_t>(n[0]));
            if (verb == "auth")
                sink->sendServiceAuthResponse(context, n[0], n[1], n[2], data, w.size);
            if (verb == "status") sink->serviceResponse(static_cast<uint16_t>(n[0]));
        } else {
            // answer later | answer now <result> | answer fail | type <t> | interval <i> |
            // refuse; reply <command> <uid> <result> [+n] | subscribed <uid> <result> |
            // setdone <uid> <result> | challenge <command> <uid> [+n] | start | stop
            if (verb == "answer") {
                answer_ = w.how == "later"  ? ZELCDBErrorNone
                          : w.how == "fail" ? ZELCDBErrorFailed
                                            : ZELCDBErrorLocalSBPError;
                result_ = n[1];
            }
            if (verb == "type") type_ = static_cast<int>(n[0]);
            if (verb == "interval") interval_ = n[0];
            if (verb == "refuse") refuse_ = 1;
            if (verb == "reply") source->sendGetResponse(n[0], n[1], n[2], data, w.size);
            if (verb == "subscribed") source->sendSubscribeResponse(n[0], n[1]);
            if (verb == "setdone") source->sendSetResponse(n[0], n[1]);
            if (verb == "challenge") source->sendServiceAuthChallenge(n[0], n[1], data, w.size);
            if (verb == "start") source->startService({1, 0});
            if (verb == "stop") source->stopService();
        }
    }

    void note(const std::string& item) {
        trace_ += " | " + (timersFiring_ ? format("%d: ", elapsedMs_) + item : item);
    }
    // One callback's item: "<word>[@<context>] <numbers in hex> [+n]<tail>".
    static SBPScript& call(void* self, const char* word, void* context,
                           std::initializer_list<uint32_t> numbers, const uint8_t* data = nullptr,
                           int32_t size = 0, const std::string& tail = "") {
        SBPScript& s = *static_cast<SBPScript*>(self);
        std::string item = word + (context ? "@" + *static_cast<std::string*>(context) : "");
        for (uint32_t n : numbers) item += format(" %x", n);
        item += payloadText(data, static_cast<size_t>(size)) + tail;
        s.note(s.depth_ == 1 ? item : item + "?");
        return s;
    }
    ZELCDBError answer(uint32_t* result) const {
        *result = result_;
        return answer_;
    }

    // The callbacks' words: m a command, u a UID, d and n a payload, r a request's context.
    using E = ZELCDBEndpoint;
    using Id = uint16_t;
    using U = uint32_t;
    using P = const uint8_t*;
    static ZELSBPSinkCallbacks sinkTable() {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](E*, void*, Id, void* c, Id s) { call(c, "status", 0, {s}); };
        t.dataCallback = [](E*, Id, void* c, void* r, U m, U u, P d, int32_t n) {
            call(c, "data", r, {m, u}, d, n);
        };
        t.setDoneCallback = [](E*, Id, void* c, void* r, U u) { call(c, "setdone", r, {u}); };
        t.subscribedCallback = [](E*, Id, void* c, void* r, U u) { call(c, "subscribed", r, {u}); };
        t.cancelledCallback = [](E*, Id, void* c, void* r, U m, U u) {
            call(c, "cancelled", r, {m, u});
        };
        t.errorCallback = [](E*, Id, void* c, void* r, U m, U u, ZELCDBError e, U result) {
            call(c, "error", r, {m, u}, nullptr, 0, format(" %d %x", e, result));
        };
        t.authChallengeCallback = [](E*, Id, void* c, void* r, U m, U u, P d, int32_t n) {
            call(c, "challenge", r, {m, u}, d, n);
        };
        t.aliveResponseCallback = [](E*, Id, void* c, void* r) { call(c, "alive", r, {}); };
        return t;
    }
    static ZELSBPSourceCallbacks sourceTable() {
        ZELSBPSourceCallbacks t{};
        t.serviceStartCallback = [](E*, void*, Id, void* c, uint8_t, uint8_t) {
            return call(c, "started", 0, {}).refuse_;
        };
        t.serviceStopCallback = [](E*, void*, Id, void* c) {
            return call(c, "stopped", 0, {}).refuse_;
        };
        t.serviceTerminatedCallback = [](E*, Id, void* c) { call(c, "terminated", 0, {}); };
        t.getCallback = [](E*, Id, void* c, U m, U u, U* result) {
            return call(c, "get", 0, {m, u}).answer(result);
        };
        t.setCallback = [](E*, Id, void* c, U u, P d, int32_t n, U* result) {
            return call(c, "set", 0, {u}, d, n).answer(result);
        };
        t.subscribeCallback = [](E*, Id, void* c, U u, U* type, U* interval, U* result) {
            SBPScript& s = call(c, "subscribe", 0, {u, *type, *interval});
            if (s.type_ >= 0) *type = static_cast<U>(s.type_);
            if (s.interval_) *interval = s.interval_;
            return s.answer(result);
        };
        t.cancelCallback = [](E*, Id, void* c, U m, U u) { call(c, "cancel", 0, {m, u}); };
        t.authResponseCallback = [](E*, Id, void* c, void*, U m, U u, U result, P d, int32_t n) {
            call(c, "auth", 0, {m, u, result}, d, n);
        };
        return t;
    }

    bool isSink_;
    plat::ManualClock clock_;
    plat::ScopedClock useClock_{&clock_};
    plat::ScopedCurrentLogger useLog_{this};
    plat::TimerManager timers_;
    rdr::MemOutStream wire_;
    zelcdbsdk::CDBWriter writer_{wire_, nullptr};
    zelcdbsdk::CDBService::Handler* unit_ = nullptr;
    std::string trace_;
    std::deque<std::string> labels_;
    int depth_ = 0;
    int elapsedMs_ = 0;
    bool timersFiring_ = false;
    bool session_ = true;
    // How the source's application answers.
    ZELCDBError answer_ = ZELCDBErrorLocalSBPError;
    uint32_t result_ = 0;
    int type_ = -1;
    uint32_t interval_ = 0;
    int32_t refuse_ = 0;
};

}  // namespace sbptest
