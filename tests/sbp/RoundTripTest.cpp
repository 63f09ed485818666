// Property: random serializer call sequences read back as the same sequence of events.
//
// Two things deliberately do not round-trip and are kept out of the generated data:
// non-ASCII text (the writer's length field counts UTF-8 bytes, the reader counts units) and
// empty containers inside containers (the reader does not count them in their parent).
// Empty containers at top level or directly in a value list are fine and are generated.
#include <gtest/gtest.h>

#include <random>

#include "CodecTestSupport.h"

namespace sbptest {
namespace {

// A NaN's payload is not kept: it reads back as the quiet NaN with its sign.
template <typename Bits>
Bits readBack(Bits bits, Bits exponent, Bits quiet) {
    Bits sign = bits & ~(~Bits(0) >> 1);
    return (bits & ~sign) > exponent ? sign | exponent | quiet : bits;
}

// A random call script and the trace its payload must read back as.
struct Script {
    std::mt19937_64 random;
    std::string calls, events;

    uint32_t pick(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    uint32_t uid() { return pick(4) == 0 ? pick(16) : static_cast<uint32_t>(random()); }
    // Kinds of value that may go at this depth: containers only up to depth 3.
    uint32_t kind(int depth) { return pick(depth < 4 ? 12 : 9); }
    void add(const std::string& call, const std::string& event = "") {
        calls += (calls.empty() ? "" : " ") + call;
        events += (events.empty() ? "" : " ") + (event.empty() ? call : event);
    }

    // kind: 0 to 6 the scalars boolean to double, 7 bytes, 8 text, 9 a structure, 10 a scalar
    // array, 11 an array of structures. Nested containers are never empty.
    void value(uint32_t kind, uint32_t uid, int depth, bool nested) {
        std::string id = std::to_string(uid);
        if (kind < 7) return scalar(kind, uid);
        if (kind < 9) {
            // Bytes, or ASCII text without NUL.
            std::string data(pick(kind == 7 ? 24 : 40), ' ');
            for (char& c : data) c = static_cast<char>(kind == 7 ? random() : 1 + pick(127));
            return add((kind == 7 ? "x" : "s") + id + ":" + hex(data.data(), data.size(), ""));
        }
        uint32_t count = (nested ? 1 : 0) + pick(kind == 9 ? 5 : kind == 10 ? 20 : 4);
        uint32_t element = pick(6);  // scalar arrays take every scalar type but the byte
        if (element > 0) ++element;
        if (kind == 9) {
            add("S" + id, "S" + id + ":" + std::to_string(count));
        } else {
            add("A" + id + ":" + (kind == 10 ? hexWord(0x82 + element, 2) : "A1"));
        }
        for (uint32_t i = 0; i < count; ++i) {
            if (kind == 9) value(this->kind(depth + 1), this->uid(), depth + 1, true);
            if (kind == 10) scalar(element, 0);
            if (kind == 11) value(9, 0, depth + 1, true);
        }
        add("E", "E" + id);
    }

    void scalar(uint32_t kind, uint32_t uid) {
        uint64_t r = random();
        std::string head = "zyhilfd"[kind] + std::to_string(uid) + ":";
        if (kind == 0) {
            int32_t v = pick(3) == 0 ? 0 : static_cast<int32_t>(r);
            return add(head + std::to_string(v), head + (v != 0 ? "1" : "0"));
        }
        if (kind < 5) {  // byte to long: r cut to the type's width
            int shift = 64 - (8 << (kind - 1));
            return add(head + std::to_string(static_cast<int64_t>(r << shift) >> shift));
        }
        // Floats go in as bit patterns.
        uint32_t low = static_cast<uint32_t>(r);
        if (kind == 5) {
            return add(head + "#" + hexWord(low, 8),
                       head + hexWord(readBack<uint32_t>(low, 0x7F800000, 0x400000), 8));
        }
        add(head + "#" + hexWord(r, 16),
            head + hexWord(readBack<uint64_t>(r, 0x7FF0000000000000, 0x8000000000000), 16));
    }
};

TEST(RoundTripTest, RandomCallSequencesReadBackAsTheSameEvents) {
    Recorder r;
    for (uint32_t seed = 1; seed <= 1000; ++seed) {
        SCOPED_TRACE(seed);
        Script script{std::mt19937_64(seed), "", ""};
        // One top-level value, or a value list of several.
        bool valueList = script.pick(2) == 0;
        if (valueList) {
            script.calls = "L";
            for (uint32_t n = script.pick(6); n > 0; --n)
                script.value(script.kind(1), script.uid(), 1, false);
            script.calls += " E";
        } else {
            script.value(script.kind(0), script.uid(), 0, false);
        }
        Serializer s(script.calls);
        ASSERT_EQ(r.deserialize(s.bytes(), valueList), ZELCDBErrorNone);
        ASSERT_EQ(r.trace, script.events);
    }
}

}  // namespace
}  // namespace sbptest
