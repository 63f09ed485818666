// Property: random serializer call sequences read back as the same sequence of events.
//
// Two things deliberately do not round-trip and are kept out of the generated data:
// non-ASCII text (the writer's length field counts UTF-8 bytes, the reader counts units) and
// empty containers inside containers (the reader does not count them in their parent).
// Empty containers at top level or directly in a value list are fine and are generated.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "CodecTestSupport.h"
#include "sbp/SBPFloatBits.h"

namespace sbptest {
namespace {

class Script {
public:
    Script(uint32_t seed, ZELSBPSerializer* serializer) : random_(seed), s_(serializer) {}

    // One top-level value or a value list; returns whether it is a value list.
    bool topLevel() {
        if (pick(2) == 0) {
            value(uid(), 0, false);
            return false;
        }
        ok(api().serializerBeginValueList(s_));
        for (uint32_t n = pick(6); n > 0; --n) value(uid(), 1, false);
        ok(api().serializerEnd(s_));
        return true;
    }

    Events expected;

private:
    uint32_t pick(uint32_t n) { return static_cast<uint32_t>(random_() % n); }
    uint32_t uid() { return pick(4) == 0 ? pick(16) : static_cast<uint32_t>(random_()); }
    void ok(ZELCDBError result) { ASSERT_EQ(result, ZELCDBErrorNone); }
    void expect(const char* name, uint32_t uid, const std::string& rest) {
        expected.push_back(std::string(name) + " " + std::to_string(uid) +
                           (rest.empty() ? "" : " " + rest));
    }

    // A value of any kind; inside a container (nested) containers are never empty.
    void value(uint32_t uid, int depth, bool nested) {
        uint32_t kind = pick(depth < 4 ? 12 : 9);
        if (kind < 7) return scalar(uid, static_cast<uint8_t>(0x82 + kind));
        switch (kind) {
            case 7:
                return bytes(uid);
            case 8:
                return text(uid);
            case 9:
                return structure(uid, depth, nested);
            case 10:
                return scalarArray(uid, nested);
            default:
                return structureArray(uid, depth, nested);
        }
    }

    void scalar(uint32_t uid, uint8_t type) {
        uint64_t r = random_();
        switch (type) {
            case 0x82: {
                int32_t v = pick(3) == 0 ? 0 : static_cast<int32_t>(r);
                ok(api().serializerAddBoolean(s_, uid, v));
                return expect("bool", uid, v != 0 ? "1" : "0");
            }
            case 0x83:
                ok(api().serializerAddByte(s_, uid, static_cast<int8_t>(r)));
                return expect("byte", uid, std::to_string(static_cast<int8_t>(r)));
            case 0x84:
                ok(api().serializerAddShort(s_, uid, static_cast<int16_t>(r)));
                return expect("short", uid, std::to_string(static_cast<int16_t>(r)));
            case 0x85:
                ok(api().serializerAddInt(s_, uid, static_cast<int32_t>(r)));
                return expect("int", uid, std::to_string(static_cast<int32_t>(r)));
            case 0x86:
                ok(api().serializerAddLong(s_, uid, static_cast<int64_t>(r)));
                return expect("long", uid, std::to_string(static_cast<int64_t>(r)));
            case 0x87: {
                float v;
                uint32_t bits = static_cast<uint32_t>(r);
                std::memcpy(&v, &bits, sizeof v);
                ok(api().serializerAddFloat(s_, uid, v));
                // NaNs come back as the quiet NaN with their sign.
                float back;
                uint32_t canonical = zelcdbsdk::sbpFloatBitsArithmetic(v);
                std::memcpy(&back, &canonical, sizeof back);
                return expect("float", uid, floatBits(back));
            }
            default: {
                double v;
                std::memcpy(&v, &r, sizeof v);
                ok(api().serializerAddDouble(s_, uid, v));
                double back;
                uint64_t canonical = zelcdbsdk::sbpFloatBitsArithmetic(v);
                std::memcpy(&back, &canonical, sizeof back);
                return expect("double", uid, doubleBits(back));
            }
        }
    }

    void bytes(uint32_t uid) {
        Bytes data(pick(24));
        for (uint8_t& b : data) b = static_cast<uint8_t>(random_());
        ok(api().serializerAddBytes(s_, uid, data.data(), static_cast<uint32_t>(data.size())));
        expect("bytes", uid, hex(data));
    }

    void text(uint32_t uid) {
        std::string value(pick(40), ' ');
        for (char& c : value) c = static_cast<char>(1 + pick(127));
        ok(api().serializerAddString(s_, uid, value.c_str(), ZELSBP_NUL_TERMINATED));
        expect("string", uid, hex(reinterpret_cast<const uint8_t*>(value.data()), value.size()));
    }

    void structure(uint32_t uid, int depth, bool nested) {
        uint32_t members = (nested ? 1 : 0) + pick(5);
        ok(api().serializerBeginStructure(s_, uid));
        expect("struct", uid, std::to_string(members));
        for (uint32_t i = 0; i < members; ++i) value(this->uid(), depth + 1, true);
        ok(api().serializerEnd(s_));
        expect("end", uid, "");
    }

    void scalarArray(uint32_t uid, bool nested) {
        static const uint8_t kTypes[] = {0x82, 0x84, 0x85, 0x86, 0x87, 0x88};
        uint8_t type = kTypes[pick(6)];
        ok(api().serializerBeginArray(s_, uid, type));
        char typeText[4];
        std::snprintf(typeText, sizeof typeText, "%02X", type);
        expect("array", uid, typeText);
        for (uint32_t n = (nested ? 1 : 0) + pick(20); n > 0; --n) scalar(0, type);
        ok(api().serializerEnd(s_));
        expect("end", uid, "");
    }

    void structureArray(uint32_t uid, int depth, bool nested) {
        ok(api().serializerBeginArray(s_, uid, 0xA1));
        expect("array", uid, "A1");
        for (uint32_t n = (nested ? 1 : 0) + pick(4); n > 0; --n) structure(0, depth + 1, true);
        ok(api().serializerEnd(s_));
        expect("end", uid, "");
    }

    std::mt19937_64 random_;
    ZELSBPSerializer* s_;
};

TEST(RoundTripTest, RandomCallSequencesReadBackAsTheSameEvents) {
    Recorder r;
    for (uint32_t seed = 1; seed <= 1000; ++seed) {
        SCOPED_TRACE(seed);
        Serializer s;
        Script script(seed, s.get());
        bool valueList = script.topLevel();
        ASSERT_FALSE(HasFatalFailure());
        Bytes data = s.bytes();
        ASSERT_FALSE(data.empty());
        ZELCDBError result = valueList ? r.deserializeValueList(data) : r.deserialize(data);
        ASSERT_EQ(result, ZELCDBErrorNone);
        ASSERT_EQ(r.events, script.expected);
    }
}

TEST(RoundTripTest, NestedEmptyContainersAreWhereTheRoundTripBreaks) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginArray(s.get(), 2, 0x85), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddInt(s.get(), 3, 4), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    Recorder r;
    // The empty array is not counted, so the structure takes its end byte for a member.
    EXPECT_EQ(r.deserialize(s.bytes()), ZELCDBErrorSBPDeserializeInputTruncated);
    EXPECT_EQ(r.events, (Events{"struct 1 2", "array 2 85", "end 2", "int 3 4"}));
}

TEST(RoundTripTest, NonAsciiTextDoesNotRoundTrip) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginValueList(s.get()), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddString(s.get(), 1, "\xC3\xA9", ZELSBP_NUL_TERMINATED),
              ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddByte(s.get(), 2, 0x41), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    Recorder r;
    // Two units are read for one character: the next value's first bytes become text.
    EXPECT_EQ(r.deserializeValueList(s.bytes()), ZELCDBErrorSBPDeserializeInputTruncated);
    EXPECT_EQ(r.events, (Events{"string 1 C3 A9"}));
}

}  // namespace
}  // namespace sbptest
