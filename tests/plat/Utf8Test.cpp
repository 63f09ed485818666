#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "plat/Exception.h"
#include "plat/Utf8.h"

namespace {

std::string encoded(int32_t codePoint) {
    char buffer[8];
    std::memset(buffer, 0x55, sizeof buffer);
    char* end = plat::encodeUtf8(codePoint, buffer);
    EXPECT_EQ(static_cast<unsigned char>(*end), 0x55u) << "wrote past its result";
    return std::string(buffer, end);
}

TEST(EncodeUtf8, EachLengthAtItsBoundaries) {
    struct Case {
        int32_t codePoint;
        const char* bytes;
    };
    const Case cases[] = {
        {0x41, "\x41"},
        {0x7F, "\x7F"},
        {0x80, "\xC2\x80"},
        {0xE9, "\xC3\xA9"},
        {0x7FF, "\xDF\xBF"},
        {0x800, "\xE0\xA0\x80"},
        {0xD800, "\xED\xA0\x80"},  // surrogates are not refused here
        {0xFFFD, "\xEF\xBF\xBD"},
        {0xFFFF, "\xEF\xBF\xBF"},
        {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"},
    };
    EXPECT_EQ(encoded(0), std::string(1, '\0'));
    for (const Case& c : cases) EXPECT_EQ(encoded(c.codePoint), c.bytes) << std::hex << c.codePoint;
}

TEST(EncodeUtf8, NegativeValuesTakeTheOneByteBranch) {
    EXPECT_EQ(encoded(-1), "\xFF");
    EXPECT_EQ(encoded(-128), "\x80");
}

TEST(EncodeUtf8, OutOfRangeThrowsAndWritesNothing) {
    for (int32_t codePoint : {0x110000, 0x7FFFFFFF}) {
        char buffer[4] = {'a', 'b', 'c', 'd'};
        try {
            plat::encodeUtf8(codePoint, buffer);
            ADD_FAILURE() << "no exception for " << codePoint;
        } catch (const plat::Exception& e) {
            EXPECT_STREQ(e.str(), "Unicode out of range");
        }
        EXPECT_EQ(std::string(buffer, 4), "abcd");
    }
}

}  // namespace
