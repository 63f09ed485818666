#pragma once

// Helpers for the SBP codec tests: the function table as an application gets it, a one-line
// call language for the serializer, and a deserializer that writes its callbacks back in the
// same language, so that call scripts and event traces read alike.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "TestText.h"
#include "zelcdbsdk.h"

namespace sbptest {

using zeltest::Bytes;

// Filled on first use, never during static initialisation.
inline const ZELCDBSDK& api() {
    static const ZELCDBSDK table = [] {
        ZELCDBSDK t{};
        ZELCDBSDKInitialize(&t, sizeof t);
        return t;
    }();
    return table;
}

using zeltest::format;
using zeltest::hex;
using zeltest::parseHex;

// One serializer call of a script token; see run().
inline ZELCDBError call(ZELSBPSerializer* s, char kind, uint32_t uid, const std::string& value,
                        uint32_t length) {
    const ZELCDBSDK& a = api();
    int64_t n = std::strtoll(value.c_str(), nullptr, 0);
    float f = std::strtof(value.c_str(), nullptr);
    double d = std::strtod(value.c_str(), nullptr);
    if (value[0] == '#') {
        uint64_t bits = std::strtoull(value.c_str() + 1, nullptr, 16);
        uint32_t low = static_cast<uint32_t>(bits);
        std::memcpy(&f, &low, sizeof f);
        std::memcpy(&d, &bits, sizeof d);
    }
    bool null = value == "-";
    Bytes data = !null && (kind == 'x' || kind == 's' || kind == 'A') ? parseHex(value) : Bytes();
    std::string text(data.begin(), data.end());
    uint32_t size = length != ZELSBP_NUL_TERMINATED ? length : static_cast<uint32_t>(data.size());
    if (kind == 'L') return a.serializerBeginValueList(s);
    if (kind == 'S') return a.serializerBeginStructure(s, uid);
    if (kind == 'A') return a.serializerBeginArray(s, uid, static_cast<uint8_t>(data.at(0)));
    if (kind == 'E') return a.serializerEnd(s);
    if (kind == 'z') return a.serializerAddBoolean(s, uid, static_cast<int32_t>(n));
    if (kind == 'y') return a.serializerAddByte(s, uid, static_cast<int8_t>(n));
    if (kind == 'h') return a.serializerAddShort(s, uid, static_cast<int16_t>(n));
    if (kind == 'i') return a.serializerAddInt(s, uid, static_cast<int32_t>(n));
    if (kind == 'l') return a.serializerAddLong(s, uid, n);
    if (kind == 'f') return a.serializerAddFloat(s, uid, f);
    if (kind == 'd') return a.serializerAddDouble(s, uid, d);
    if (kind == 'x') return a.serializerAddBytes(s, uid, null ? nullptr : data.data(), size);
    if (kind == 's') return a.serializerAddString(s, uid, null ? nullptr : text.c_str(), length);
    // 'G': GetData, which clears both outputs when it refuses.
    const uint8_t* out = reinterpret_cast<const uint8_t*>(&kind);
    uint32_t outLength = 99;
    ZELCDBError result = a.serializerGetData(s, &out, &outLength);
    EXPECT_TRUE(result == ZELCDBErrorNone || (out == nullptr && outLength == 0));
    return result;
}

// Runs a call script on s, checking every call's result. Space-separated tokens:
//   L, S<uid>, A<uid>:<element type hex>, E, G      begin list/structure/array, end, get data
//   z, y, h, i, l <uid>:<value>     boolean, byte, short, int, long (C integer literal)
//   f, d <uid>:<value>              float, double: strtod text, or #<hex> for the bit pattern
//   x, s <uid>:<hex bytes>          bytes, string (UTF-8 bytes; NUL-terminated unless /<n>)
//   x and s take "-" for a null pointer and /<n> for an explicit length; !<code> at the end
//   is the result the call must give, 0 otherwise.
inline void run(ZELSBPSerializer* s, const std::string& script) {
    for (size_t at = 0; (at = script.find_first_not_of(' ', at)) != std::string::npos;) {
        std::string token = script.substr(at, script.find(' ', at) - at);
        at += token.size();
        char* rest;
        uint32_t uid = static_cast<uint32_t>(std::strtoul(token.c_str() + 1, &rest, 10));
        std::string value;
        if (*rest == ':') {
            value.assign(rest + 1, std::strcspn(rest + 1, "/!"));
            rest += 1 + value.size();
        }
        uint32_t length = ZELSBP_NUL_TERMINATED;
        if (*rest == '/') length = static_cast<uint32_t>(std::strtoul(rest + 1, &rest, 10));
        ZELCDBError expected = *rest == '!' ? std::atoi(rest + 1) : ZELCDBErrorNone;
        EXPECT_EQ(call(s, token[0], uid, value, length), expected) << token;
    }
}

// A serializer from the table, destroyed (open containers and all) with the test.
class Serializer {
public:
    explicit Serializer(const std::string& script = "") {
        EXPECT_EQ(api().serializerCreate(&handle_), ZELCDBErrorNone);
        run(script);
    }
    ~Serializer() { EXPECT_EQ(api().serializerDestroy(handle_), ZELCDBErrorNone); }

    ZELSBPSerializer* get() const { return handle_; }
    void run(const std::string& script) { sbptest::run(handle_, script); }
    // The finished bytes, or nothing when GetData refuses.
    Bytes bytes() const {
        const uint8_t* data = nullptr;
        uint32_t length = 0;
        api().serializerGetData(handle_, &data, &length);
        return Bytes(data, data + length);
    }

private:
    ZELSBPSerializer* handle_ = nullptr;
};

// A deserializer from the table whose callbacks append one space-separated token per event
// to trace, in the call script language, so that a trace runs as a script: "i5:16909060",
// "S10:1" (structure, member count), "A7:84" (array, element type), "E10" (end), "x3:ABCD",
// "s1:C3A9" (UTF-8 bytes), "f0:#3F800000" (floats and doubles as bit patterns, so that every
// bit counts).
class Recorder {
public:
    explicit Recorder(uint32_t callbacksSize = sizeof(ZELSBPDeserializerCallbacks),
                      const ZELSBPDeserializerCallbacks* callbacks = &kAll) {
        EXPECT_EQ(api().deserializerCreate(&handle_, this, callbacks, callbacksSize), 0);
    }
    ~Recorder() { api().deserializerDestroy(handle_); }

    ZELSBPDeserializer* get() const { return handle_; }
    ZELCDBError deserialize(const Bytes& data, bool valueList = false) {
        trace.clear();
        auto entry =
            valueList ? api().deserializerDeserializeValueList : api().deserializerDeserialize;
        return entry(handle_, &userData_, data.data(), static_cast<uint32_t>(data.size()));
    }

    std::string trace;
    size_t events = 0;
    bool quiet = false;  // count events only, allocating nothing
    const uint8_t* lastBytes = nullptr;
    const char* lastText = nullptr;
    // Run inside the string callback, before its text is recorded.
    void (*inString)(Recorder& recorder) = nullptr;

    static const ZELSBPDeserializerCallbacks kAll;

private:
    template <char K, typename... T>
    static void on(ZELSBPDeserializer* d, void* context, void* userData, uint32_t uid, T... v) {
        Recorder& r = *static_cast<Recorder*>(context);
        ++r.events;
        if (r.quiet) return;
        r.trace += (r.trace.empty() ? "" : " ") + std::string(1, K) + std::to_string(uid);
        // A callback given another handle or user data shows up in the trace.
        if (d != r.handle_ || userData != &r.userData_) r.trace += "?";
        r.trace += r.text(v...);
    }
    std::string text() { return ""; }
    std::string text(const uint8_t* data, uint32_t length) {
        lastBytes = data;
        return ":" + hex(data, length, "");
    }
    std::string text(const char* utf8) {
        lastText = utf8;
        if (inString) inString(*this);
        return ":" + hex(utf8, std::strlen(utf8), "");
    }
    template <typename T>
    std::string text(T v) {
        if constexpr (std::is_same_v<T, uint8_t>) {
            return format(":%02X", v);
        } else if constexpr (std::is_floating_point_v<T>) {
            std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t> bits;
            std::memcpy(&bits, &v, sizeof bits);
            return format(":#%0*" PRIX64, static_cast<int>(2 * sizeof bits), uint64_t{bits});
        } else {
            return ":" + std::to_string(v);
        }
    }

    ZELSBPDeserializer* handle_ = nullptr;
    int userData_ = 0;
};

inline const ZELSBPDeserializerCallbacks Recorder::kAll = {
    &on<'z', int32_t>,     &on<'y', int8_t>,
    &on<'h', int16_t>,     &on<'i', int32_t>,
    &on<'l', int64_t>,     &on<'f', float>,
    &on<'d', double>,      &on<'x', const uint8_t*, uint32_t>,
    &on<'s', const char*>, &on<'S', uint32_t>,
    &on<'A', uint8_t>,     &on<'E'>};

}  // namespace sbptest
