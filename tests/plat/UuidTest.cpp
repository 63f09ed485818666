#include <gtest/gtest.h>

#include <string>

#include "plat/Exception.h"
#include "plat/Uuid.h"

namespace {

std::string hex(const plat::Uuid& uuid) {
    std::string out;
    for (uint8_t b : uuid.bytes) {
        out += "0123456789abcdef"[b >> 4];
        out += "0123456789abcdef"[b & 0xF];
    }
    return out;
}

TEST(Uuid, ParsesEitherCaseAndSkipsDashesAnywhere) {
    const char* const forms[] = {
        "0123456789abcdef-0123456789ABCDEF",
        "01234567-89ab-cdef-0123-456789abcdef",
        "0123456789ABCDEF0123456789abcdef",
        "-0-123456789abcdef0123456789abcdef--",
    };
    for (const char* text : forms) {
        EXPECT_EQ(hex(plat::Uuid::parse(text)), "0123456789abcdef0123456789abcdef") << text;
    }
}

TEST(Uuid, RefusesWithTheWholeText) {
    const char* const bad[] = {
        "0123-4567",                           // too short
        "",                                    // no digits at all
        "0123456789abcdef0123456789abcde",     // 31 digits: odd at the end
        "0123456789abcdef0123456789abcdef0",   // a 33rd digit
        "0123456789abcdef0123456789abcdeg",    // not a digit
        "{0123456789abcdef0123456789abcdef}",  // braces are not skipped
        "0123456789abcdef 0123456789abcdef",   // nor spaces
    };
    for (const char* text : bad) {
        try {
            plat::Uuid::parse(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const plat::Exception& e) {
            EXPECT_EQ(std::string(e.str()), std::string("Invalid UUID '") + text + "'");
        }
    }
}

TEST(Uuid, NullCountsAsEmptyAndLongTextIsCut) {
    try {
        plat::Uuid::parse(nullptr);
        ADD_FAILURE();
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "Invalid UUID ''");
    }
    std::string junk(300, 'x');
    try {
        plat::Uuid::parse(junk.c_str());
        ADD_FAILURE();
    } catch (const plat::Exception& e) {
        EXPECT_EQ(std::string(e.str()), ("Invalid UUID '" + junk).substr(0, 255));
    }
}

}  // namespace
