#include <gtest/gtest.h>

#include <string>

#include "plat/ThrownText.h"
#include "plat/Uuid.h"

namespace {

TEST(Uuid, ParsesEitherCaseAndSkipsDashesAnywhere) {
    for (const char* text :
         {"0123456789abcdef-0123456789ABCDEF", "01234567-89ab-cdef-0123-456789abcdef",
          "0123456789ABCDEF0123456789abcdef", "-0-123456789abcdef0123456789abcdef--"}) {
        std::string hex;
        for (uint8_t b : plat::Uuid::parse(text).bytes) {
            hex += "0123456789abcdef"[b >> 4];
            hex += "0123456789abcdef"[b & 0xF];
        }
        EXPECT_EQ(hex, "0123456789abcdef0123456789abcdef") << text;
    }
}

TEST(Uuid, RefusesWithTheWholeTextCutAt255) {
    const std::string junk(300, 'x');
    const char* const bad[] = {
        "0123-4567",                           // too short
        "0123456789abcdef0123456789abcde",     // 31 digits: odd at the end
        "0123456789abcdef0123456789abcdef0",   // a 33rd digit
        "0123456789abcdef0123456789abcdeg",    // 32 characters, one not a digit
        "{0123456789abcdef0123456789abcdef}",  // braces are not skipped
        "0123456789abcdef 0123456789abcdef",   // nor spaces
        junk.c_str(),
    };
    for (const char* text : bad) {
        EXPECT_EQ(zeltest::thrownText([&] { plat::Uuid::parse(text); }),
                  ("Invalid UUID '" + std::string(text) + "'").substr(0, 255));
    }
    EXPECT_EQ(zeltest::thrownText([] { plat::Uuid::parse(nullptr); }), "Invalid UUID ''");
}

}  // namespace
