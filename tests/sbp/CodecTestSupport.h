#pragma once

// Helpers for the SBP codec tests: the function table as an application gets it, a
// deserializer that records its callbacks as text lines, and byte-vector helpers.

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "zelcdbsdk.h"

namespace sbptest {

using Bytes = std::vector<uint8_t>;

// Filled on first use, never during static initialisation.
inline const ZELCDBSDK& api() {
    static const ZELCDBSDK table = [] {
        ZELCDBSDK t{};
        ZELCDBSDKInitialize(&t, sizeof t);
        return t;
    }();
    return table;
}

inline std::string hex(const uint8_t* data, size_t length) {
    std::string out;
    char digits[4];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : " %02X", data[i]);
        out += digits;
    }
    return out;
}
inline std::string hex(const Bytes& bytes) {
    return hex(bytes.data(), bytes.size());
}

// "01 02 A1" -> bytes.
inline Bytes parseHex(const char* text) {
    Bytes out;
    unsigned value;
    int used;
    while (std::sscanf(text, " %2x%n", &value, &used) == 1) {
        out.push_back(static_cast<uint8_t>(value));
        text += used;
    }
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A serializer from the table, destroyed with the test.
class Serializer {
public:
    Serializer() { create_ = api().serializerCreate(&handle_); }
    ~Serializer() {
        if (handle_) api().serializerDestroy(handle_);
    }
    Serializer(const Serializer&) = delete;
    Serializer& operator=(const Serializer&) = delete;

    ZELSBPSerializer* get() const { return handle_; }
    ZELCDBError createResult() const { return create_; }

    // The finished bytes, or an empty vector when GetData refuses.
    Bytes bytes() const {
        const uint8_t* data = nullptr;
        uint32_t length = 0;
        if (api().serializerGetData(handle_, &data, &length) != ZELCDBErrorNone) return {};
        return Bytes(data, data + length);
    }

private:
    ZELSBPSerializer* handle_ = nullptr;
    ZELCDBError create_;
};

inline std::string floatBits(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    char text[16];
    std::snprintf(text, sizeof text, "%08" PRIX32, bits);
    return text;
}
inline std::string doubleBits(double value) {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    char text[24];
    std::snprintf(text, sizeof text, "%016" PRIX64, bits);
    return text;
}

// A deserializer from the table whose callbacks append one line per event, e.g.
// "int 16909060 5", "struct 10 1", "array 7 84", "end 10". Floats and doubles are shown as
// their bit patterns, strings and bytes in hex, so that every bit of every value counts.
class Recorder {
public:
    explicit Recorder(uint32_t callbacksSize = sizeof(ZELSBPDeserializerCallbacks),
                      const ZELSBPDeserializerCallbacks* callbacks = &kAll) {
        api().deserializerCreate(&handle_, this, callbacks, callbacksSize);
    }
    ~Recorder() {
        if (handle_) api().deserializerDestroy(handle_);
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    ZELSBPDeserializer* get() const { return handle_; }

    ZELCDBError deserialize(const Bytes& data) {
        events.clear();
        return api().deserializerDeserialize(handle_, &userData_, data.data(),
                                             static_cast<uint32_t>(data.size()));
    }
    ZELCDBError deserializeValueList(const Bytes& data) {
        events.clear();
        return api().deserializerDeserializeValueList(handle_, &userData_, data.data(),
                                                      static_cast<uint32_t>(data.size()));
    }

    std::vector<std::string> events;
    // Pointers handed to the last bytes and string callbacks.
    const uint8_t* lastBytes = nullptr;
    const char* lastText = nullptr;
    // Run inside the string callback after recording, when set.
    void (*afterString)(Recorder& recorder) = nullptr;
    // Set when a callback got another handle, context or user data than it should.
    bool wrongArguments = false;

    static const ZELSBPDeserializerCallbacks kAll;

private:
    static Recorder& self(ZELSBPDeserializer* d, void* context, void* userData) {
        Recorder& r = *static_cast<Recorder*>(context);
        if (d != r.handle_ || userData != &r.userData_) r.wrongArguments = true;
        return r;
    }
    static void add(ZELSBPDeserializer* d, void* context, void* userData, const char* name,
                    uint32_t uid, const std::string& rest) {
        self(d, context, userData)
            .events.push_back(std::string(name) + " " + std::to_string(uid) +
                              (rest.empty() ? "" : " " + rest));
    }

    static void onBoolean(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, int32_t v) {
        add(d, c, u, "bool", uid, std::to_string(v));
    }
    static void onByte(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, int8_t v) {
        add(d, c, u, "byte", uid, std::to_string(v));
    }
    static void onShort(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, int16_t v) {
        add(d, c, u, "short", uid, std::to_string(v));
    }
    static void onInt(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, int32_t v) {
        add(d, c, u, "int", uid, std::to_string(v));
    }
    static void onLong(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, int64_t v) {
        add(d, c, u, "long", uid, std::to_string(v));
    }
    static void onFloat(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, float v) {
        add(d, c, u, "float", uid, floatBits(v));
    }
    static void onDouble(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, double v) {
        add(d, c, u, "double", uid, doubleBits(v));
    }
    static void onBytes(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, const uint8_t* data,
                        uint32_t length) {
        self(d, c, u).lastBytes = data;
        add(d, c, u, "bytes", uid, hex(data, length));
    }
    static void onString(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, const char* utf8) {
        add(d, c, u, "string", uid, hex(reinterpret_cast<const uint8_t*>(utf8), std::strlen(utf8)));
        Recorder& r = self(d, c, u);
        r.lastText = utf8;
        if (r.afterString) r.afterString(r);
    }
    static void onStructure(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, uint32_t count) {
        add(d, c, u, "struct", uid, std::to_string(count));
    }
    static void onArray(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid, uint8_t type) {
        char text[4];
        std::snprintf(text, sizeof text, "%02X", type);
        add(d, c, u, "array", uid, text);
    }
    static void onEnd(ZELSBPDeserializer* d, void* c, void* u, uint32_t uid) {
        add(d, c, u, "end", uid, "");
    }

    ZELSBPDeserializer* handle_ = nullptr;
    int userData_ = 0;
};

inline const ZELSBPDeserializerCallbacks Recorder::kAll = {
    &Recorder::onBoolean, &Recorder::onByte,      &Recorder::onShort,  &Recorder::onInt,
    &Recorder::onLong,    &Recorder::onFloat,     &Recorder::onDouble, &Recorder::onBytes,
    &Recorder::onString,  &Recorder::onStructure, &Recorder::onArray,  &Recorder::onEnd};

using Events = std::vector<std::string>;

}  // namespace sbptest
