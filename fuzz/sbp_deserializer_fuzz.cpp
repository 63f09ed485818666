// Feeds arbitrary bytes to the SBP data deserializer through the function table. The first
// byte picks the form (bit 0: value list) and optionally a callback to leave null (bit 1 set:
// bits 2 to 5 name it), the rest is the input. Checks what must hold for any input: only the
// deserializer's own codes come back, begin and end calls pair up, strings are terminated
// and bytes lie inside the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "zelcdbsdk.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

struct Walk {
    const uint8_t* begin;
    const uint8_t* end;
    uint32_t depth;
    uint32_t checksum;
};

Walk& walkOf(void* userData) {
    return *static_cast<Walk*>(userData);
}

void onScalar(Walk& w, uint32_t uid, uint32_t value) {
    w.checksum = w.checksum * 31 + uid + value;
}

const ZELSBPDeserializerCallbacks kCallbacks = {
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        require(v == 0 || v == 1);
        onScalar(walkOf(u), uid, static_cast<uint32_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int8_t v) {
        onScalar(walkOf(u), uid, static_cast<uint32_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int16_t v) {
        onScalar(walkOf(u), uid, static_cast<uint32_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        onScalar(walkOf(u), uid, static_cast<uint32_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int64_t v) {
        onScalar(walkOf(u), uid, static_cast<uint32_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, float v) {
        onScalar(walkOf(u), uid, v == v ? 1 : 0);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, double v) {
        onScalar(walkOf(u), uid, v == v ? 1 : 0);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const uint8_t* data, uint32_t length) {
        Walk& w = walkOf(u);
        require(data >= w.begin && data <= w.end && length <= static_cast<size_t>(w.end - data));
        for (uint32_t i = 0; i < length; ++i) onScalar(w, uid, data[i]);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const char* utf8) {
        Walk& w = walkOf(u);
        size_t length = std::strlen(utf8);
        // At most three UTF-8 bytes per 16-bit unit, two input bytes per unit.
        require(length <= static_cast<size_t>(w.end - w.begin) / 2 * 3);
        onScalar(w, uid, static_cast<uint32_t>(length));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint32_t count) {
        ++walkOf(u).depth;
        onScalar(walkOf(u), uid, count);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint8_t type) {
        require(type == 0x82 || (type >= 0x84 && type <= 0x88) || type == 0xA1);
        ++walkOf(u).depth;
        onScalar(walkOf(u), uid, type);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid) {
        Walk& w = walkOf(u);
        require(w.depth > 0);
        --w.depth;
        onScalar(w, uid, 0);
    },
};

const ZELCDBSDK& api() {
    static const ZELCDBSDK table = [] {
        ZELCDBSDK t{};
        require(ZELCDBSDKInitialize(&t, sizeof t) == ZELCDBErrorNone);
        return t;
    }();
    return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size - 1 > UINT32_MAX) return 0;
    const ZELCDBSDK& t = api();
    uint8_t control = data[0];
    bool valueList = (control & 1) != 0;
    ZELSBPDeserializerCallbacks callbacks = kCallbacks;
    if ((control & 2) != 0) {
        void (*none)() = nullptr;
        std::memcpy(reinterpret_cast<char*>(&callbacks) + ((control >> 2) % 12) * sizeof none,
                    &none, sizeof none);
    }
    ZELSBPDeserializer* deserializer = nullptr;
    Walk walk{data + 1, data + size, 0, 0};
    require(t.deserializerCreate(&deserializer, &walk, &callbacks, sizeof callbacks) ==
            ZELCDBErrorNone);
    require(t.deserializerGetContext(deserializer) == &walk);
    uint32_t length = static_cast<uint32_t>(size - 1);
    ZELCDBError result =
        valueList ? t.deserializerDeserializeValueList(deserializer, &walk, data + 1, length)
                  : t.deserializerDeserialize(deserializer, &walk, data + 1, length);
    require(result == ZELCDBErrorNone || (result >= 200 && result <= 203));
    require(!(valueList && result == ZELCDBErrorSBPDeserializeInputTooLong));
    require(length != 0 || result == ZELCDBErrorSBPDeserializeInputTruncated);
    require(t.deserializerDestroy(deserializer) == ZELCDBErrorNone);
    return 0;
}
