// The deserializer through the function table: event traces, the odd counting rules that
// peers rely on, error codes and their precedence, re-entry and allocation behaviour.
#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "FailingAllocator.h"

namespace sbptest {
namespace {

constexpr ZELCDBError kOk = ZELCDBErrorNone;
constexpr ZELCDBError kNoCallback = ZELCDBErrorSBPDeserializeCallbackNotImplemented;
constexpr ZELCDBError kTruncated = ZELCDBErrorSBPDeserializeInputTruncated;
constexpr ZELCDBError kTooLong = ZELCDBErrorSBPDeserializeInputTooLong;
constexpr ZELCDBError kMalformed = ZELCDBErrorSBPDeserializeInputMalformed;

struct Case {
    const char* input;
    ZELCDBError result;
    const char* trace;
    bool valueList = false;
    int nullCallback = -1;  // index of a callback left null
};

void expectTraces(std::initializer_list<Case> cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.input);
        ZELSBPDeserializerCallbacks callbacks = Recorder::kAll;
        if (c.nullCallback >= 0) reinterpret_cast<void**>(&callbacks)[c.nullCallback] = nullptr;
        Recorder r(sizeof callbacks, &callbacks);
        EXPECT_EQ(r.deserialize(parseHex(c.input), c.valueList), c.result);
        EXPECT_EQ(r.trace, c.trace);
    }
}

TEST(DeserializerTest, InputsGiveTheseTraces) {
    expectTraces({
        {"01020304 85 00000005", kOk, "i16909060:5"},
        {"01020304 85 00000005 00", kTooLong, "i16909060:5"},
        {"0000000A A1 00000001 0000000B 82 01 81", kOk, "S10:1 z11:1 E10"},
        {"00000007 A0 84 00000002 FFFF 0002", kOk, "A7:84 h0:-1 h0:2 E7"},
        {"0000000A A1 00000001 0000000B 82 01 80", kMalformed, "S10:1 z11:1"},
        {"01020304 85 000000", kTruncated, ""},
        {"010203", kTruncated, ""},
        {"00000001 91 00000001 00E9", kOk, "s1:C3A9"},
        {"00000001 91 00000002 0800 FFFF", kOk, "s1:E0A080EFBFBF"},
        {"00000001 91 00000000", kOk, "s1:"},
        // Empty containers close at once and are not counted in their parent, which then
        // takes the next end byte for another element's header.
        {"00000007 A2 00000001 A1 00000000 81 81", kMalformed, "A7:A1 S0:0 E0"},
        {"00000001 A1 00000001 00000002 A1 00000000 81 81", kTruncated, "S1:1 S2:0 E2"},
        {"00000001 A1 00000001 00000002 A0 85 00000000 81", kTruncated, "S1:1 A2:85 E2"},
        {"00000001 A1 00000000 81", kOk, "S1:0 E1"},
        {"00000001 A2 00000000 81", kOk, "A1:A1 E1"},
        // Input that stops between values inside an open container is not an error.
        {"00000001 A1 00000003 00000002 83 05", kOk, "S1:3 y2:5"},
        {"00000001 A1 00000002 00000002 A0 82 00000001 05"
         " 00000003 A2 00000001 A1 00000001 00000004 83 FF 81 81 81",
         kOk, "S1:2 A2:82 z0:1 E2 A3:A1 S0:1 y4:-1 E0 E3 E1"},
        {"00000007 A2 00000001 A0", kMalformed, "A7:A1"},
        {"00000007 A2 00000001 A1 00000001 00000001 82 00 81 00", kMalformed, "A7:A1 S0:1 z1:0 E0"},
        {"00000007 A0 83 00000001 05", kMalformed, ""},
        {"00000000 A1 00000005 00000001 83 80 00000002 84 8000 00000003 85 FFFFFFFE"
         " 00000004 86 8000000000000001 00000005 82 7F 81",
         kOk, "S0:5 y1:-128 h2:-32768 i3:-2 l4:-9223372036854775807 z5:1 E0"},
        // NaN payloads are dropped; the sign stays.
        {"00000000 A0 87 00000006 3F800000 80000000 7F800000 00000001 7F800001 FF812345", kOk,
         "A0:87 f0:3F800000 f0:80000000 f0:7F800000 f0:00000001 f0:7FC00000 f0:FFC00000 E0"},
        {"00000000 A0 88 00000002 FFF0000000000001 7FF0000000001234", kOk,
         "A0:88 d0:FFF8000000000000 d0:7FF8000000000000 E0"},
        {"00000003 90 00000002 ABCD", kOk, "x3:ABCD"},
        {"00000003 90 00000003 ABCD", kTruncated, ""},
        {"00000003 90 FFFFFFFF ABCD", kTruncated, ""},
        {"00000003 91 00000002 0041 00", kTruncated, ""},
        {"00000003 91 FFFFFFFF 0041", kTruncated, ""},
        // A value list's count only tells an empty list from a non-empty one, and a list
        // takes values until the input ends.
        {"00000000", kOk, "", true},
        {"00000000 FFFF", kOk, "", true},
        {"000000", kTruncated, "", true},
        {"00000002 00000001 82 01 00000002 83 02", kOk, "z1:1 y2:2", true},
        {"00000001 00000001 82 01 00000002 83 02 00000003 A1 00000000 81", kOk, "z1:1 y2:2 S3:0 E3",
         true},
        {"00000005 00000001 82 01", kOk, "z1:1", true},
        {"00000001 00000001 85 00", kTruncated, "", true},
    });
}

TEST(DeserializerTest, UnknownTypesAndElementTypesNoArrayHoldsAreMalformed) {
    Recorder r;
    for (int type : {0x00, 0x7F, 0x80, 0x81, 0x89, 0x8F, 0x92, 0x9F, 0xA3, 0xFF}) {
        Bytes input = parseHex("00000001" + hexWord(type, 2) + "0000000000000000");
        EXPECT_EQ(r.deserialize(input), kMalformed) << type;
    }
    for (int type : {0x83, 0x90, 0x91, 0x81, 0x89, 0xA0, 0xA1, 0xA2}) {
        Bytes input = parseHex("00000007 A0" + hexWord(type, 2) + "00000001 05");
        EXPECT_EQ(r.deserialize(input), kMalformed) << type;
    }
    EXPECT_EQ(r.events, 0u);
}

TEST(DeserializerTest, MissingCallbackIsReportedBeforeThePayloadIsRead) {
    // Header only, or with a short payload; the trace is what came before. Each input runs
    // without the callback of the same index; containers need their end callback (11) too.
    const char* const inputs[] = {"00000001 82", "00000001 83",      "00000001 84 00",
                                  "00000001 85", "00000001 86 0000", "00000001 87",
                                  "00000001 88", "00000001 90 FFFF", "00000001 91",
                                  "00000001 A1", "00000001 A0",      "00000001 A1"};
    for (int i = 0; i < 12; ++i) expectTraces({{inputs[i], kNoCallback, "", false, i}});
    expectTraces({
        {"00000001 A0", kNoCallback, "", false, 11},
        {"00000001 A2", kNoCallback, "", false, 11},
        {"00000001 A0 84 00000002 00", kNoCallback, "A1:84", false, 2},
        {"00000001 A2 00000001 A1", kNoCallback, "A1:A1", false, 9},
    });
}

TEST(DeserializerTest, ShortCallbackTablesLeaveTheRestNull) {
    Recorder partial(4 * sizeof(void (*)()));  // boolean to int
    EXPECT_EQ(partial.deserialize(parseHex("00000001 85 00000005")), kOk);
    EXPECT_EQ(partial.deserialize(parseHex("00000001 86 0000000000000005")), kNoCallback);
    Recorder none(sizeof(ZELSBPDeserializerCallbacks), nullptr);
    EXPECT_EQ(none.deserialize(parseHex("00000001 82 01")), kNoCallback);
    // A size beyond the table copies the table only.
    Recorder large(4096);
    EXPECT_EQ(large.deserialize(parseHex("00000001 82 01")), kOk);
}

TEST(DeserializerTest, ArgumentChecksAndTheirOrder) {
    Recorder r;
    const uint8_t byte = 0;
    for (auto entry : {api().deserializerDeserialize, api().deserializerDeserializeValueList}) {
        EXPECT_EQ(entry(nullptr, nullptr, &byte, 1), ZELCDBErrorInvalidParameter);
        EXPECT_EQ(entry(r.get(), nullptr, &byte, 0), kTruncated);
        EXPECT_EQ(entry(r.get(), nullptr, nullptr, 0), kTruncated);
        EXPECT_EQ(entry(r.get(), nullptr, nullptr, 4), ZELCDBErrorInvalidParameter);
    }
    EXPECT_EQ(r.events, 0u);
    EXPECT_EQ(api().deserializerCreate(nullptr, nullptr, &Recorder::kAll, sizeof Recorder::kAll),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerGetContext(nullptr), nullptr);
    EXPECT_EQ(api().deserializerGetContext(r.get()), &r);
}

TEST(DeserializerTest, AllocationFailures) {
    ZELSBPDeserializer* h = reinterpret_cast<ZELSBPDeserializer*>(8);
    Recorder r;
    Bytes text = parseHex("00000001 91 00000001 0041");
    zeltest::FailNthAllocation failure(1);
    EXPECT_EQ(api().deserializerCreate(&h, nullptr, nullptr, 0), ZELCDBErrorOutOfMemory);
    EXPECT_EQ(h, nullptr);
    // The text buffer of a first string.
    zeltest::FailNthAllocation again(1);
    EXPECT_EQ(r.deserialize(text), ZELCDBErrorOutOfMemory);
    EXPECT_TRUE(again.triggered());
    EXPECT_EQ(r.events, 0u);
}

TEST(DeserializerTest, BytesArePassedInPlaceAndRepeatedWalksAllocateNothing) {
    Bytes input = parseHex(
        "00000001 A1 00000004 00000006 90 00000001 AB 00000002 91 00000003 0041 00E9 20AC"
        " 00000003 A2 00000001 A1 00000001 00000004 A0 85 00000002 00000001 00000002 81 81"
        " 00000005 88 3FF0000000000000 81");
    Recorder r;
    ASSERT_EQ(r.deserialize(input), kOk);
    EXPECT_EQ(r.lastBytes, input.data() + 18);
    r.quiet = true;
    r.events = 0;
    ZELCDBError second;
    bool allocated;
    {
        zeltest::FailNthAllocation failure(1);
        second = r.deserialize(input);
        allocated = failure.triggered();
    }
    EXPECT_EQ(second, kOk);
    EXPECT_FALSE(allocated);
    EXPECT_EQ(r.events, 13u);
}

TEST(DeserializerTest, CallbacksMayWalkAgainOnTheSameDeserializer) {
    // Inside the outer string's callback, walk a payload with a longer string and its own
    // nesting on the same deserializer: the outer text and nesting must survive it.
    Recorder r;
    r.inString = [](Recorder& self) {
        self.inString = nullptr;
        const char* outerText = self.lastText;
        std::string outerTrace = self.trace, units, text;
        for (int i = 0; i < 64; ++i) units += "007A", text += "7A";
        EXPECT_EQ(
            self.deserialize(parseHex("00000009 A1 00000001 0000000A 91 00000040" + units + "81")),
            kOk);
        EXPECT_EQ(self.trace, "S9:1 s10:" + text + " E9");
        EXPECT_STREQ(outerText, "OK");
        self.trace = outerTrace;
    };
    ASSERT_EQ(r.deserialize(parseHex("00000001 A1 00000002 00000002 91 00000002 004F 004B"
                                     " 00000003 85 00000007 81")),
              kOk);
    EXPECT_EQ(r.trace, "S1:2 s2:4F4B i3:7 E1");
}

}  // namespace
}  // namespace sbptest
