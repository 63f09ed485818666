// The serializer through the function table: exact bytes, count patching, placement rules
// and every error code it reports.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "CodecTestSupport.h"
#include "FailingAllocator.h"

namespace sbptest {
namespace {

TEST(SerializerTest, TopLevelScalarsGiveHeaderAndBigEndianPayload) {
    struct Case {
        const char* name;
        std::function<ZELCDBError(ZELSBPSerializer*)> add;
        const char* bytes;
    };
    const Case cases[] = {
        {"int", [](ZELSBPSerializer* s) { return api().serializerAddInt(s, 0x01020304, 5); },
         "01 02 03 04 85 00 00 00 05"},
        {"boolean non-zero",
         [](ZELSBPSerializer* s) { return api().serializerAddBoolean(s, 1, -7); },
         "00 00 00 01 82 01"},
        {"boolean zero", [](ZELSBPSerializer* s) { return api().serializerAddBoolean(s, 1, 0); },
         "00 00 00 01 82 00"},
        {"byte", [](ZELSBPSerializer* s) { return api().serializerAddByte(s, 2, -2); },
         "00 00 00 02 83 FE"},
        {"short", [](ZELSBPSerializer* s) { return api().serializerAddShort(s, 3, -2); },
         "00 00 00 03 84 FF FE"},
        {"long",
         [](ZELSBPSerializer* s) {
             return api().serializerAddLong(s, 4, INT64_C(0x0102030405060708));
         },
         "00 00 00 04 86 01 02 03 04 05 06 07 08"},
        {"float 1.0", [](ZELSBPSerializer* s) { return api().serializerAddFloat(s, 5, 1.0f); },
         "00 00 00 05 87 3F 80 00 00"},
        {"float -0.0", [](ZELSBPSerializer* s) { return api().serializerAddFloat(s, 5, -0.0f); },
         "00 00 00 05 87 80 00 00 00"},
        {"float NaN",
         [](ZELSBPSerializer* s) {
             return api().serializerAddFloat(s, 5, std::numeric_limits<float>::quiet_NaN());
         },
         "00 00 00 05 87 7F C0 00 00"},
        {"double 1.0", [](ZELSBPSerializer* s) { return api().serializerAddDouble(s, 6, 1.0); },
         "00 00 00 06 88 3F F0 00 00 00 00 00 00"},
        {"smallest double subnormal",
         [](ZELSBPSerializer* s) {
             return api().serializerAddDouble(s, 6, std::numeric_limits<double>::denorm_min());
         },
         "00 00 00 06 88 00 00 00 00 00 00 00 01"},
        {"bytes",
         [](ZELSBPSerializer* s) {
             static const uint8_t data[] = {0xDE, 0xAD};
             return api().serializerAddBytes(s, 8, data, 2);
         },
         "00 00 00 08 90 00 00 00 02 DE AD"},
        {"empty bytes from null",
         [](ZELSBPSerializer* s) { return api().serializerAddBytes(s, 8, nullptr, 0); },
         "00 00 00 08 90 00 00 00 00"},
        {"ASCII string",
         [](ZELSBPSerializer* s) {
             return api().serializerAddString(s, 9, "Hi", ZELSBP_NUL_TERMINATED);
         },
         "00 00 00 09 91 00 00 00 02 00 48 00 69"},
        {"string with explicit length stops there",
         [](ZELSBPSerializer* s) { return api().serializerAddString(s, 9, "Hello", 1); },
         "00 00 00 09 91 00 00 00 01 00 48"},
        // The length field is the UTF-8 byte count (2) while one unit follows.
        {"non-ASCII string",
         [](ZELSBPSerializer* s) {
             return api().serializerAddString(s, 9, "\xC3\xA9", ZELSBP_NUL_TERMINATED);
         },
         "00 00 00 09 91 00 00 00 02 00 E9"},
        {"largest 3-byte character",
         [](ZELSBPSerializer* s) { return api().serializerAddString(s, 9, "\xEF\xBF\xBF", 3); },
         "00 00 00 09 91 00 00 00 03 FF FF"},
        // Overlong forms and surrogates are not checked.
        {"overlong NUL",
         [](ZELSBPSerializer* s) { return api().serializerAddString(s, 9, "\xC0\x80", 2); },
         "00 00 00 09 91 00 00 00 02 00 00"},
        {"surrogate",
         [](ZELSBPSerializer* s) { return api().serializerAddString(s, 9, "\xED\xA0\x80", 3); },
         "00 00 00 09 91 00 00 00 03 D8 00"},
        {"empty string from null",
         [](ZELSBPSerializer* s) { return api().serializerAddString(s, 9, nullptr, 0); },
         "00 00 00 09 91 00 00 00 00"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Serializer s;
        ASSERT_EQ(c.add(s.get()), ZELCDBErrorNone);
        EXPECT_EQ(hex(s.bytes()), hex(parseHex(c.bytes)));
        // A top-level scalar completes the serializer at once.
        EXPECT_EQ(api().serializerAddInt(s.get(), 1, 1), ZELCDBErrorSBPSerializeComplete);
    }
}

TEST(SerializerTest, StructureWithOneBoolean) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 0x0A), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddBoolean(s.get(), 0x0B, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), "00 00 00 0A A1 00 00 00 01 00 00 00 0B 82 01 81");
}

TEST(SerializerTest, ScalarArrayHasBareElementsAndNoEndByte) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginArray(s.get(), 7, 0x84), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddShort(s.get(), 0, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddShort(s.get(), 0, 2), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), "00 00 00 07 A0 84 00 00 00 02 00 01 00 02");
}

TEST(SerializerTest, ArrayOfOneEmptyStructure) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginArray(s.get(), 7, 0xA1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 0), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), "00 00 00 07 A2 00 00 00 01 A1 00 00 00 00 81 81");
}

TEST(SerializerTest, CountsArePatchedPerLevelWhenContainersEnd) {
    Serializer s;
    ZELSBPSerializer* h = s.get();
    ASSERT_EQ(api().serializerBeginValueList(h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginStructure(h, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddByte(h, 2, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginArray(h, 3, 0x85), ZELCDBErrorNone);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(api().serializerAddInt(h, 0, i), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddBoolean(h, 4, 1), ZELCDBErrorNone);
    // Still open: the list.
    EXPECT_TRUE(s.bytes().empty());
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()),
              hex(parseHex("00 00 00 02"                           // list: 2 values
                           " 00 00 00 01 A1 00 00 00 02"           // structure: 2 members
                           " 00 00 00 02 83 01"                    //
                           " 00 00 00 03 A0 85 00 00 00 03"        // array: 3 elements
                           " 00 00 00 00 00 00 00 01 00 00 00 02"  //
                           " 81"                                   // end of the structure
                           " 00 00 00 04 82 01")));
}

TEST(SerializerTest, ArrayOfStructuresWritesMarkerPerElement) {
    Serializer s;
    ZELSBPSerializer* h = s.get();
    ASSERT_EQ(api().serializerBeginArray(h, 7, 0xA1), ZELCDBErrorNone);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(api().serializerBeginStructure(h, 0), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerAddShort(h, 9, static_cast<int16_t>(i)), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    }
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), hex(parseHex("00 00 00 07 A2 00 00 00 02"
                                           " A1 00 00 00 01 00 00 00 09 84 00 00 81"
                                           " A1 00 00 00 01 00 00 00 09 84 00 01 81 81")));
}

TEST(SerializerTest, EmptyValueListIsACompleteZeroCount) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginValueList(s.get()), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), "00 00 00 00");
    EXPECT_EQ(api().serializerBeginValueList(s.get()), ZELCDBErrorSBPSerializeComplete);
}

TEST(SerializerTest, GrowsPastTheInitialBlock) {
    Bytes payload(5000);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
    std::string text(3000, 'x');
    Serializer s;
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddBytes(s.get(), 2, payload.data(), 5000), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerAddString(s.get(), 3, text.c_str(), ZELSBP_NUL_TERMINATED),
              ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    Bytes out = s.bytes();
    ASSERT_EQ(out.size(), 9u + 9 + 5000 + 9 + 6000 + 1);
    EXPECT_EQ(Bytes(out.begin() + 18, out.begin() + 5018), payload);
    EXPECT_EQ(hex(Bytes(out.begin() + 5018, out.begin() + 5031)),
              "00 00 00 03 91 00 00 0B B8 00 78 00 78");
    EXPECT_EQ(out.back(), 0x81);
}

TEST(SerializerTest, MisplacedValuesAreRefusedBeforeAnythingIsWritten) {
    Serializer s;
    ZELSBPSerializer* h = s.get();
    ASSERT_EQ(api().serializerBeginStructure(h, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginArray(h, 0, 0x84), ZELCDBErrorNone);
    // Wrong type for the array, a UID inside an array, a value list inside anything, and
    // element types an array cannot hold.
    EXPECT_EQ(api().serializerAddInt(h, 0, 1), ZELCDBErrorSBPSerializeUnexpectedType);
    EXPECT_EQ(api().serializerAddShort(h, 5, 1), ZELCDBErrorSBPSerializeUnexpectedUID);
    EXPECT_EQ(api().serializerBeginStructure(h, 0), ZELCDBErrorSBPSerializeUnexpectedType);
    EXPECT_EQ(api().serializerBeginValueList(h), ZELCDBErrorSBPSerializeUnexpectedType);
    for (uint8_t type : {0x83, 0x90, 0x91, 0x81, 0x89, 0xA0, 0xA2, 0x00}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(api().serializerBeginArray(h, 0, type), ZELCDBErrorInvalidParameter);
    }
    ASSERT_EQ(api().serializerAddShort(h, 0, 3), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginArray(h, 0, 0xA1), ZELCDBErrorNone);
    EXPECT_EQ(api().serializerBeginStructure(h, 2), ZELCDBErrorSBPSerializeUnexpectedUID);
    EXPECT_EQ(api().serializerAddBoolean(h, 0, 1), ZELCDBErrorSBPSerializeUnexpectedType);
    EXPECT_EQ(api().serializerBeginArray(h, 0, 0x82), ZELCDBErrorSBPSerializeUnexpectedType);
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
    EXPECT_EQ(hex(s.bytes()), hex(parseHex("00 00 00 01 A1 00 00 00 02"
                                           " 00 00 00 00 A0 84 00 00 00 01 00 03"
                                           " 00 00 00 00 A2 00 00 00 00 81 81")));
}

TEST(SerializerTest, EndAndGetDataOnAFreshSerializer) {
    Serializer s;
    EXPECT_EQ(api().serializerEnd(s.get()), ZELCDBErrorSBPSerializeUnexpectedEnd);
    const uint8_t* data = reinterpret_cast<const uint8_t*>(1);
    uint32_t length = 99;
    EXPECT_EQ(api().serializerGetData(s.get(), &data, &length), ZELCDBErrorSBPSerializeIncomplete);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0u);
}

TEST(SerializerTest, GetDataWhileOpenIsIncompleteAndEndBeyondTopLevelIsUnexpected) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
    const uint8_t* data;
    uint32_t length;
    EXPECT_EQ(api().serializerGetData(s.get(), &data, &length), ZELCDBErrorSBPSerializeIncomplete);
    ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    EXPECT_EQ(api().serializerEnd(s.get()), ZELCDBErrorSBPSerializeUnexpectedEnd);
    EXPECT_EQ(api().serializerGetData(s.get(), &data, &length), ZELCDBErrorNone);
    EXPECT_EQ(length, 10u);
}

// Every add and begin entry, with arguments that would otherwise be accepted.
const std::vector<std::pair<const char*, std::function<ZELCDBError(ZELSBPSerializer*)>>>&
everyAdd() {
    static const uint8_t byte = 1;
    static const std::vector<std::pair<const char*, std::function<ZELCDBError(ZELSBPSerializer*)>>>
        adds = {
            {"boolean", [](ZELSBPSerializer* s) { return api().serializerAddBoolean(s, 1, 1); }},
            {"byte", [](ZELSBPSerializer* s) { return api().serializerAddByte(s, 1, 1); }},
            {"short", [](ZELSBPSerializer* s) { return api().serializerAddShort(s, 1, 1); }},
            {"int", [](ZELSBPSerializer* s) { return api().serializerAddInt(s, 1, 1); }},
            {"long", [](ZELSBPSerializer* s) { return api().serializerAddLong(s, 1, 1); }},
            {"float", [](ZELSBPSerializer* s) { return api().serializerAddFloat(s, 1, 1); }},
            {"double", [](ZELSBPSerializer* s) { return api().serializerAddDouble(s, 1, 1); }},
            {"bytes", [](ZELSBPSerializer* s) { return api().serializerAddBytes(s, 1, &byte, 1); }},
            {"string", [](ZELSBPSerializer* s) { return api().serializerAddString(s, 1, "a", 1); }},
            {"value list", [](ZELSBPSerializer* s) { return api().serializerBeginValueList(s); }},
            {"structure", [](ZELSBPSerializer* s) { return api().serializerBeginStructure(s, 1); }},
            {"array", [](ZELSBPSerializer* s) { return api().serializerBeginArray(s, 1, 0x85); }},
        };
    return adds;
}

TEST(SerializerTest, NullHandleThenCompleteAreCheckedFirst) {
    Serializer complete;
    ASSERT_EQ(api().serializerAddInt(complete.get(), 1, 1), ZELCDBErrorNone);
    Bytes before = complete.bytes();
    for (const auto& [name, add] : everyAdd()) {
        SCOPED_TRACE(name);
        EXPECT_EQ(add(nullptr), ZELCDBErrorInvalidParameter);
        EXPECT_EQ(add(complete.get()), ZELCDBErrorSBPSerializeComplete);
    }
    // Completeness also comes before the entries' own argument checks.
    EXPECT_EQ(api().serializerAddBytes(complete.get(), 1, nullptr, 1),
              ZELCDBErrorSBPSerializeComplete);
    EXPECT_EQ(api().serializerBeginArray(complete.get(), 1, 0x83), ZELCDBErrorSBPSerializeComplete);
    EXPECT_EQ(complete.bytes(), before);

    EXPECT_EQ(api().serializerEnd(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerCreate(nullptr), ZELCDBErrorInvalidParameter);
    const uint8_t* data = reinterpret_cast<const uint8_t*>(1);
    uint32_t length = 5;
    EXPECT_EQ(api().serializerGetData(nullptr, &data, &length), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(api().serializerGetData(complete.get(), nullptr, &length),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerGetData(complete.get(), &data, nullptr), ZELCDBErrorInvalidParameter);
}

TEST(SerializerTest, NullDataWithALengthIsInvalid) {
    Serializer s;
    EXPECT_EQ(api().serializerAddBytes(s.get(), 1, nullptr, 3), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerAddString(s.get(), 1, nullptr, 3), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerAddString(s.get(), 1, nullptr, ZELSBP_NUL_TERMINATED),
              ZELCDBErrorInvalidParameter);
    EXPECT_TRUE(s.bytes().empty());
    // Nothing was written, so the serializer is still usable.
    ASSERT_EQ(api().serializerAddInt(s.get(), 1, 2), ZELCDBErrorNone);
    EXPECT_EQ(s.bytes().size(), 9u);
}

TEST(SerializerTest, InvalidUtf8IsRefusedKeepingWhatWasConverted) {
    struct Case {
        const char* name;
        const char* text;
        uint32_t length;
        const char* written;  // after the 5-byte header
    };
    const Case cases[] = {
        {"lone continuation byte", "A\x80", 2, "00 00 00 02 00 41"},
        {"five leading ones", "\xF8\x88\x80\x80\x80", 5, "00 00 00 05"},
        {"sequence cut by the length", "AB\xC3\xA9", 3, "00 00 00 03 00 41 00 42"},
        {"bad continuation", "\xC3\x41", 2, "00 00 00 02"},
        {"above U+FFFF", "\xF0\x9F\x98\x80", 4, "00 00 00 04"},
        {"cut three-byte sequence", "\xE2\x82", 2, "00 00 00 02"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Serializer s;
        ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
        EXPECT_EQ(api().serializerAddString(s.get(), 2, c.text, c.length),
                  ZELCDBErrorInvalidParameter);
        // What was written so far stays; close the structure to look at it.
        ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
        Bytes expected = concat({parseHex("00 00 00 01 A1 00 00 00 01 00 00 00 02 91"),
                                 parseHex(c.written), parseHex("81")});
        EXPECT_EQ(hex(s.bytes()), hex(expected));
    }
}

TEST(SerializerTest, LongNonAsciiTextSpansChunks) {
    std::string text;
    for (int i = 0; i < 400; ++i) text += "a\xC3\xA9\xE2\x82\xAC";  // a, U+00E9, U+20AC
    Serializer s;
    ASSERT_EQ(api().serializerAddString(s.get(), 1, text.c_str(), ZELSBP_NUL_TERMINATED),
              ZELCDBErrorNone);
    Bytes out = s.bytes();
    ASSERT_EQ(out.size(), 9u + 400 * 6);
    EXPECT_EQ(hex(Bytes(out.begin() + 5, out.begin() + 9)), "00 00 09 60");  // 2400 UTF-8 bytes
    for (size_t i = 0; i < 400; ++i) {
        ASSERT_EQ(hex(Bytes(out.begin() + 9 + i * 6, out.begin() + 15 + i * 6)),
                  "00 61 00 E9 20 AC");
    }
}

TEST(SerializerTest, DestroyWithOpenContainersReleasesEverything) {
    ZELSBPSerializer* h = nullptr;
    ASSERT_EQ(api().serializerCreate(&h), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginStructure(h, 1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginArray(h, 2, 0xA1), ZELCDBErrorNone);
    ASSERT_EQ(api().serializerBeginStructure(h, 0), ZELCDBErrorNone);
    EXPECT_EQ(api().serializerDestroy(h), ZELCDBErrorNone);
}

TEST(SerializerTest, CreateReportsOutOfMemoryWithANullHandle) {
    for (unsigned n = 1;; ++n) {
        ZELSBPSerializer* h = reinterpret_cast<ZELSBPSerializer*>(8);
        ZELCDBError result;
        bool triggered;
        {
            zeltest::FailNthAllocation failure(n);
            result = api().serializerCreate(&h);
            triggered = failure.triggered();
        }
        if (!triggered) {
            ASSERT_EQ(result, ZELCDBErrorNone);
            api().serializerDestroy(h);
            break;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << n;
        EXPECT_EQ(h, nullptr) << n;
    }
}

TEST(SerializerTest, GrowthFailureIsOutOfMemoryButAtEndItIsFailed) {
    Serializer s;
    ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
    // 9 bytes so far; a member of 9 + 1006 bytes fills the 1024-byte block exactly.
    Bytes member(1006, 0x55);
    ASSERT_EQ(api().serializerAddBytes(s.get(), 2, member.data(), 1006), ZELCDBErrorNone);
    {
        zeltest::FailNthAllocation failure(1);
        EXPECT_EQ(api().serializerAddByte(s.get(), 3, 1), ZELCDBErrorOutOfMemory);
        ASSERT_TRUE(failure.triggered());
    }
    {
        // End reports every failure as Failed, running out of memory included.
        zeltest::FailNthAllocation failure(1);
        EXPECT_EQ(api().serializerEnd(s.get()), ZELCDBErrorFailed);
        ASSERT_TRUE(failure.triggered());
    }
}

TEST(SerializerTest, ScalarArrayCountIsTheElementsWrittenWhateverWasRefused) {
    using Add = std::function<ZELCDBError(ZELSBPSerializer*, uint32_t)>;
    struct Case {
        uint8_t type;
        size_t size;
        Add add;    // one element of the array's type
        Add other;  // one element of another type
    };
    auto addInt = [](ZELSBPSerializer* s, uint32_t uid) {
        return api().serializerAddInt(s, uid, 5);
    };
    const Case cases[] = {
        {0x82, 1,
         [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddBoolean(s, u, 1); },
         addInt},
        {0x84, 2, [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddShort(s, u, 5); },
         addInt},
        {0x85, 4, addInt,
         [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddLong(s, u, 5); }},
        {0x86, 8, [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddLong(s, u, 5); },
         addInt},
        {0x87, 4, [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddFloat(s, u, 5); },
         addInt},
        {0x88, 8,
         [](ZELSBPSerializer* s, uint32_t u) { return api().serializerAddDouble(s, u, 5); },
         addInt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.type));
        Serializer s;
        ZELSBPSerializer* h = s.get();
        ASSERT_EQ(api().serializerBeginStructure(h, 1), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerBeginArray(h, 2, c.type), ZELCDBErrorNone);
        for (int i = 0; i < 3; ++i) ASSERT_EQ(c.add(h, 0), ZELCDBErrorNone);
        EXPECT_EQ(c.add(h, 9), ZELCDBErrorSBPSerializeUnexpectedUID);
        EXPECT_EQ(c.other(h, 0), ZELCDBErrorSBPSerializeUnexpectedType);
        EXPECT_EQ(api().serializerAddString(h, 0, "x", 1), ZELCDBErrorSBPSerializeUnexpectedType);
        // Enough elements to grow past the first block in the middle of the array.
        for (int i = 0; i < 300; ++i) ASSERT_EQ(c.add(h, 0), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
        // The structure's own count carries on after the array.
        ASSERT_EQ(api().serializerAddInt(h, 3, 7), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerEnd(h), ZELCDBErrorNone);
        Bytes out = s.bytes();
        ASSERT_EQ(out.size(), 9 + 10 + 303 * c.size + 9 + 1);
        EXPECT_EQ(hex(Bytes(out.begin(), out.begin() + 19)),
                  hex(concat({parseHex("00 00 00 01 A1 00 00 00 02 00 00 00 02 A0"),
                              {c.type},
                              parseHex("00 00 01 2F")})));
        EXPECT_EQ(hex(Bytes(out.end() - 10, out.end())), "00 00 00 03 85 00 00 00 07 81");
    }
}

TEST(SerializerTest, ShortTextWithNonAsciiAnywhereGivesOneUnitPerCharacter) {
    // Lengths around the eight-byte blocks ASCII text is converted in, with U+00E9 at every
    // position: the result must not depend on where the first non-ASCII byte sits.
    for (size_t length : {1, 7, 8, 9, 15, 16, 17, 24, 33}) {
        for (size_t at = 0; at < length; ++at) {
            SCOPED_TRACE(std::to_string(length) + " " + std::to_string(at));
            std::string text;
            Bytes units;
            for (size_t i = 0; i < length; ++i) {
                if (i == at) {
                    text += "\xC3\xA9";
                    units.insert(units.end(), {0x00, 0xE9});
                } else {
                    text += static_cast<char>('a' + i % 26);
                    units.insert(units.end(), {0x00, static_cast<uint8_t>('a' + i % 26)});
                }
            }
            Serializer s;
            ASSERT_EQ(api().serializerBeginStructure(s.get(), 1), ZELCDBErrorNone);
            ASSERT_EQ(api().serializerAddString(s.get(), 2, text.data(),
                                                static_cast<uint32_t>(text.size())),
                      ZELCDBErrorNone);
            ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
            Bytes expected = concat({parseHex("00 00 00 01 A1 00 00 00 01 00 00 00 02 91 00 00 00"),
                                     {static_cast<uint8_t>(length + 1)},
                                     units,
                                     {0x81}});
            EXPECT_EQ(hex(s.bytes()), hex(expected));
        }
    }
}

TEST(SerializerTest, DeepNestingKeepsEveryLevelsCount) {
    // Deeper than the stack's first allocation; each level gets one member before its child
    // structure and one after, so every count but the innermost is 3.
    constexpr uint32_t kDepth = 20;
    Serializer s;
    for (uint32_t level = 0; level < kDepth; ++level) {
        ASSERT_EQ(api().serializerBeginStructure(s.get(), level), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerAddByte(s.get(), 100, 1), ZELCDBErrorNone);
    }
    for (uint32_t level = kDepth; level-- > 0;) {
        ASSERT_EQ(api().serializerAddByte(s.get(), 200, 2), ZELCDBErrorNone);
        ASSERT_EQ(api().serializerEnd(s.get()), ZELCDBErrorNone);
    }
    Bytes out = s.bytes();
    ASSERT_EQ(out.size(), kDepth * (9 + 6 + 6 + 1));
    for (uint32_t level = 0; level < kDepth; ++level) {
        SCOPED_TRACE(level);
        size_t at = level * (9 + 6);
        EXPECT_EQ(hex(Bytes(out.begin() + at + 4, out.begin() + at + 9)),
                  level + 1 == kDepth ? "A1 00 00 00 02" : "A1 00 00 00 03");
    }
}

}  // namespace
}  // namespace sbptest
