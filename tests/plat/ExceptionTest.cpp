#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "plat/Exception.h"

namespace {

const std::string kLong(300, 'x');

TEST(SystemException, TextThenStrerrorThenNumber) {
    plat::SystemException bare("", 2);
    EXPECT_EQ(std::string(bare.str()), std::string(std::strerror(2)) + " (2)");
    EXPECT_EQ(bare.err(), 2);

    plat::SystemException nullText(nullptr, 2);
    EXPECT_STREQ(nullText.str(), bare.str());

    plat::SystemException withText("connect", 111);
    EXPECT_EQ(std::string(withText.str()),
              "connect: " + std::string(std::strerror(111)) + " (111)");

    plat::SystemExceptionFmt formatted(13, "open %s at %d", "/dev/x", 7);
    EXPECT_EQ(std::string(formatted.str()),
              "open /dev/x at 7: " + std::string(std::strerror(13)) + " (13)");
    EXPECT_EQ(formatted.err(), 13);
    // The formatted kind is still caught as a system exception.
    try {
        throw plat::SystemExceptionFmt(2, "%s", "x");
    } catch (const plat::SystemException& e) {
        EXPECT_EQ(e.err(), 2);
    }
}

TEST(Exception, EveryKindCutsAt255Characters) {
    const std::string cut = kLong.substr(0, 255);
    EXPECT_EQ(std::string(plat::Exception(kLong.c_str()).str()), cut);
    EXPECT_EQ(std::string(plat::ExceptionFmt("%s", kLong.c_str()).str()), cut);
    // A long text leaves no room for the error description: the tail is what goes.
    EXPECT_EQ(std::string(plat::SystemException(kLong.c_str(), 2).str()), cut);
    EXPECT_EQ(std::string(plat::SystemExceptionFmt(2, "%s", kLong.c_str()).str()), cut);
    const std::string assertion =
        plat::AssertionFail(kLong.c_str(), "libs/plat/Exception", 1).str();
    EXPECT_EQ(assertion, ("Assertion '" + kLong).substr(0, 255));
    // Exactly 255 fits whole.
    const std::string fits(255, 'y');
    EXPECT_EQ(std::string(plat::Exception(fits.c_str()).str()), fits);
}

TEST(Exception, EmptyAndNullText) {
    EXPECT_STREQ(plat::Exception().str(), "");
    EXPECT_STREQ(plat::Exception(nullptr).str(), "");
}

TEST(AssertionFail, TextAndParts) {
    plat::AssertionFail failure("due >= now", "libs/plat/TimerManager", 88);
    EXPECT_STREQ(failure.str(), "Assertion 'due >= now' failed at libs/plat/TimerManager:88");
    EXPECT_STREQ(failure.expression(), "due >= now");
    EXPECT_STREQ(failure.file(), "libs/plat/TimerManager");
    EXPECT_EQ(failure.line(), 88);
}

}  // namespace
