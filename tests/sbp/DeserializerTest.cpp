// The deserializer through the function table: event traces, the odd counting rules that
// peers rely on, error codes and their precedence, re-entry and allocation behaviour.
#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "FailingAllocator.h"

namespace sbptest {
namespace {

struct TraceCase {
    const char* name;
    const char* input;
    ZELCDBError result;
    Events events;
};

void expectTraces(const TraceCase* begin, const TraceCase* end, bool valueList) {
    for (const TraceCase* c = begin; c != end; ++c) {
        SCOPED_TRACE(c->name);
        Recorder r;
        Bytes input = parseHex(c->input);
        ZELCDBError result = valueList ? r.deserializeValueList(input) : r.deserialize(input);
        EXPECT_EQ(result, c->result);
        EXPECT_EQ(r.events, c->events);
        EXPECT_FALSE(r.wrongArguments);
    }
}

TEST(DeserializerTest, SingleValueTraces) {
    const TraceCase cases[] = {
        {"int", "01 02 03 04 85 00 00 00 05", ZELCDBErrorNone, {"int 16909060 5"}},
        {"int and a trailing byte",
         "01 02 03 04 85 00 00 00 05 00",
         ZELCDBErrorSBPDeserializeInputTooLong,
         {"int 16909060 5"}},
        {"structure with a boolean",
         "00 00 00 0A A1 00 00 00 01 00 00 00 0B 82 01 81",
         ZELCDBErrorNone,
         {"struct 10 1", "bool 11 1", "end 10"}},
        {"array of shorts",
         "00 00 00 07 A0 84 00 00 00 02 FF FF 00 02",
         ZELCDBErrorNone,
         {"array 7 84", "short 0 -1", "short 0 2", "end 7"}},
        {"structure end byte wrong",
         "00 00 00 0A A1 00 00 00 01 00 00 00 0B 82 01 80",
         ZELCDBErrorSBPDeserializeInputMalformed,
         {"struct 10 1", "bool 11 1"}},
        {"cut inside an int",
         "01 02 03 04 85 00 00 00",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
        {"cut inside the header", "01 02 03", ZELCDBErrorSBPDeserializeInputTruncated, {}},
        {"string of U+00E9",
         "00 00 00 01 91 00 00 00 01 00 E9",
         ZELCDBErrorNone,
         {"string 1 C3 A9"}},
        {"string of U+0800 and U+FFFF",
         "00 00 00 01 91 00 00 00 02 08 00 FF FF",
         ZELCDBErrorNone,
         {"string 1 E0 A0 80 EF BF BF"}},
        {"empty string", "00 00 00 01 91 00 00 00 00", ZELCDBErrorNone, {"string 1"}},
        // Empty containers close at once and are not counted in their parent, which then
        // takes the final 0x81 for the next element's marker.
        {"array of one empty structure",
         "00 00 00 07 A2 00 00 00 01 A1 00 00 00 00 81 81",
         ZELCDBErrorSBPDeserializeInputMalformed,
         {"array 7 A1", "struct 0 0", "end 0"}},
        {"structure holding an empty structure",
         "00 00 00 01 A1 00 00 00 01 00 00 00 02 A1 00 00 00 00 81 81",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {"struct 1 1", "struct 2 0", "end 2"}},
        {"structure holding an empty array",
         "00 00 00 01 A1 00 00 00 01 00 00 00 02 A0 85 00 00 00 00 81",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {"struct 1 1", "array 2 85", "end 2"}},
        {"top-level empty structure",
         "00 00 00 01 A1 00 00 00 00 81",
         ZELCDBErrorNone,
         {"struct 1 0", "end 1"}},
        {"top-level empty array of structures",
         "00 00 00 01 A2 00 00 00 00 81",
         ZELCDBErrorNone,
         {"array 1 A1", "end 1"}},
        // Input that stops between values inside an open container is not an error.
        {"structure cut between members",
         "00 00 00 01 A1 00 00 00 03 00 00 00 02 83 05",
         ZELCDBErrorNone,
         {"struct 1 3", "byte 2 5"}},
        {"nested non-empty containers count once",
         "00 00 00 01 A1 00 00 00 02"
         " 00 00 00 02 A0 82 00 00 00 01 05"
         " 00 00 00 03 A2 00 00 00 01 A1 00 00 00 01 00 00 00 04 83 FF 81 81"
         " 81",
         ZELCDBErrorNone,
         {"struct 1 2", "array 2 82", "bool 0 1", "end 2", "array 3 A1", "struct 0 1", "byte 4 -1",
          "end 0", "end 3", "end 1"}},
        {"array of structures without the 0xA1 marker",
         "00 00 00 07 A2 00 00 00 01 A0",
         ZELCDBErrorSBPDeserializeInputMalformed,
         {"array 7 A1"}},
        {"array of structures missing its end byte",
         "00 00 00 07 A2 00 00 00 01 A1 00 00 00 01 00 00 00 01 82 00 81 00",
         ZELCDBErrorSBPDeserializeInputMalformed,
         {"array 7 A1", "struct 0 1", "bool 1 0", "end 0"}},
        {"scalar widths and signs",
         "00 00 00 00 A1 00 00 00 05"
         " 00 00 00 01 83 80 00 00 00 02 84 80 00 00 00 00 03 85 FF FF FF FE"
         " 00 00 00 04 86 80 00 00 00 00 00 00 01 00 00 00 05 82 7F 81",
         ZELCDBErrorNone,
         {"struct 0 5", "byte 1 -128", "short 2 -32768", "int 3 -2", "long 4 -9223372036854775807",
          "bool 5 1", "end 0"}},
        {"float and double patterns",
         "00 00 00 00 A0 87 00 00 00 04 3F 80 00 00 80 00 00 00 7F 80 00 00 00 00 00 01",
         ZELCDBErrorNone,
         {"array 0 87", "float 0 3F800000", "float 0 80000000", "float 0 7F800000",
          "float 0 00000001", "end 0"}},
        // NaN payloads are dropped; the sign stays.
        {"NaNs",
         "00 00 00 00 A0 88 00 00 00 02 FF F0 00 00 00 00 00 01 7F F0 00 00 00 00 12 34",
         ZELCDBErrorNone,
         {"array 0 88", "double 0 FFF8000000000000", "double 0 7FF8000000000000", "end 0"}},
        {"bytes", "00 00 00 03 90 00 00 00 02 AB CD", ZELCDBErrorNone, {"bytes 3 AB CD"}},
        {"bytes past the input",
         "00 00 00 03 90 00 00 00 03 AB CD",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
        {"bytes with a length that would wrap",
         "00 00 00 03 90 FF FF FF FF AB CD",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
        {"string past the input",
         "00 00 00 03 91 00 00 00 02 00 41 00",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
        {"string of four billion units",
         "00 00 00 03 91 FF FF FF FF 00 41",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
    };
    expectTraces(std::begin(cases), std::end(cases), false);
}

TEST(DeserializerTest, ValueListTraces) {
    const TraceCase cases[] = {
        {"empty list", "00 00 00 00", ZELCDBErrorNone, {}},
        {"empty list ignores what follows", "00 00 00 00 FF FF", ZELCDBErrorNone, {}},
        {"count cut short", "00 00 00", ZELCDBErrorSBPDeserializeInputTruncated, {}},
        {"two values",
         "00 00 00 02 00 00 00 01 82 01 00 00 00 02 83 02",
         ZELCDBErrorNone,
         {"bool 1 1", "byte 2 2"}},
        // The count only tells an empty list from a non-empty one.
        {"count of one, three values",
         "00 00 00 01 00 00 00 01 82 01 00 00 00 02 83 02 00 00 00 03 A1 00 00 00 00 81",
         ZELCDBErrorNone,
         {"bool 1 1", "byte 2 2", "struct 3 0", "end 3"}},
        {"count of five, one value",
         "00 00 00 05 00 00 00 01 82 01",
         ZELCDBErrorNone,
         {"bool 1 1"}},
        {"value cut short",
         "00 00 00 01 00 00 00 01 85 00",
         ZELCDBErrorSBPDeserializeInputTruncated,
         {}},
    };
    expectTraces(std::begin(cases), std::end(cases), true);
}

TEST(DeserializerTest, UnknownTypeBytesAreMalformed) {
    for (int type : {0x00, 0x7F, 0x80, 0x81, 0x89, 0x8F, 0x92, 0x9F, 0xA3, 0xFF}) {
        SCOPED_TRACE(type);
        Recorder r;
        Bytes input = parseHex("00 00 00 01 00 00 00 00 00 00 00 00");
        input[4] = static_cast<uint8_t>(type);
        EXPECT_EQ(r.deserialize(input), ZELCDBErrorSBPDeserializeInputMalformed);
        EXPECT_TRUE(r.events.empty());
    }
}

TEST(DeserializerTest, ScalarArraysRefuseTheWritersRefusedTypes) {
    for (int type : {0x83, 0x90, 0x91, 0x81, 0x89, 0xA0, 0xA1, 0xA2}) {
        SCOPED_TRACE(type);
        Recorder r;
        Bytes input = parseHex("00 00 00 07 A0 83 00 00 00 01 05");
        input[5] = static_cast<uint8_t>(type);
        EXPECT_EQ(r.deserialize(input), ZELCDBErrorSBPDeserializeInputMalformed);
        EXPECT_TRUE(r.events.empty());
    }
}

TEST(DeserializerTest, BytesArePassedInPlace) {
    Recorder r;
    Bytes input = parseHex("00 00 00 03 90 00 00 00 02 AB CD");
    ASSERT_EQ(r.deserialize(input), ZELCDBErrorNone);
    EXPECT_EQ(r.lastBytes, input.data() + 9);
}

TEST(DeserializerTest, MissingCallbackIsReportedBeforeThePayloadIsRead) {
    struct Case {
        const char* name;
        size_t slot;        // index of the callback left null
        const char* input;  // header only, or with a short payload
        Events events;      // made before the failure
    };
    const Case cases[] = {
        {"boolean", 0, "00 00 00 01 82", {}},
        {"byte", 1, "00 00 00 01 83", {}},
        {"short", 2, "00 00 00 01 84 00", {}},
        {"int", 3, "00 00 00 01 85", {}},
        {"long", 4, "00 00 00 01 86 00 00", {}},
        {"float", 5, "00 00 00 01 87", {}},
        {"double", 6, "00 00 00 01 88", {}},
        {"bytes", 7, "00 00 00 01 90 FF FF", {}},
        {"string", 8, "00 00 00 01 91", {}},
        {"structure begin", 9, "00 00 00 01 A1", {}},
        {"structure needs end too", 11, "00 00 00 01 A1", {}},
        {"array begin", 10, "00 00 00 01 A0", {}},
        {"scalar array needs end too", 11, "00 00 00 01 A0", {}},
        {"array of structures needs end too", 11, "00 00 00 01 A2", {}},
        {"element type met inside an array", 2, "00 00 00 01 A0 84 00 00 00 02 00", {"array 1 84"}},
        {"structure element inside an array of structures",
         9,
         "00 00 00 01 A2 00 00 00 01 A1",
         {"array 1 A1"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ZELSBPDeserializerCallbacks callbacks = Recorder::kAll;
        reinterpret_cast<void**>(&callbacks)[c.slot] = nullptr;
        Recorder r(sizeof callbacks, &callbacks);
        EXPECT_EQ(r.deserialize(parseHex(c.input)),
                  ZELCDBErrorSBPDeserializeCallbackNotImplemented);
        EXPECT_EQ(r.events, c.events);
    }
}

TEST(DeserializerTest, ShortCallbackTablesLeaveTheRestNull) {
    // Only boolean to int are covered.
    Recorder partial(4 * sizeof(void (*)()));
    EXPECT_EQ(partial.deserialize(parseHex("00 00 00 01 85 00 00 00 05")), ZELCDBErrorNone);
    EXPECT_EQ(partial.deserialize(parseHex("00 00 00 01 86 00 00 00 00 00 00 00 05")),
              ZELCDBErrorSBPDeserializeCallbackNotImplemented);
    Recorder none(sizeof(ZELSBPDeserializerCallbacks), nullptr);
    EXPECT_EQ(none.deserialize(parseHex("00 00 00 01 82 01")),
              ZELCDBErrorSBPDeserializeCallbackNotImplemented);
    // A size beyond the table copies the table only.
    Recorder large(4096);
    EXPECT_EQ(large.deserialize(parseHex("00 00 00 01 82 01")), ZELCDBErrorNone);
}

TEST(DeserializerTest, ArgumentChecksAndTheirOrder) {
    Recorder r;
    const uint8_t byte = 0;
    EXPECT_EQ(api().deserializerDeserialize(nullptr, nullptr, &byte, 1),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDeserialize(r.get(), nullptr, &byte, 0),
              ZELCDBErrorSBPDeserializeInputTruncated);
    EXPECT_EQ(api().deserializerDeserialize(r.get(), nullptr, nullptr, 0),
              ZELCDBErrorSBPDeserializeInputTruncated);
    EXPECT_EQ(api().deserializerDeserialize(r.get(), nullptr, nullptr, 4),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDeserializeValueList(nullptr, nullptr, &byte, 1),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDeserializeValueList(r.get(), nullptr, &byte, 0),
              ZELCDBErrorSBPDeserializeInputTruncated);
    EXPECT_EQ(api().deserializerDeserializeValueList(r.get(), nullptr, nullptr, 4),
              ZELCDBErrorInvalidParameter);
    EXPECT_TRUE(r.events.empty());

    EXPECT_EQ(api().deserializerCreate(nullptr, nullptr, &Recorder::kAll, sizeof Recorder::kAll),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerGetContext(nullptr), nullptr);
    EXPECT_EQ(api().deserializerGetContext(r.get()), &r);
}

TEST(DeserializerTest, CreateReportsOutOfMemoryWithANullHandle) {
    ZELSBPDeserializer* h = reinterpret_cast<ZELSBPDeserializer*>(8);
    {
        zeltest::FailNthAllocation failure(1);
        EXPECT_EQ(api().deserializerCreate(&h, nullptr, nullptr, 0), ZELCDBErrorOutOfMemory);
        EXPECT_TRUE(failure.triggered());
    }
    EXPECT_EQ(h, nullptr);
}

TEST(DeserializerTest, RepeatedWalksAllocateNothing) {
    Bytes input = parseHex(
        "00 00 00 01 A1 00 00 00 03"
        " 00 00 00 02 91 00 00 00 03 00 41 00 E9 20 AC"
        " 00 00 00 03 A2 00 00 00 01 A1 00 00 00 01 00 00 00 04 A0 85 00 00 00 02"
        " 00 00 00 01 00 00 00 02 81 81"
        " 00 00 00 05 88 3F F0 00 00 00 00 00 00 81");
    ZELSBPDeserializer* h = nullptr;
    int calls = 0;
    ZELSBPDeserializerCallbacks counting{};
    counting.intCallback = [](ZELSBPDeserializer*, void* c, void*, uint32_t, int32_t) {
        ++*static_cast<int*>(c);
    };
    counting.doubleCallback = [](ZELSBPDeserializer*, void* c, void*, uint32_t, double) {
        ++*static_cast<int*>(c);
    };
    counting.stringCallback = [](ZELSBPDeserializer*, void* c, void*, uint32_t, const char*) {
        ++*static_cast<int*>(c);
    };
    counting.structureBeginCallback = [](ZELSBPDeserializer*, void*, void*, uint32_t, uint32_t) {};
    counting.arrayBeginCallback = [](ZELSBPDeserializer*, void*, void*, uint32_t, uint8_t) {};
    counting.endCallback = [](ZELSBPDeserializer*, void*, void*, uint32_t) {};
    ASSERT_EQ(api().deserializerCreate(&h, &calls, &counting, sizeof counting), ZELCDBErrorNone);
    ASSERT_EQ(api().deserializerDeserialize(h, nullptr, input.data(),
                                            static_cast<uint32_t>(input.size())),
              ZELCDBErrorNone);
    ZELCDBError second;
    bool allocated;
    {
        zeltest::FailNthAllocation failure(1);
        second = api().deserializerDeserialize(h, nullptr, input.data(),
                                               static_cast<uint32_t>(input.size()));
        allocated = failure.triggered();
    }
    EXPECT_EQ(second, ZELCDBErrorNone);
    EXPECT_FALSE(allocated);
    EXPECT_EQ(calls, 8);
    api().deserializerDestroy(h);
}

TEST(DeserializerTest, FailedStringBufferIsOutOfMemory) {
    Recorder r;
    Bytes input = parseHex("00 00 00 01 91 00 00 00 01 00 41");
    ZELCDBError result;
    {
        zeltest::FailNthAllocation failure(1);
        result = r.deserialize(input);
    }
    EXPECT_EQ(result, ZELCDBErrorOutOfMemory);
    EXPECT_TRUE(r.events.empty());
}

TEST(DeserializerTest, CallbacksMayWalkAgainOnTheSameDeserializer) {
    Recorder r;
    // Inside the outer string's callback, walk a payload with a longer string and its own
    // nesting on the same deserializer: the outer text and nesting must survive it.
    r.afterString = [](Recorder& self) {
        self.afterString = nullptr;
        const char* outerText = self.lastText;
        std::string units;
        for (int i = 0; i < 64; ++i) units += " 00 7A";
        Bytes inner = parseHex(
            ("00 00 00 09 A1 00 00 00 01 00 00 00 0A 91 00 00 00 40" + units + " 81").c_str());
        size_t before = self.events.size();
        EXPECT_EQ(api().deserializerDeserialize(self.get(), nullptr, inner.data(),
                                                static_cast<uint32_t>(inner.size())),
                  ZELCDBErrorNone);
        EXPECT_EQ(self.events.size() - before, 3u);
        self.events.resize(before);
        EXPECT_STREQ(outerText, "OK");
    };
    ASSERT_EQ(r.deserialize(parseHex("00 00 00 01 A1 00 00 00 02"
                                     " 00 00 00 02 91 00 00 00 02 00 4F 00 4B"
                                     " 00 00 00 03 85 00 00 00 07 81")),
              ZELCDBErrorNone);
    EXPECT_EQ(r.events, (Events{"struct 1 2", "string 2 4F 4B", "int 3 7", "end 1"}));
}

}  // namespace
}  // namespace sbptest
