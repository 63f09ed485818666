#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "plat/ThrownText.h"
#include "plat/Utf8.h"

namespace {

std::string encoded(int32_t codePoint) {
    char buffer[8];
    std::memset(buffer, 0x55, sizeof buffer);
    char* end = plat::encodeUtf8(codePoint, buffer);
    EXPECT_EQ(static_cast<unsigned char>(*end), 0x55u) << "wrote past its result";
    return std::string(buffer, end);
}

TEST(EncodeUtf8, EachLengthAtItsBoundariesAndNothingOutOfRange) {
    const struct {
        int32_t codePoint;
        std::string bytes;
    } cases[] = {
        {0, std::string(1, '\0')},
        {0x7F, "\x7F"},
        {-1, "\xFF"},  // negative values take the one-byte branch
        {0x80, "\xC2\x80"},
        {0x800, "\xE0\xA0\x80"},
        {0xD800, "\xED\xA0\x80"},  // surrogates are not refused here
        {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"},
    };
    for (const auto& c : cases) EXPECT_EQ(encoded(c.codePoint), c.bytes) << std::hex << c.codePoint;
    for (int32_t codePoint : {0x110000, 0x7FFFFFFF}) {
        char buffer[4] = {'a', 'b', 'c', 'd'};
        EXPECT_EQ(zeltest::thrownText([&] { plat::encodeUtf8(codePoint, buffer); }),
                  "Unicode out of range");
        EXPECT_EQ(std::string(buffer, 4), "abcd");
    }
}

// The text ends at end or at its first NUL, whichever comes first. Text made only of bytes
// above 0x7F doubles in size, beyond the first guess of the buffer; every length crosses the
// growth step at a different place.
TEST(WidenToUtf8, StopsAtEndOrFirstNulAndGrowsForTextThatDoubles) {
    const char input[] = "ab\0cd";
    const struct {
        const char* begin;
        const char* end;
        std::string expected;
    } cases[] = {
        {"caf\xE9", nullptr, "caf\xC3\xA9"},
        {input, nullptr, "ab"},
        {input, input + 1, "a"},
        {input, input + 5, "ab"},
    };
    for (const auto& c : cases) {
        plat::OwnedText out = plat::widenToUtf8(c.begin, c.end);
        EXPECT_EQ(std::string(out.text.get(), out.length + 1), c.expected + '\0');
    }
    for (size_t n = 0; n < 64; ++n) {
        std::string input, expected;
        for (size_t i = 0; i < n; ++i) input += static_cast<char>(0x80 + i);
        for (unsigned char c : input) expected += encoded(c);
        plat::OwnedText out = plat::widenToUtf8(input.data(), input.data() + input.size());
        EXPECT_EQ(std::string(out.text.get(), out.length + 1), expected + '\0') << n;
    }
}

TEST(CheckAndNormalizeUtf8, Table) {
    const struct {
        const char* name;
        const char* input;
        bool valid;
        const char* output;  // the text after the call, up to its (possibly new) NUL
    } cases[] = {
        {"empty", "", true, ""},
        {"shortest two three four", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", true,
         "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"U+10FFFF falls under the refusal", "\xF4\x8F\xBF\xBF", false, nullptr},
        {"just below the refusal", "\xED\x9F\xBF", true, "\xED\x9F\xBF"},
        {"private use survives", "\xEE\x80\x80", true, "\xEE\x80\x80"},
        {"surrogate", "\xED\xA0\x80", false, nullptr},
        {"replacement character", "\xEF\xBF\xBD", false, nullptr},
        {"U+1D800", "\xF0\x9D\xA0\x80", false, nullptr},
        {"out of range, refused before its range is checked", "\xF7\xBF\xBF\xBF", false, nullptr},
        {"stray continuation", "a\x80", false, nullptr},
        {"five-byte lead", "\xF8\x88\x80\x80\x80", false, nullptr},
        {"truncated at the end", "a\xC3", false, nullptr},
        {"over-long ascii", "a\xC1\x81z", true, "aAz"},
        {"over-long three and four bytes", "\xE0\x81\x81\xF0\x80\x81\x82", true, "AB"},
        {"over-long nul ends the string", "x\xC0\x80y", true, "x"},
        {"text after an over-long nul is still checked", "x\xC0\x80\xFF", false, nullptr},
        {"everything after the first over-long moves down",
         "\xC1\x81\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", true,
         "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"},
        {"high plane value after an over-long", "\xC1\x81\xF4\x8F\x9F\xBF", true,
         "A\xF4\x8F\x9F\xBF"},
        {"over-long refused value", "\xF0\x8F\xBF\xBD", false, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // A guard byte after the NUL catches writes past the end of the text.
        std::string buffer = std::string(c.input) + '\0' + '#';
        EXPECT_EQ(plat::checkAndNormalizeUtf8(&buffer[0]), c.valid);
        EXPECT_EQ(buffer[std::strlen(c.input) + 1], '#');
        if (c.output) {
            EXPECT_STREQ(buffer.c_str(), c.output);
        }
    }
    // Four-byte values beyond Unicode that pass the refusal meet the encoder's range check.
    for (const char* input : {"\xF4\x90\x80\x80", "a\xC1\x81\xF5\x80\x80\x80"}) {
        std::string buffer(input);
        EXPECT_EQ(zeltest::thrownText([&] { plat::checkAndNormalizeUtf8(&buffer[0]); }),
                  "Unicode out of range");
    }
}

}  // namespace
