// The serializer and deserializer through the function table, driven by a one-line call
// language in which the deserializer's callbacks also write their trace. Rows of kBothWays
// run both ways: the calls must give the bytes, and the bytes the calls back. The other cases
// are one side's rules: refused calls and their codes, the odd counting rules peers rely on,
// error precedence, allocation failures, and the float encoding's two paths.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>

#include "FailingAllocator.h"
#include "TestText.h"
#include "sbp/SBPFloatBits.h"
#include "zelcdbsdk.h"

namespace sbptest {
namespace {

using zeltest::Bytes;
using zeltest::format;
using zeltest::hex;
using zeltest::parseHex;

constexpr ZELCDBError kOk = ZELCDBErrorNone;
constexpr ZELCDBError kNoCallback = ZELCDBErrorSBPDeserializeCallbackNotImplemented;
constexpr ZELCDBError kTruncated = ZELCDBErrorSBPDeserializeInputTruncated;
constexpr ZELCDBError kTooLong = ZELCDBErrorSBPDeserializeInputTooLong;
constexpr ZELCDBError kMalformed = ZELCDBErrorSBPDeserializeInputMalformed;

// Filled on first use, never during static initialisation.
const ZELCDBSDK& api() {
    static const ZELCDBSDK table = [] {
        ZELCDBSDK t{};
        ZELCDBSDKInitialize(&t, sizeof t);
        return t;
    }();
    return table;
}

// One serializer call of a script token; see run().
ZELCDBError call(ZELSBPSerializer* s, char kind, uint32_t uid, const std::string& value,
                 uint32_t length) {
    const ZELCDBSDK& a = api();
    int64_t n = std::strtoll(value.c_str(), nullptr, 0);
    uint64_t bits = std::strtoull(value.c_str() + (value[0] == '#'), nullptr, 16);
    uint32_t low = static_cast<uint32_t>(bits);
    float f;
    double d;
    std::memcpy(&f, &low, sizeof f);
    std::memcpy(&d, &bits, sizeof d);
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
    EXPECT_EQ(kind, 's');
    return a.serializerAddString(s, uid, null ? nullptr : text.c_str(), length);
}

// Runs a call script on s, checking every call's result. Space-separated tokens:
//   L, S<uid>, A<uid>:<element type hex>, E         begin list/structure/array, end
//                                   (a count after S, a UID after E, as traces write them,
//                                   are ignored)
//   z, y, h, i, l <uid>:<value>     boolean, byte, short, int, long (C integer literal)
//   f, d <uid>:#<hex>               float, double: the bit pattern
//   x, s <uid>:<hex bytes>          bytes, string (UTF-8 bytes; NUL-terminated unless /<n>)
//   x and s take "-" for a null pointer and /<n> for an explicit length; !<code> at the end
//   is the result the call must give, 0 otherwise.
void run(ZELSBPSerializer* s, const std::string& script) {
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

    void run(const std::string& script) { sbptest::run(handle_, script); }
    // The finished bytes, or nothing when GetData refuses (as incomplete, clearing both outputs).
    Bytes bytes() const {
        const uint8_t* data = reinterpret_cast<const uint8_t*>(this);
        uint32_t length = 99;
        ZELCDBError result = api().serializerGetData(handle_, &data, &length);
        EXPECT_TRUE(result == kOk ||
                    (result == ZELCDBErrorSBPSerializeIncomplete && data == nullptr && length == 0))
            << result;
        return Bytes(data, data + length);
    }
    ZELSBPSerializer* handle_ = nullptr;
};

// A deserializer whose callbacks append one token per event to trace, in the call script
// language: "i5:16909060", "S10:1" (structure, member count), "A7:84" (array, element type),
// "E10" (end), "x3:ABCD", "s1:C3A9" (UTF-8 bytes), "f0:#3F800000" (floats and doubles as bit
// patterns, so that every bit counts).
class Recorder {
public:
    explicit Recorder(uint32_t size = sizeof kAll,
                      const ZELSBPDeserializerCallbacks* table = &kAll) {
        EXPECT_EQ(api().deserializerCreate(&handle_, this, table, size), ZELCDBErrorNone);
    }
    ~Recorder() { api().deserializerDestroy(handle_); }

    ZELCDBError deserialize(const Bytes& data, bool valueList = false) {
        trace.clear();
        auto entry =
            valueList ? api().deserializerDeserializeValueList : api().deserializerDeserialize;
        return entry(handle_, &userData_, data.data(), static_cast<uint32_t>(data.size()));
    }

    std::string trace;
    const uint8_t* lastBytes = nullptr;
    ZELSBPDeserializer* handle_ = nullptr;
    static const ZELSBPDeserializerCallbacks kAll;

private:
    template <char K, typename... T>
    static void on(ZELSBPDeserializer* d, void* context, void* userData, uint32_t uid, T... v) {
        Recorder& r = *static_cast<Recorder*>(context);
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
    std::string text(const char* utf8) { return ":" + hex(utf8, std::strlen(utf8), ""); }
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
    int userData_ = 0;
};

const ZELSBPDeserializerCallbacks Recorder::kAll = {
    &on<'z', int32_t>,     &on<'y', int8_t>,
    &on<'h', int16_t>,     &on<'i', int32_t>,
    &on<'l', int64_t>,     &on<'f', float>,
    &on<'d', double>,      &on<'x', const uint8_t*, uint32_t>,
    &on<'s', const char*>, &on<'S', uint32_t>,
    &on<'A', uint8_t>,     &on<'E'>};

// A script that begins with L is a value list: its trace leaves out the L and the last E.
struct Both {
    const char* script;
    const char* bytes;
    const char* trace = nullptr;  // when not the script itself
};
const Both kBothWays[] = {
    {"i16909060:5", "01020304 85 00000005"},
    {"z1:-7", "00000001 82 01", "z1:1"},
    {"f5:#7FC00000", "00000005 87 7FC00000"},
    {"d6:#0000000000000001", "00000006 88 0000000000000001"},
    {"x3:ABCD", "00000003 90 00000002 ABCD"},
    {"x8:-/0", "00000008 90 00000000", "x8:"},
    {"s9:48656C6C6F/1", "00000009 91 00000001 0048", "s9:48"},
    {"s9:-/0", "00000009 91 00000000", "s9:"},
    // Containers: counts are patched on End, scalar arrays have bare elements and no end
    // byte, arrays of structures a 0xA1 marker per element.
    {"S10:1 z11:1 E10", "0000000A A1 00000001 0000000B 82 01 81"},
    {"S1:0 E1", "00000001 A1 00000000 81"},
    {"A1:A1 E1", "00000001 A2 00000000 81"},
    {"A7:84 h0:-1 h0:2 E7", "00000007 A0 84 00000002 FFFF 0002"},
    {"A7:88 d0:#FFF0000000000000 E7", "00000007 A0 88 00000001 FFF0000000000000"},
    {"A7:A1 S0:1 h9:0 E0 S0:1 h9:1 E0 E7",
     "00000007 A2 00000002 A1 00000001 00000009 84 0000 81 A1 00000001 00000009 84 0001 81 81"},
    // Each type's limits, and every kind of member inside a structure.
    {"S0:5 y1:-128 h2:-32768 i3:-2147483648 l4:-9223372036854775807 z5:1 E0",
     "00000000 A1 00000005 00000001 83 80 00000002 84 8000 00000003 85 80000000"
     " 00000004 86 8000000000000001 00000005 82 01 81"},
    {"S1:10 z2:1 y3:127 h4:32767 i5:2147483647 l6:72623859790382856 f7:#FFC00000 "
     "d8:#7FEFFFFFFFFFFFFF x9:DEAD s10:41 s11:4869 E1",
     "00000001 A1 0000000A 00000002 82 01 00000003 83 7F 00000004 84 7FFF"
     " 00000005 85 7FFFFFFF 00000006 86 0102030405060708 00000007 87 FFC00000"
     " 00000008 88 7FEFFFFFFFFFFFFF 00000009 90 00000002 DEAD"
     " 0000000A 91 00000001 0041 0000000B 91 00000002 0048 0069 81"},
    // A value list's count only tells an empty list from a non-empty one.
    {"L E", "00000000"},
    {"L z1:1 y2:2 E", "00000002 00000001 82 01 00000002 83 02"},
    {"L S1:2 y2:1 A3:85 i0:0 i0:1 i0:2 E3 E1 z4:1 E",
     "00000002 00000001 A1 00000002 00000002 83 01"
     " 00000003 A0 85 00000003 00000000 00000001 00000002 81 00000004 82 01"},
};

void expectBothWays(const std::string& script, const std::string& bytes, std::string trace) {
    SCOPED_TRACE(script);
    Serializer s(script);
    EXPECT_EQ(hex(s.bytes()), hex(parseHex(bytes)));
    // Once complete, nothing more goes in and there is nothing left to end.
    s.run("i1:1!101 S1!101 E!102");
    bool list = trace.rfind("L ", 0) == 0;
    if (list) trace = trace.size() > 3 ? trace.substr(2, trace.size() - 4) : "";
    Recorder r;
    EXPECT_EQ(r.deserialize(parseHex(bytes), list), kOk);
    EXPECT_EQ(r.trace, trace);
}

TEST(CodecTest, RowsRunBothWays) {
    for (const Both& row : kBothWays) {
        expectBothWays(row.script, row.bytes, row.trace ? row.trace : row.script);
    }
    // Deeper than the serializer's first stack block; each level holds a member before its
    // child structure and one after, so every count but the innermost is 3.
    std::string script, closing, bytes;
    for (uint32_t level = 0; level < 20; ++level) {
        uint32_t count = level < 19 ? 3 : 2;
        script += format("S%u:%u y100:1 ", level, count);
        bytes += format("%08X A1 %08X 00000064 83 01", level, count);
        closing = format(" y200:2 E%u", level) + closing;
    }
    for (int level = 0; level < 20; ++level) bytes += "000000C8 83 02 81";
    script = script.substr(0, script.size() - 1) + closing;
    expectBothWays(script, bytes, script);
}

TEST(SerializerTest, RefusedCallsWriteNothingAndTheirCodesComeInOrder) {
    const Both rows[] = {
        // The length field is the UTF-8 byte count while one unit per character follows (a
        // reader takes it as the count of units, as the deserializer rows show).
        {"s9:C3A9", "00000009 91 00000002 00E9"},
        {"s9:EFBFBF", "00000009 91 00000003 FFFF"},
        // Overlong forms and surrogates are not checked.
        {"s9:C080/2", "00000009 91 00000002 0000"},
        {"s9:EDA080", "00000009 91 00000003 D800"},
        {"A7:A1 S0 E E", "00000007 A2 00000001 A1 00000000 81 81"},
        {"L S1 E", ""},
        {"S1 A2:A1 S0", ""},
        {"E!102", ""},
        {"S1 E E!102", "00000001 A1 00000000 81"},
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
        {"x1:-/3!2 s1:-/3!2 s1:-!2 i1:2", "00000001 85 00000002"},
        // Invalid UTF-8: what was converted before it stays.
        {"S1 s2:4180!2 E", "00000001 A1 00000001 00000002 91 00000002 0041 81"},
        {"S1 s2:F888808080!2 E", "00000001 A1 00000001 00000002 91 00000005 81"},
        {"S1 s2:4142C3A9/3!2 E", "00000001 A1 00000001 00000002 91 00000003 0041 0042 81"},
        {"S1 s2:C341!2 E", "00000001 A1 00000001 00000002 91 00000002 81"},
        {"S1 s2:F09F9880!2 E", "00000001 A1 00000001 00000002 91 00000004 81"},
        {"S1 s2:E282/2!2 E", "00000001 A1 00000001 00000002 91 00000002 81"},
    };
    for (const Both& row : rows) {
        EXPECT_EQ(hex(Serializer(row.script).bytes()), hex(parseHex(row.bytes))) << row.script;
    }
    // A null handle or output.
    run(nullptr,
        "z1:1!2 y1:1!2 h1:1!2 i1:1!2 l1:1!2 f1:1!2 d1:1!2 x1:01!2 s1:61!2 s1:61/1!2 L!2 "
        "S1!2 A1:85!2 E!2");
    EXPECT_EQ(api().serializerCreate(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    Serializer s("i1:1");
    const uint8_t* data;
    uint32_t length;
    EXPECT_EQ(api().serializerGetData(nullptr, &data, &length), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerGetData(s.handle_, nullptr, &length), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().serializerGetData(s.handle_, &data, nullptr), ZELCDBErrorInvalidParameter);
}

TEST(SerializerTest, ScalarArrayCountIsTheElementsWrittenWhateverWasRefused) {
    // Each kind with an element of another type; enough elements to grow past the first
    // block in the middle of the array.
    const char* const cases[][3] = {{"z", "82", "i"}, {"h", "84", "i"}, {"i", "85", "l"},
                                    {"l", "86", "i"}, {"f", "87", "i"}, {"d", "88", "i"}};
    const size_t sizes[] = {1, 2, 4, 8, 4, 8};
    for (size_t k = 0; k < 6; ++k) {
        SCOPED_TRACE(cases[k][1]);
        std::string element = cases[k][0] + std::string("0:5 "), script = "S1 A2:";
        script += cases[k][1] + (" " + element + element + element) + cases[k][0] + "9:5!103 ";
        script += cases[k][2] + std::string("0:5!104 s0:78!104 ");
        for (int i = 0; i < 300; ++i) script += element;
        Bytes out = Serializer(script + "E i3:7 E").bytes();
        ASSERT_EQ(out.size(), 9 + 10 + 303 * sizes[k] + 9 + 1);
        EXPECT_EQ(
            hex(Bytes(out.begin(), out.begin() + 19)),
            hex(parseHex(format("00000001 A1 00000002 00000002 A0 %s 0000012F", cases[k][1]))));
        EXPECT_EQ(hex(Bytes(out.end() - 10, out.end())), "00 00 00 03 85 00 00 00 07 81");
    }
}

TEST(SerializerTest, TextGivesOneUnitPerCharacterWhereverItsNonAsciiBytesSit) {
    // Lengths around the eight-byte blocks ASCII is widened in, with U+00E9 at every
    // position: the result must not depend on where the first non-ASCII byte sits.
    for (size_t length : {1, 7, 8, 9, 15, 16, 17, 24, 33}) {
        for (size_t at = 0; at < length; ++at) {
            std::string text, units;
            for (size_t i = 0; i < length; ++i) {
                text += i == at ? "C3A9" : format("%02zX", 'a' + i % 26);
                units += i == at ? "00E9" : format("00%02zX", 'a' + i % 26);
            }
            EXPECT_EQ(hex(Serializer("S1 s2:" + text + " E").bytes()),
                      hex(parseHex(format("00000001 A1 00000001 00000002 91 %08zX", length + 1) +
                                   units + "81")))
                << length << " " << at;
        }
    }
    // Longer than the short-text path takes: a long ASCII run, then a, U+00E9 and U+20AC
    // repeated across the converter's chunk boundaries at every alignment; and a payload
    // that grows the buffer.
    std::string payload, text, units;
    for (int i = 0; i < 5000; ++i) payload += format("%02X", (i * 7) & 0xFF);
    for (int i = 0; i < 3000; ++i) text += "78", units += "0078";
    for (int i = 0; i < 400; ++i) text += "61C3A9E282AC", units += "006100E920AC";
    EXPECT_EQ(Serializer("S1 x2:" + payload + " s3:" + text + " E").bytes(),
              parseHex("00000001 A1 00000002 00000002 90 00001388" + payload +
                       "00000003 91 00001518" + units + "81"));
}

TEST(CodecTest, AllocationFailuresGiveOutOfMemoryOrFailed) {
    // Every allocation of a create fails once: the code, and a null handle.
    for (unsigned n = 1;; ++n) {
        ZELSBPSerializer* s = reinterpret_cast<ZELSBPSerializer*>(8);
        ZELSBPDeserializer* d = reinterpret_cast<ZELSBPDeserializer*>(8);
        zeltest::FailNthAllocation failure(n);
        ZELCDBError result = api().serializerCreate(&s);
        if (!failure.triggered()) {
            EXPECT_EQ(api().serializerDestroy(s), ZELCDBErrorNone);
            zeltest::FailNthAllocation first(1);
            EXPECT_EQ(api().deserializerCreate(&d, nullptr, nullptr, 0), ZELCDBErrorOutOfMemory);
            EXPECT_EQ(d, nullptr);
            break;
        }
        EXPECT_EQ(result, ZELCDBErrorOutOfMemory) << n;
        EXPECT_EQ(s, nullptr) << n;
    }
    // The text buffer of a first string.
    Recorder r;
    Bytes text = parseHex("00000001 91 00000001 0041");
    zeltest::FailNthAllocation textFailure(1);
    EXPECT_EQ(r.deserialize(text), ZELCDBErrorOutOfMemory);
    EXPECT_TRUE(textFailure.triggered());
    EXPECT_EQ(r.trace, "");
    // After "S1" and a bytes member, the first 1024-byte block has room for exactly one more
    // member (UID, type, payload) and not a byte more: the next byte needs the block to grow,
    // which fails out of memory for a value, and as Failed from End.
    const std::pair<const char*, size_t> members[] = {
        {"z3:1", 1}, {"y3:1", 1}, {"h3:1", 2}, {"i3:1", 4}, {"l3:1", 8}, {"f3:1", 4}, {"d3:1", 8}};
    for (auto [member, size] : members) {
        for (size_t missing : {0, 1}) {
            SCOPED_TRACE(format("%s with %zu bytes missing", member, missing));
            Serializer s("S1 x2:" + std::string(2 * (1024 - 18 - 5 - size + missing), '5'));
            zeltest::FailNthAllocation failure(1);
            s.run(std::string(member) + (missing ? "!3" : " E!1"));
            EXPECT_TRUE(failure.triggered());
        }
    }
}

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
        {"01020304 85 00000005 00", kTooLong, "i16909060:5"},
        {"0000000A A1 00000001 0000000B 82 01 80", kMalformed, "S10:1 z11:1"},
        {"01020304 85 000000", kTruncated, ""},
        {"00000001 91 00000001 00E9", kOk, "s1:C3A9"},
        {"00000001 91 00000002 0800 FFFF", kOk, "s1:E0A080EFBFBF"},
        {"010203", kTruncated, ""},
        // Empty containers close at once and are not counted in their parent, which then
        // takes the next end byte for another element's header.
        {"00000007 A2 00000001 A1 00000000 81 81", kMalformed, "A7:A1 S0:0 E0"},
        {"00000001 A1 00000001 00000002 A1 00000000 81 81", kTruncated, "S1:1 S2:0 E2"},
        {"00000001 A1 00000001 00000002 A0 85 00000000 81", kTruncated, "S1:1 A2:85 E2"},
        // Input that stops between values inside an open container is not an error.
        {"00000001 A1 00000003 00000002 83 05", kOk, "S1:3 y2:5"},
        // Any boolean byte but 0 is true.
        {"00000001 A1 00000002 00000002 A0 82 00000001 05"
         " 00000003 A2 00000001 A1 00000001 00000004 83 FF 81 81 81",
         kOk, "S1:2 A2:82 z0:1 E2 A3:A1 S0:1 y4:-1 E0 E3 E1"},
        {"00000007 A2 00000001 A0", kMalformed, "A7:A1"},
        {"00000007 A2 00000001 A1 00000001 00000001 82 00 81 00", kMalformed, "A7:A1 S0:1 z1:0 E0"},
        {"00000007 A0 83 00000001 05", kMalformed, ""},
        // NaN payloads are dropped; the sign stays.
        {"00000000 A0 87 00000006 3F800000 80000000 7F800000 00000001 7F800001 FF812345", kOk,
         "A0:87 f0:#3F800000 f0:#80000000 f0:#7F800000 f0:#00000001 f0:#7FC00000 f0:#FFC00000 E0"},
        {"00000000 A0 88 00000002 FFF0000000000001 7FF0000000001234", kOk,
         "A0:88 d0:#FFF8000000000000 d0:#7FF8000000000000 E0"},
        {"00000003 90 00000003 ABCD", kTruncated, ""},
        {"00000003 90 FFFFFFFF ABCD", kTruncated, ""},
        {"00000003 91 00000002 0041 00", kTruncated, ""},
        {"00000003 91 FFFFFFFF 0041", kTruncated, ""},
        // A value list takes values until the input ends, whatever its count says.
        {"00000000 FFFF", kOk, "", true},
        {"000000", kTruncated, "", true},
        {"00000001 00000001 82 01 00000002 83 02 00000003 A1 00000000 81", kOk, "z1:1 y2:2 S3:0 E3",
         true},
        {"00000005 00000001 82 01", kOk, "z1:1", true},
        {"00000001 00000001 85 00", kTruncated, "", true},
        // A missing callback is reported before the payload is read; containers need their
        // end callback (11) too.
        {"00000001 A0", kNoCallback, "", false, 11},
        {"00000001 A2", kNoCallback, "", false, 11},
        {"00000001 A0 84 00000002 00", kNoCallback, "A1:84", false, 2},
        {"00000001 A2 00000001 A1", kNoCallback, "A1:A1", false, 9},
    });
    // Header only, each without the callback of the same index.
    const char* const types[] = {"82", "83", "84", "85", "86", "87",
                                 "88", "90", "91", "A1", "A0", "A1"};
    for (int i = 0; i < 12; ++i) {
        expectTraces({{(std::string("00000001 ") + types[i]).c_str(), kNoCallback, "", false, i}});
    }
}

TEST(DeserializerTest, RefusalsAndArgumentChecksComeBeforeAnyCallback) {
    Recorder r;
    for (int type : {0x00, 0x7F, 0x80, 0x81, 0x89, 0x8F, 0x92, 0x9F, 0xA3, 0xFF}) {
        EXPECT_EQ(r.deserialize(parseHex(format("00000001 %02X 0000000000000000", type))),
                  kMalformed);
        EXPECT_EQ(r.trace, "") << type;
    }
    for (int type : {0x83, 0x90, 0x91, 0x81, 0x89, 0xA0, 0xA1, 0xA2}) {
        EXPECT_EQ(r.deserialize(parseHex(format("00000007 A0 %02X 00000001 05", type))),
                  kMalformed);
        EXPECT_EQ(r.trace, "") << type;
    }
    const uint8_t byte = 0;
    for (auto entry : {api().deserializerDeserialize, api().deserializerDeserializeValueList}) {
        EXPECT_EQ(entry(nullptr, nullptr, &byte, 1), ZELCDBErrorInvalidParameter);
        EXPECT_EQ(entry(r.handle_, nullptr, &byte, 0), kTruncated);
        EXPECT_EQ(entry(r.handle_, nullptr, nullptr, 0), kTruncated);
        EXPECT_EQ(entry(r.handle_, nullptr, nullptr, 4), ZELCDBErrorInvalidParameter);
    }
    EXPECT_EQ(r.trace, "");
    // Bytes are passed in place, not copied.
    Bytes bytes = parseHex("00000009 A1 00000001 00000001 90 00000001 AB 81");
    EXPECT_EQ(r.deserialize(bytes), kOk);
    EXPECT_EQ(r.lastBytes, bytes.data() + 18);
    EXPECT_EQ(api().deserializerCreate(nullptr, nullptr, &Recorder::kAll, sizeof Recorder::kAll),
              ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerDestroy(nullptr), ZELCDBErrorInvalidParameter);
    EXPECT_EQ(api().deserializerGetContext(nullptr), nullptr);
    EXPECT_EQ(api().deserializerGetContext(r.handle_), &r);
    // A short table leaves the rest null, a null one all of them; a long one copies the table.
    Recorder partial(4 * sizeof(void (*)()));  // boolean to int
    EXPECT_EQ(partial.deserialize(parseHex("00000001 85 00000005")), kOk);
    EXPECT_EQ(partial.deserialize(parseHex("00000001 86 0000000000000005")), kNoCallback);
    EXPECT_EQ(Recorder(sizeof Recorder::kAll, nullptr).deserialize({0, 0, 0, 1, 0x82, 1}),
              kNoCallback);
    EXPECT_EQ(Recorder(4096).deserialize({0, 0, 0, 1, 0x82, 1}), kOk);
}

// Both float paths, the bit copy and the arithmetic construction other hosts take, against
// the bit pattern itself (NaNs made quiet), both ways, over every exponent and random
// patterns: checking each path against the pattern keeps the two from drifting together.
template <typename F>
void expectBothFloatPathsKeepEveryPattern() {
    using namespace zelcdbsdk;
    using L = SBPFloatLayout<F>;
    using Bits = typename L::Bits;
    size_t failures = 0;
    auto check = [&](Bits pattern) {
        bool isNaN = (pattern & ~L::kSign) > L::kExponentMask;
        Bits expected = isNaN ? (pattern & L::kSign) | L::kExponentMask | L::kQuietBit : pattern;
        F value, decoded[2] = {sbpFloatFromBitsArithmetic<F>(pattern),
                               sbpFloatFromBitsCopied<F>(pattern)};
        std::memcpy(&value, &pattern, sizeof value);
        Bits results[4] = {sbpFloatBitsArithmetic(value), sbpFloatBitsCopied(value)};
        std::memcpy(&results[2], decoded, sizeof decoded);
        for (Bits result : results) {
            if (result != expected && ++failures <= 5) ADD_FAILURE() << std::hex << pattern;
        }
    };
    for (Bits e = 0; e < 2 << (L::kTotalBits - 1 - L::kFractionBits); ++e) {
        Bits high = e << L::kFractionBits;  // every exponent, with and without the sign
        // Each fraction bit and its neighbours: with a zero exponent, the subnormal boundaries.
        for (int k = 1; k < L::kFractionBits; ++k) {
            for (Bits f : {(Bits(1) << k) - 1, Bits(1) << k, (Bits(1) << k) + 1}) check(high | f);
        }
        for (Bits f : {Bits(0), L::kFractionMask / 3, L::kFractionMask}) check(high | f);
    }
    std::mt19937_64 random(20240611);
    for (int i = 0; i < 500000; ++i) {
        Bits pattern = static_cast<Bits>(random());
        check(pattern);
        check(pattern & (L::kSign | L::kFractionMask));  // as many subnormals
    }
}

TEST(CodecTest, BothFloatPathsKeepEveryFloatAndDoublePattern) {
    if (!zelcdbsdk::sbpFloatBitsNative<float>() || !zelcdbsdk::sbpFloatBitsNative<double>()) {
        GTEST_SKIP();
    }
    expectBothFloatPathsKeepEveryPattern<float>();
    expectBothFloatPathsKeepEveryPattern<double>();
}

}  // namespace
}  // namespace sbptest
