#include <gtest/gtest.h>

#include <vector>

#include "rdr/Exceptions.h"
#include "rdr/MemOutStream.h"

namespace {

TEST(MemOutStream, WritesBigEndianAndKeepsBytesAcrossGrowth) {
    rdr::MemOutStream out(2);
    out.writeU8(0xAB);
    out.writeU16(0x0102);
    out.writeU32(0x81828384);
    const uint8_t expected[] = {0xAB, 0x01, 0x02, 0x81, 0x82, 0x83, 0x84};
    ASSERT_EQ(out.length(), sizeof expected);
    EXPECT_EQ(std::vector<uint8_t>(out.data(), out.data() + out.length()),
              std::vector<uint8_t>(expected, expected + sizeof expected));
}

TEST(MemOutStream, MaxSizeStopsTheItemThatWouldPassIt) {
    rdr::MemOutStream out(4, 6);
    out.writeU32(1);
    out.writeU16(2);
    try {
        out.writeU8(3);
        FAIL() << "no exception";
    } catch (const rdr::OutStreamFull& e) {
        EXPECT_STREQ(e.str(), "OutStream full");
    }
    EXPECT_EQ(out.length(), 6u);
}

}  // namespace
