#include <gtest/gtest.h>

#include <algorithm>

#include "CDBTestSupport.h"

namespace {

TEST(CDBWriter, EachMessageByteForByteWithItsDebugLine) {
    for (const cdbtest::Sample& sample : cdbtest::samples()) {
        SCOPED_TRACE(sample.line);
        std::string expected = sample.hex;
        expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
        cdbtest::RecordingLogger logger;
        rdr::MemOutStream out(4);  // small, so that every field may cross a regrowth
        zelcdbsdk::CDBWriter writer(out, &logger);
        sample.write(writer);
        EXPECT_EQ(cdbtest::hex(cdbtest::Bytes(out.data(), out.data() + out.length())), expected);
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_EQ(logger.lines[0].level, plat::kLogDebug);
        EXPECT_EQ(logger.lines[0].facility, "CDBWriter");
        EXPECT_EQ(logger.lines[0].text, "Sending " + sample.line);
    }
}

}  // namespace
