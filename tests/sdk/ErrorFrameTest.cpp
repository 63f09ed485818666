// The frame around every entry: whatever the body throws becomes a code and at most one
// error line, and nothing escapes to the application, not even from a throwing logger.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "plat/RecordingLogger.h"
#include "sdk/ErrorFrame.h"

namespace {

TEST(ErrorFrame, MapsEachKindToItsCodeAndLineEvenWhenTheLoggerThrows) {
    const struct {
        std::function<ZELCDBError()> body;
        ZELCDBError result;
        std::vector<std::string> lines;
    } cases[] = {
        {[] { return ZELCDBErrorNotFound; }, ZELCDBErrorNotFound, {}},
        {[]() -> ZELCDBError { throw zelcdbsdk::ErrorException(static_cast<ZELCDBError>(99)); },
         static_cast<ZELCDBError>(99),
         {"Operation failed with CDB SDK error 99 (Unknown)"}},
        {[]() -> ZELCDBError { throw plat::ExceptionFmt("bind %d", 7); },
         ZELCDBErrorFailed,
         {"Caught exception: bind 7"}},
        {[]() -> ZELCDBError { throw std::bad_array_new_length(); },
         ZELCDBErrorOutOfMemory,
         {"Caught std::exception: std::bad_array_new_length"}},
        {[]() -> ZELCDBError { throw std::out_of_range("index 9"); },
         ZELCDBErrorFailed,
         {"Caught std::exception: index 9"}},
        {[]() -> ZELCDBError { throw 42; }, ZELCDBErrorFailed, {}},
    };
    for (const auto& c : cases) {
        zeltest::RecordingLogger logger;
        EXPECT_EQ(zelcdbsdk::runGuarded(plat::LoggerRef{"CDBEndpoint", &logger}, c.body), c.result);
        std::vector<std::string> lines;
        for (const auto& line : logger.lines) lines.push_back(line.text);
        EXPECT_EQ(lines, c.lines);
        zeltest::ThrowingLogger throwing([] { throw std::runtime_error("log callback failed"); });
        EXPECT_EQ(zelcdbsdk::runGuarded(plat::LoggerRef{"CDBEndpoint", &throwing}, c.body),
                  c.result);
    }
}

}  // namespace
