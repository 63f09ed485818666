#pragma once

// The two SBP applications of the SBP endpoint tests, written against the function table
// alone: Vehicle offers an SBP source of a few typed elements, Dashboard uses one through an
// SBP sink. Every callback becomes a line of text in the application's Recorder, with
// values encoded by the library's serializer and shown as its deserializer reads them back,
// for example "data g1 b1 position(latitude=48.137 longitude=11.575)".
//
// Callbacks run on the endpoint threads; everything they share with the test thread is
// guarded by each application's mutex.

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace sbptest {

using Bytes = std::vector<uint8_t>;
using sdktest::api;
using sdktest::format;

inline uint32_t uidOf(const std::string& name) {
    return api().hashName(name.c_str(), ZELSBP_NUL_TERMINATED);
}

// The names the tests use, for showing UIDs.
inline std::string nameOf(uint32_t uid) {
    static const char* const kNames[] = {"speed",     "position",  "latitude",
                                         "longitude", "driver",    "pressures",
                                         "odometer",  "challenge", "answer"};
    for (const char* name : kNames) {
        if (uidOf(name) == uid) return name;
    }
    return format("%x", uid);
}

inline std::string contextText(void* context) {
    return context ? static_cast<const char*>(context) : "-";
}

inline Bytes encode(const std::function<void(ZELSBPSerializer*)>& build) {
    ZELSBPSerializer* serializer = nullptr;
    if (api().serializerCreate(&serializer) != ZELCDBErrorNone) return {};
    build(serializer);
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    Bytes bytes;
    if (api().serializerGetData(serializer, &data, &length) == ZELCDBErrorNone) {
        bytes.assign(data, data + length);
    }
    api().serializerDestroy(serializer);
    return bytes;
}

inline Bytes intValue(const char* name, int32_t value) {
    return encode([&](ZELSBPSerializer* s) { api().serializerAddInt(s, uidOf(name), value); });
}

inline Bytes stringValue(const char* name, const char* text) {
    return encode([&](ZELSBPSerializer* s) {
        api().serializerAddString(s, uidOf(name), text, ZELSBP_NUL_TERMINATED);
    });
}

inline Bytes positionValue(double latitude, double longitude) {
    return encode([&](ZELSBPSerializer* s) {
        api().serializerBeginStructure(s, uidOf("position"));
        api().serializerAddDouble(s, uidOf("latitude"), latitude);
        api().serializerAddDouble(s, uidOf("longitude"), longitude);
        api().serializerEnd(s);
    });
}

inline Bytes pressuresValue(const std::vector<float>& values) {
    return encode([&](ZELSBPSerializer* s) {
        api().serializerBeginArray(s, uidOf("pressures"), 0x87);
        for (float v : values) api().serializerAddFloat(s, 0, v);
        api().serializerEnd(s);
    });
}

// The value as the deserializer reports it; "" for no data, "!<code>" when it refuses.
inline std::string decode(const uint8_t* data, int32_t size) {
    if (size <= 0) return "";
    struct Text {
        std::string out;
        std::string& item(uint32_t uid, const char* separator = "=") {
            if (!out.empty() && out.back() != '(') out += ' ';
            if (uid) out += nameOf(uid) + separator;
            return out;
        }
    };
    static ZELSBPDeserializerCallbacks callbacks = [] {
        ZELSBPDeserializerCallbacks t{};
        t.intCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
            static_cast<Text*>(u)->item(uid) += std::to_string(v);
        };
        t.floatCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, float v) {
            static_cast<Text*>(u)->item(uid) += format("%g", v);
        };
        t.doubleCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, double v) {
            static_cast<Text*>(u)->item(uid) += format("%g", v);
        };
        t.stringCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const char* s) {
            static_cast<Text*>(u)->item(uid) += format("'%s'", s);
        };
        t.structureBeginCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint32_t) {
            static_cast<Text*>(u)->item(uid, "") += "(";
        };
        t.arrayBeginCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint8_t) {
            static_cast<Text*>(u)->item(uid, "") += "(";
        };
        t.endCallback = [](ZELSBPDeserializer*, void*, void* u, uint32_t) {
            static_cast<Text*>(u)->out += ")";
        };
        return t;
    }();
    ZELSBPDeserializer* deserializer = nullptr;
    if (api().deserializerCreate(&deserializer, nullptr, &callbacks, sizeof callbacks) !=
        ZELCDBErrorNone) {
        return "!create";
    }
    Text result;
    ZELCDBError error =
        api().deserializerDeserialize(deserializer, &result, data, static_cast<uint32_t>(size));
    api().deserializerDestroy(deserializer);
    return error == ZELCDBErrorNone ? result.out : format("!%d", error);
}

inline std::string decode(const Bytes& bytes) {
    return decode(bytes.data(), static_cast<int32_t>(bytes.size()));
}

inline std::string commandText(uint32_t command) {
    return format("%x", command);
}

// SBP packets as the tests write and read them, independently of the library's own packet
// code: command, length, uid, packetId, commandValue, then the payload or four zero bytes,
// then the end marker.
inline Bytes packet(uint8_t command, uint32_t uid, uint16_t packetId, uint32_t value,
                    const Bytes& payload = {}) {
    Bytes out{command};
    auto put = [&](uint32_t v, int bytes) {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            out.push_back(static_cast<uint8_t>(v >> shift));
        }
    };
    put(payload.empty() ? 15 : static_cast<uint32_t>(payload.size() + 11), 4);
    put(uid, 4);
    put(packetId, 2);
    put(value, 4);
    if (payload.empty()) {
        put(0, 4);
    } else {
        out.insert(out.end(), payload.begin(), payload.end());
    }
    out.push_back(0xB0);
    return out;
}

inline std::string hex(const uint8_t* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) text += format("%02x", data[i]);
    return text;
}
inline std::string hex(const Bytes& bytes) {
    return hex(bytes.data(), bytes.size());
}

// The source's application. Lines: start, stop, terminated, "get b1|b3 <name>",
// "set <value>", "subscribe <name> <type> <interval>", "cancel <command> <name>",
// "auth-response <command> <name> <result> <value>".
class Vehicle {
public:
    enum class Answer { kAtOnce, kLater, kRefuse };

    sdktest::Recorder events;
    ZELCDBEndpoint* endpoint = nullptr;  // set before the endpoint starts
    uint16_t serviceId = 0;

    Vehicle() {
        values_[uidOf("speed")] = intValue("speed", 88);
        values_[uidOf("position")] = positionValue(48.137, 11.575);
        values_[uidOf("driver")] = stringValue("driver", "Ann");
        values_[uidOf("pressures")] = pressuresValue({2.25f, 2.25f, 2.5f});
    }

    // How a Get is answered from now on: from inside the callback through the table, by the
    // test (answerGet), or refused at once with the given result value.
    void answerGets(Answer answer, uint32_t refusal = 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        getAnswer_ = answer;
        refusal_ = refusal;
    }
    // What a subscription of type 2 becomes; 2 leaves the choice unmade.
    void chooseType(uint32_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        chosenType_ = type;
    }
    // Every Get is challenged first and answered once the sink has answered the challenge.
    void challengeGets(bool challenge) {
        std::lock_guard<std::mutex> lock(mutex_);
        challenge_ = challenge;
    }
    void setValue(uint32_t uid, Bytes value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_[uid] = std::move(value);
    }
    Bytes value(uint32_t uid) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = values_.find(uid);
        return it == values_.end() ? Bytes() : it->second;
    }

    // The application's late answers: a Get response, or (command 0xB3) a subscription
    // update, carrying the element's current value.
    ZELCDBError answer(uint32_t uid, uint32_t command = 0xB1) {
        Bytes v = value(uid);
        return api().sourceSendGetResponse(endpoint, serviceId, nullptr, command, uid, 0,
                                           v.empty() ? nullptr : v.data(),
                                           static_cast<uint32_t>(v.size()));
    }

    static ZELSBPSourceCallbacks table() {
        ZELSBPSourceCallbacks t{};
        t.serviceStartCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint8_t,
                                    uint8_t) -> int32_t {
            of(c).events.add("start");
            return 0;
        };
        t.serviceStopCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c) -> int32_t {
            of(c).events.add("stop");
            return 0;
        };
        t.serviceTerminatedCallback = [](ZELCDBEndpoint*, uint16_t, void* c) {
            of(c).events.add("terminated");
        };
        t.getCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid,
                           uint32_t* result) { return of(c).onGet(command, uid, result); };
        t.setCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t uid, const uint8_t* data,
                           int32_t size, uint32_t* result) -> ZELCDBError {
            Vehicle& app = of(c);
            app.events.add("set " + decode(data, size));
            app.setValue(uid, Bytes(data, data + (size > 0 ? size : 0)));
            *result = 0;
            return ZELCDBErrorLocalSBPError;
        };
        t.subscribeCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t uid, uint32_t* type,
                                 uint32_t* interval, uint32_t* result) -> ZELCDBError {
            Vehicle& app = of(c);
            app.events.add(format("subscribe %s %u %u", nameOf(uid).c_str(), *type, *interval));
            std::lock_guard<std::mutex> lock(app.mutex_);
            if (*type == 2) *type = app.chosenType_;
            *result = 0;
            return ZELCDBErrorLocalSBPError;
        };
        t.cancelCallback = [](ZELCDBEndpoint*, uint16_t, void* c, uint32_t command, uint32_t uid) {
            of(c).events.add("cancel " + commandText(command) + " " + nameOf(uid));
        };
        t.authResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void*, uint32_t command,
                                    uint32_t uid, uint32_t result, const uint8_t* data,
                                    int32_t size) {
            Vehicle& app = of(c);
            app.events.add(format("auth-response %x %s %x ", command, nameOf(uid).c_str(), result) +
                           decode(data, size));
            EXPECT_EQ(app.answer(uid), ZELCDBErrorNone);
        };
        return t;
    }

private:
    static Vehicle& of(void* context) { return *static_cast<Vehicle*>(context); }

    ZELCDBError onGet(uint32_t command, uint32_t uid, uint32_t* result) {
        events.add("get " + commandText(command) + " " + nameOf(uid));
        Answer answer;
        bool challenge;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            answer = getAnswer_;
            challenge = challenge_;
            *result = refusal_;
        }
        if (command == 0xB3) {
            // A periodic tick: the update goes out through the table, queued.
            EXPECT_EQ(this->answer(uid, 0xB3), ZELCDBErrorNone);
            return ZELCDBErrorNone;
        }
        if (challenge) {
            Bytes question = stringValue("challenge", "prove it");
            EXPECT_EQ(api().sourceSendServiceAuthChallenge(endpoint, serviceId, nullptr, command,
                                                           uid, question.data(),
                                                           static_cast<uint32_t>(question.size())),
                      ZELCDBErrorNone);
            return ZELCDBErrorNone;
        }
        switch (answer) {
            case Answer::kAtOnce:
                EXPECT_EQ(this->answer(uid), ZELCDBErrorNone);
                return ZELCDBErrorNone;
            case Answer::kLater:
                return ZELCDBErrorNone;
            case Answer::kRefuse:
                break;
        }
        return ZELCDBErrorLocalSBPError;
    }

    std::mutex mutex_;
    // State below is guarded by mutex_.
    std::map<uint32_t, Bytes> values_;
    Answer getAnswer_ = Answer::kAtOnce;
    uint32_t refusal_ = 0;
    uint32_t chosenType_ = 2;
    bool challenge_ = false;
};

// The sink's application. Lines: "status <code>", "data <ctx> <command> <value>",
// "set-done <ctx> <name>", "subscribed <ctx> <name>", "cancelled <ctx> <command> <name>",
// "error <ctx> <command> <name> <error> <result>", "challenge <ctx> <command> <name> <value>",
// "alive <ctx>". Request contexts are C strings (null shows as "-").
class Dashboard {
public:
    sdktest::Recorder events;

    // Challenges are answered from inside the callback with result 0 and a value, or not.
    void answerChallenges(bool answer) {
        std::lock_guard<std::mutex> lock(mutex_);
        answerChallenges_ = answer;
    }

    static ZELSBPSinkCallbacks table() {
        ZELSBPSinkCallbacks t{};
        t.serviceStatusCallback = [](ZELCDBEndpoint*, void*, uint16_t, void* c, uint16_t status) {
            of(c).events.add(format("status %d", status));
        };
        t.dataCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command, uint32_t,
                            const uint8_t* payload, int32_t size) {
            of(c).events.add("data " + contextText(r) + " " + commandText(command) + " " +
                             decode(payload, size));
        };
        t.setDoneCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t uid) {
            of(c).events.add("set-done " + contextText(r) + " " + nameOf(uid));
        };
        t.subscribedCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t uid) {
            of(c).events.add("subscribed " + contextText(r) + " " + nameOf(uid));
        };
        t.cancelledCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                                 uint32_t uid) {
            of(c).events.add("cancelled " + contextText(r) + " " + commandText(command) + " " +
                             nameOf(uid));
        };
        t.errorCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r, uint32_t command,
                             uint32_t uid, ZELCDBError error, uint32_t result) {
            of(c).events.add(format("error %s %x %s %d %x", contextText(r).c_str(), command,
                                    nameOf(uid).c_str(), error, result));
        };
        t.authChallengeCallback = [](ZELCDBEndpoint* e, uint16_t s, void* c, void* r,
                                     uint32_t command, uint32_t uid, const uint8_t* challenge,
                                     int32_t size) {
            Dashboard& app = of(c);
            app.events.add("challenge " + contextText(r) + " " + commandText(command) + " " +
                           nameOf(uid) + " " + decode(challenge, size));
            std::lock_guard<std::mutex> lock(app.mutex_);
            if (!app.answerChallenges_) return;
            Bytes proof = stringValue("answer", "proven");
            EXPECT_EQ(api().sinkSendServiceAuthResponse(e, s, r, command, uid, 0, proof.data(),
                                                        static_cast<uint32_t>(proof.size())),
                      ZELCDBErrorNone);
        };
        t.aliveResponseCallback = [](ZELCDBEndpoint*, uint16_t, void* c, void* r) {
            of(c).events.add("alive " + contextText(r));
        };
        return t;
    }

private:
    static Dashboard& of(void* context) { return *static_cast<Dashboard*>(context); }

    std::mutex mutex_;
    bool answerChallenges_ = true;  // guarded by mutex_
};

}  // namespace sbptest
