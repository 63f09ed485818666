#include "ClientCommands.h"

#include <optional>

#include "Console.h"
#include "ElementFile.h"
#include "Failure.h"
#include "Library.h"
#include "SbpData.h"

namespace zelcdb {

namespace {

using Clock = Session::Clock;

// The largest payload a CDB ServicePayload carries.
constexpr size_t kMaxPayload = 8100;

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

struct Target {
    uint32_t uid = 0;
    std::string label;               // as the user wrote it, for messages
    const Element* known = nullptr;  // from the element file
};

// Names, types and the element file for one command.
class Elements {
public:
    explicit Elements(const ElementArgs& args) : args_(args) {
        if (!args.elementFile.empty()) {
            file_ = loadElementFile(args.elementFile);
            names_ = file_->names;
        }
        for (const std::string& name : args.names) names_.add(name);
    }

    Target resolve(const std::string& element) {
        Target target;
        target.label = element;
        if (args_.byUid) {
            if (!parseNumber(element, target.uid)) {
                throw Failure(kExitUsage, "'" + element + "' is not a UID (decimal or 0x hex)");
            }
        } else {
            target.uid = hashName(element);
            names_.add(element);
        }
        if (file_) {
            target.known = file_->find(target.uid);
            if (!target.known) {
                std::string list;
                for (const Element& e : file_->elements)
                    list += (list.empty() ? "" : ", ") + e.name;
                throw Failure(kExitUnknown, "unknown element '" + element + "'; " +
                                                args_.elementFile + " names " + list);
            }
        }
        return target;
    }

    Names& names() { return names_; }

    // One output line for a value the peer sent.
    std::string line(const std::vector<uint8_t>& data) const {
        if (args_.raw) return toHex(data.data(), data.size());
        try {
            return dumped(toLine(decode(data.data(), data.size()), names_));
        } catch (const ValueError& e) {
            throw Failure(kExitRefused, e.what());
        }
    }

private:
    const ElementArgs& args_;
    std::optional<ElementFile> file_;
    Names names_;
};

// A peer answers a Get or Subscribe of an element it does not have with "not supported";
// a Set refused with it may be a value of the wrong type as well.
[[noreturn]] void requestFailed(const Event& event, const std::string& request,
                                const Target& target, bool mayBeUnknown = true) {
    if (event.error == ZELCDBErrorTimeout) {
        throw Failure(kExitTimeout, "time-out: no answer to " + request + " within 5 s");
    }
    if (event.error == ZELCDBErrorRemoteSBPError && event.result == ZELSBPResultFailed &&
        !target.known && mayBeUnknown) {
        throw Failure(kExitUnknown, "unknown element '" + target.label + "': the peer answered " +
                                        request + " with " + resultText(event.result));
    }
    if (event.error == ZELCDBErrorRemoteSBPError) {
        throw Failure(kExitRefused,
                      "the peer refused " + request + ": " + resultText(event.result));
    }
    throw Failure(kExitRefused, request + " failed: " + errorText(event.error) +
                                    (event.result ? ", " + resultText(event.result) : ""));
}

// Waits for the answer to a request (command) about the target: an event of that kind,
// or an error, which throws. The library times the request out after five seconds without
// a word from the peer, and a peer that is still working says so in between; so there is
// no deadline of our own here.
Event answer(Session& session, uint32_t command, EventKind kind, const Target& target,
             const std::string& request, bool mayBeUnknown = true) {
    for (;;) {
        Event event = session.nextUntil(std::nullopt, "answer to " + request);
        if (event.uid != target.uid) continue;
        // Errors about other requests (such as the "cancelled" answer of a subscription
        // being cancelled) are not this request's.
        if (event.kind == EventKind::SbpError && event.command == command) {
            requestFailed(event, request, target, mayBeUnknown);
        }
        if (event.kind == kind) return event;
    }
}

void check(ZELCDBError error, const std::string& what) {
    if (error != ZELCDBErrorNone) {
        throw Failure(kExitConnection, "cannot send " + what + ": " + errorText(error));
    }
}

// Connects and starts the named service as an SBP sink.
PeerService openSbp(Session& session, const ServiceArgs& args) {
    session.connect();
    PeerService service = session.find(args.service);
    session.startSbp(service);
    return service;
}

std::vector<uint8_t> getValue(Session& session, const Target& target) {
    std::string request = "Get " + target.label;
    check(sdk().sinkSendGet(session.endpoint(), session.serviceId(), nullptr, target.uid), request);
    for (;;) {
        Event event = answer(session, ZELSBPCommandGet, EventKind::Data, target, request);
        if (event.command == ZELSBPCommandGet) return event.data;
    }
}

// A JSON value from the command line; a bare word that is not JSON is a string.
Json parseValue(const std::string& text) {
    Json value = Json::parse(text, nullptr, false);
    if (!value.is_discarded()) return value;
    bool word = !text.empty();
    for (char c : text) word = word && c != '{' && c != '[' && c != '"';
    if (word) return Json(text);
    throw Failure(kExitUsage, "the value '" + text + "' is not JSON");
}

// Ctrl-C ends a command that runs until then; one that was asked for a number of things
// and had not got them all was interrupted.
int interrupted(int wanted, int received, const char* what) {
    if (wanted == 0) {
        console::note("interrupted");
        return kExitOk;
    }
    console::message("interrupted after " + std::to_string(received) + " of " +
                     std::to_string(wanted) + " " + what);
    return kExitInterrupted;
}

}  // namespace

int runServices(const ConnectOptions& connect, bool json) {
    Session session(connect);
    session.connect();
    for (const PeerService& s : session.services()) {
        std::string version = std::to_string(s.versionMajor) + "." + std::to_string(s.versionMinor);
        if (json) {
            Json line = Json::object();
            line["id"] = s.id;
            line["name"] = s.name;
            line["version"] = version;
            line["attribute"] = s.attribute & 0xFF;
            line["accessControl"] = s.accessControl & 0xFF;
            console::line(dumped(line));
        } else {
            char text[64];
            std::snprintf(text, sizeof text, "  %-5s attribute 0x%02x  access control 0x%02x",
                          version.c_str(), unsigned(s.attribute & 0xFF),
                          unsigned(s.accessControl & 0xFF));
            console::line(hex16(s.id) + "  " + s.name + text);
        }
    }
    if (session.services().empty()) console::note("the peer offers no services");
    session.stop();
    return kExitOk;
}

int runGet(const ServiceArgs& args, const ElementArgs& elementArgs) {
    Elements elements(elementArgs);
    std::vector<Target> targets;
    for (const std::string& element : elementArgs.elements)
        targets.push_back(elements.resolve(element));
    Session session(args.connect);
    openSbp(session, args);
    for (const Target& target : targets) console::line(elements.line(getValue(session, target)));
    session.stop();
    return kExitOk;
}

int runSet(const ServiceArgs& args, const ElementArgs& elementArgs, const std::string& text,
           const std::string& typeName) {
    Elements elements(elementArgs);
    Target target = elements.resolve(elementArgs.elements.at(0));
    std::optional<Type> type;
    if (!typeName.empty()) {
        auto kind = scalarKindNamed(typeName);
        if (!kind) {
            throw Failure(kExitUsage, "unknown --type '" + typeName +
                                          "' (boolean, byte, short, int, long, float, double, "
                                          "bytes or string)");
        }
        type = Type{};
        type->kind = *kind;
    }
    std::vector<uint8_t> data;
    Json value;
    if (elementArgs.raw) {
        data = fromHex(text);
    } else {
        value = normaliseKeys(parseValue(text), elements.names());
    }
    auto encodeAs = [&](const Type& t, const Json& v) {
        try {
            return encode(target.uid, t, v);
        } catch (const ValueError& e) {
            throw Failure(kExitUsage,
                          "value of the wrong type for " + target.label + ": " + e.what());
        }
    };
    if (type) data = encodeAs(*type, value);

    Session session(args.connect);
    openSbp(session, args);
    if (!elementArgs.raw && !type) {
        // The element's current value shows what the peer expects (unless the element file
        // says it), and members left out of a structure keep their values.
        std::vector<uint8_t> current;
        try {
            current = getValue(session, target);
        } catch (const Failure& e) {
            if (e.exitCode() != kExitUnknown) throw;
            throw Failure(kExitUnknown, std::string(e.what()) +
                                            " (give --type to set it without reading it first)");
        }
        Value now;
        try {
            now = decode(current.data(), current.size());
        } catch (const ValueError& e) {
            throw Failure(kExitRefused, std::string("cannot read the current value of ") +
                                            target.label + ": " + e.what());
        }
        Json merged = value;
        if (value.is_object() && now.kind == Kind::Structure) {
            merged = toJson(now, elements.names());
            merged.merge_patch(value);
        }
        data = encodeAs(target.known ? target.known->type : typeOf(now, elements.names()), merged);
    }
    if (data.size() > kMaxPayload - 32) throw Failure(kExitUsage, "the value is too large to send");

    std::string request = "Set " + target.label;
    check(sdk().sinkSendSet(session.endpoint(), session.serviceId(), nullptr, target.uid,
                            data.data(), static_cast<uint32_t>(data.size())),
          request);
    answer(session, ZELSBPCommandSet, EventKind::SetDone, target, request, false);
    console::line(elements.line(data));
    session.stop();
    return kExitOk;
}

int runSubscribe(const ServiceArgs& args, const ElementArgs& elementArgs,
                 const SubscribeArgs& subscribe) {
    Elements elements(elementArgs);
    Target target = elements.resolve(elementArgs.elements.at(0));
    bool periodic = subscribe.periodicMs > 0;
    Session session(args.connect);
    openSbp(session, args);

    std::string request = "Subscribe " + target.label;
    // An on-change subscription still carries an interval, and peers refuse 0.
    check(sdk().sinkSendSubscribe(session.endpoint(), session.serviceId(), nullptr, target.uid,
                                  periodic ? ZELSBPSubscribePeriodic : ZELSBPSubscribeOnChange,
                                  periodic ? subscribe.periodicMs : 1000),
          request);
    answer(session, ZELSBPCommandSubscribe, EventKind::Subscribed, target, request);
    console::note(
        "subscribed to " + target.label +
        (periodic ? ", every " + std::to_string(subscribe.periodicMs) + " ms" : ", on change"));

    int code = kExitOk;
    int received = 0;
    try {
        while (subscribe.count == 0 || received < subscribe.count) {
            Event event = session.nextUntil(session.openDeadline(), "update");
            if (event.uid != target.uid) continue;
            if (event.kind == EventKind::SbpError && event.command == ZELSBPCommandSubscribe) {
                requestFailed(event, request, target);
            }
            if (event.kind != EventKind::Data || event.command != ZELSBPCommandSubscribe) continue;
            console::line(elements.line(event.data));
            ++received;
        }
    } catch (const Interrupted&) {
        code = interrupted(subscribe.count, received, "updates");
        console::note("cancelling the subscription");
    }

    std::string cancel = "Cancel of the subscription to " + target.label;
    check(sdk().sinkSendCancel(session.endpoint(), session.serviceId(), nullptr, target.uid,
                               ZELSBPCommandSubscribe),
          cancel);
    try {
        answer(session, ZELSBPCommandCancel, EventKind::Cancelled, target, cancel);
    } catch (const Failure& e) {
        console::message(e.what());
    }
    session.stop();
    return code;
}

int runAlive(const ServiceArgs& args, int count, double intervalSeconds) {
    Session session(args.connect);
    openSbp(session, args);
    for (int i = 0; i < count; ++i) {
        if (i > 0) {
            session.pauseUntil(Clock::now() +
                               std::chrono::milliseconds(int64_t(intervalSeconds * 1000)));
        }
        auto sent = Clock::now();
        check(sdk().sinkSendAlive(session.endpoint(), session.serviceId(), nullptr, 0), "Alive");
        for (;;) {
            Event event = session.next("answer to Alive");
            if (event.kind == EventKind::SbpError && event.command == ZELSBPCommandAliveRequest) {
                requestFailed(event, "Alive", Target{});
            }
            if (event.kind == EventKind::Alive) break;
        }
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
        Json line = Json::object();
        line["alive"] = true;
        line["roundTripMs"] = double(int64_t(ms * 10 + 0.5)) / 10;
        console::line(dumped(line));
    }
    session.stop();
    return kExitOk;
}

int runSend(const ServiceArgs& args, const std::string& hex, int replies) {
    std::vector<uint8_t> payload = fromHex(hex);
    if (payload.size() > kMaxPayload) {
        throw Failure(kExitUsage,
                      "a payload holds at most 8100 bytes, not " + std::to_string(payload.size()));
    }
    Session session(args.connect);
    session.connect();
    PeerService service = session.find(args.service);
    session.startPlain(service);
    check(sdk().endpointSendServicePayload(session.endpoint(), service.id, payload.data(),
                                           static_cast<uint32_t>(payload.size())),
          "the payload");
    for (int received = 0; received < replies;) {
        Event event = session.next("reply on " + service.name);
        if (event.kind != EventKind::Payload) continue;
        console::line(toHex(event.data.data(), event.data.size()));
        ++received;
    }
    session.stop();
    return kExitOk;
}

int runListen(const ServiceArgs& args, int count) {
    Session session(args.connect);
    session.connect();
    PeerService service = session.find(args.service);
    session.startPlain(service);
    int code = kExitOk;
    int received = 0;
    try {
        while (count == 0 || received < count) {
            Event event = session.nextUntil(session.openDeadline(), "payload");
            if (event.kind != EventKind::Payload) continue;
            console::line(toHex(event.data.data(), event.data.size()));
            ++received;
        }
    } catch (const Interrupted&) {
        code = interrupted(count, received, "payloads");
    }
    session.stop();
    return code;
}

}  // namespace zelcdb
