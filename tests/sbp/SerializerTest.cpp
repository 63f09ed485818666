// The serializer through the function table: call scripts against exact bytes, count
// patching, placement rules, every error code and which check comes first.
#include <gtest/gtest.h>

#include <initializer_list>

#include "CodecTestSupport.h"
#include "FailingAllocator.h"

namespace sbptest {
namespace {

struct Case {
    const char* script;
    const char* bytes;  // "" when GetData must refuse
};

void expectBytes(std::initializer_list<Case> cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        Serializer s(c.script);
        EXPECT_EQ(hex(s.bytes()), hex(parseHex(c.bytes)));
        // Once complete, nothing more goes in and there is nothing left to end.
        if (!s.bytes().empty()) s.run("i1:1!101 S1!101 E!102");
    }
}

TEST(SerializerTest, CallSequencesGiveTheseBytes) {
    expectBytes({
        // Top-level scalars, each completing the serializer.
        {"i16909060:5", "01020304 85 00000005"},
        {"z1:-7", "00000001 82 01"},
        {"f5:nan", "00000005 87 7FC00000"},
        {"d6:5e-324", "00000006 88 0000000000000001"},
        {"x8:-/0", "00000008 90 00000000"},
        {"s9:48656C6C6F/1", "00000009 91 00000001 0048"},
        {"s9:-/0", "00000009 91 00000000"},
        // The length field is the UTF-8 byte count while one unit per character follows.
        {"s9:C3A9", "00000009 91 00000002 00E9"},
        {"s9:EFBFBF", "00000009 91 00000003 FFFF"},
        // Overlong forms and surrogates are not checked.
        {"s9:C080/2", "00000009 91 00000002 0000"},
        {"s9:EDA080", "00000009 91 00000003 D800"},
        // Containers: counts are patched on End, scalar arrays have bare elements and no end
        // byte, arrays of structures a 0xA1 marker per element.
        {"S10 z11:1 E", "0000000A A1 00000001 0000000B 82 01 81"},
        {"A7:84 h0:1 h0:2 E", "00000007 A0 84 00000002 0001 0002"},
        {"A7:A1 S0 E E", "00000007 A2 00000001 A1 00000000 81 81"},
        {"A7:A1 S0 h9:0 E S0 h9:1 E E",
         "00000007 A2 00000002 A1 00000001 00000009 84 0000 81 A1 00000001 00000009 84 0001 81 81"},
        {"L S1 y2:1 A3:85 i0:0 i0:1 i0:2 E E z4:1 E",
         "00000002 00000001 A1 00000002 00000002 83 01"
         " 00000003 A0 85 00000003 00000000 00000001 00000002 81 00000004 82 01"},
        {"L E", "00000000"},
        {"L S1 E", ""},
        {"S1 A2:A1 S0", ""},
        // Every kind of member inside a structure.
        {"S1 z2:1 y3:-2 h4:-2 i5:0x01020304 l6:0x0102030405060708 f7:-nan d8:-inf x9:DEAD "
         "s10:C3A9 s11:4869 E",
         "00000001 A1 0000000A 00000002 82 01 00000003 83 FE 00000004 84 FFFE"
         " 00000005 85 01020304 00000006 86 0102030405060708 00000007 87 FFC00000"
         " 00000008 88 FFF0000000000000 00000009 90 00000002 DEAD"
         " 0000000A 91 00000002 00E9 0000000B 91 00000002 0048 0069 81"},
    });
}

TEST(SerializerTest, RefusedCallsWriteNothingAndTheirCodesComeInOrder) {
    expectBytes({
        {"E!102 G!100", ""},
        {"S1 G!100 E E!102 G", "00000001 A1 00000000 81"},
        // The scalar-array table refuses 8-bit integers, bytes and strings.
        {"A7:83!2 A7:90!2 A7:91!2 i1:1", "00000001 85 00000001"},
        // Wrong element type, a UID inside an array, a value list inside anything, element
        // types no array holds; the element type is checked before the placement.
        {"S1 A0:84 i0:1!104 h5:1!103 S0!104 L!104 A0:83!2 A0:81!2 A0:89!2 A0:A0!2 A0:A2!2 "
         "A0:00!2 h0:3 E A0:A1 S2!103 z0:1!104 A0:82!104 E E",
         "00000001 A1 00000002 00000000 A0 84 00000001 0003 00000000 A2 00000000 81 81"},
        // Complete comes before each entry's own argument checks.
        {"i1:1 z1:1!101 y1:1!101 h1:1!101 i1:1!101 l1:1!101 f1:1!101 d1:1!101 x1:01!101 "
         "s1:61!101 L!101 S1!101 A1:85!101 x1:-/1!101 A1:83!101",
         "00000001 85 00000001"},
        // Null data with a length.
        {"x1:-/3!2 s1:-/3!2 s1:-!2 G!100 i1:2", "00000001 85 00000002"},
        // Invalid UTF-8: what was converted before it stays.
        {"S1 s2:4180!2 E", "00000001 A1 00000001 00000002 91 00000002 0041 81"},
        {"S1 s2:F888808080!2 E", "00000001 A1 00000001 00000002 91 00000005 81"},
        {"S1 s2:4142C3A9/3!2 E", "00000001 A1 00000001 00000002 91 00000003 0041 0042 81"},
        {"S1 s2:C341!2 E", "00000001 A1 00000001 00000002 91 00000002 81"},
        {"S1 s2:F09F9880!2 E", "00000001 A1 00000001 00000002 91 00000004 81"},
        {"S1 s2:E282/2!2 E", "00000001 A1 00000001 00000002 91 00000002 81"},
    });
}

TEST(SerializerTest, NullHandleAndNullOutputsAreInvalid) {
    run(nullptr,
        "z1:1!2 y1:1!2 h1:1!2 i1:1!2 l1:1!2 f1:1!2 d1:1!2 x1:01!2 s1:61!2 s1:61/1!2 L!2 "
        "S1!2 A1:85!2 E!2 G!2");
    EXPECT_EQ(api().serializerCreate(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    Serializer s("i1:1");
    const uint8_t* data;
    uint32_t length;
    EXPECT_EQ(api().serializerGetData(s.get(), nullptr, &length), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerGetData(s.get(), &data, nullptr), ZELCDBErrorInvalidParameter);
}

TEST(SerializerTest, CreateReportsOutOfMemoryWithANullHandle) {
    for (unsigned n = 1;; ++n) {
        ZELSBPSerializer* h = reinterpret_cast<ZELSBPSerializer*>(8);
        zeltest::FailNthAllocation failure(n);
        ZELCDBError result = api().serializerCreate(&h);
        if (!failure.triggered()) {
            EXPECT_EQ(api().serializerDestroy(h), ZELCDBErrorNone);
            break;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << n;
        EXPECT_EQ(h, nullptr) << n;
    }
}

TEST(SerializerTest, GrowthFailureIsOutOfMemoryButFromEndItIsFailed) {
    // 9 + 9 + 1006 bytes fill the first 1024-byte block exactly.
    Serializer s("S1 x2:" + std::string(2 * 1006, '5'));
    for (const char* step : {"y3:1!3", "E!1"}) {
        zeltest::FailNthAllocation failure(1);
        s.run(step);
        EXPECT_TRUE(failure.triggered()) << step;
    }
}

TEST(SerializerTest, ScalarArrayCountIsTheElementsWrittenWhateverWasRefused) {
    const struct {
        char kind;
        const char* type;
        size_t size;
        const char* other;  // an element of another type
    } cases[] = {{'z', "82", 1, "i0:5"}, {'h', "84", 2, "i0:5"}, {'i', "85", 4, "l0:5"},
                 {'l', "86", 8, "i0:5"}, {'f', "87", 4, "i0:5"}, {'d', "88", 8, "i0:5"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        std::string element = c.kind + std::string("0:5 ");
        std::string script = "S1 A2:" + std::string(c.type) + " " + element + element + element;
        script += c.kind + std::string("9:5!103 ") + c.other + "!104 s0:78!104 ";
        // Enough elements to grow past the first block in the middle of the array.
        for (int i = 0; i < 300; ++i) script += element;
        Serializer s(script + "E i3:7 E");
        Bytes out = s.bytes();
        ASSERT_EQ(out.size(), 9 + 10 + 303 * c.size + 9 + 1);
        EXPECT_EQ(
            hex(Bytes(out.begin(), out.begin() + 19)),
            hex(parseHex("00000001 A1 00000002 00000002 A0" + std::string(c.type) + "0000012F")));
        EXPECT_EQ(hex(Bytes(out.end() - 10, out.end())), "00 00 00 03 85 00 00 00 07 81");
    }
}

TEST(SerializerTest, ShortTextWithNonAsciiAnywhereGivesOneUnitPerCharacter) {
    // Lengths around the eight-byte blocks ASCII is widened in, with U+00E9 at every
    // position: the result must not depend on where the first non-ASCII byte sits.
    for (size_t length : {1, 7, 8, 9, 15, 16, 17, 24, 33}) {
        for (size_t at = 0; at < length; ++at) {
            std::string text, units;
            for (size_t i = 0; i < length; ++i) {
                text += i == at ? "C3A9" : hexWord('a' + i % 26, 2);
                units += i == at ? "00E9" : "00" + hexWord('a' + i % 26, 2);
            }
            Serializer s("S1 s2:" + text + " E");
            EXPECT_EQ(hex(s.bytes()), hex(parseHex("00000001 A1 00000001 00000002 91" +
                                                   hexWord(length + 1, 8) + units + "81")))
                << length << " " << at;
        }
    }
}

TEST(SerializerTest, LargeValuesGrowTheBufferAndCrossConversionChunks) {
    // Text longer than the short-text path takes: a long ASCII run, then a, U+00E9 and
    // U+20AC repeated across the converter's chunk boundaries at every alignment.
    std::string payload, text, units;
    for (int i = 0; i < 5000; ++i) payload += hexWord(static_cast<uint8_t>(i * 7), 2);
    for (int i = 0; i < 3000; ++i) text += "78", units += "0078";
    for (int i = 0; i < 400; ++i) text += "61C3A9E282AC", units += "006100E920AC";
    Serializer s("S1 x2:" + payload + " s3:" + text + " E");
    EXPECT_EQ(s.bytes(), parseHex("00000001 A1 00000002 00000002 90 00001388" + payload +
                                  "00000003 91 00001518" + units + "81"));
}

TEST(SerializerTest, DeepNestingKeepsEveryLevelsCount) {
    // Deeper than the stack's first block; each level holds a member before its child
    // structure and one after, so every count but the innermost is 3.
    constexpr uint32_t kDepth = 20;
    std::string script, expected;
    for (uint32_t level = 0; level < kDepth; ++level) {
        script += "S" + std::to_string(level) + " y100:1 ";
        expected +=
            hexWord(level, 8) + "A1" + hexWord(level + 1 == kDepth ? 2 : 3, 8) + "00000064 83 01";
    }
    for (uint32_t level = 0; level < kDepth; ++level) {
        script += "y200:2 E ";
        expected += "000000C8 83 02 81";
    }
    EXPECT_EQ(hex(Serializer(script).bytes()), hex(parseHex(expected)));
}

}  // namespace
}  // namespace sbptest
