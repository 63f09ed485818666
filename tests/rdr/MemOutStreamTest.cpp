#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rdr/Exceptions.h"
#include "rdr/MemOutStream.h"

namespace {

std::string contents(const rdr::MemOutStream& out, size_t length) {
    return std::string(reinterpret_cast<const char*>(out.data()), length);
}

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

struct GrowthCase {
    size_t capacity;
    size_t used;
    size_t itemSize;  // written through overrun(itemSize, 1), as the short writes do
    size_t expected;
};

class MemOutStreamGrowth : public ::testing::TestWithParam<GrowthCase> {};

TEST_P(MemOutStreamGrowth, NewCapacityIsUsedPlusNeededOrDouble) {
    const GrowthCase& c = GetParam();
    rdr::MemOutStream out(c.capacity);
    out.writeBytes(std::string(c.used, 'u').data(), c.used);
    ASSERT_EQ(out.capacity(), c.capacity);
    EXPECT_EQ(out.overrun(c.itemSize, 1), 1u);
    EXPECT_EQ(out.capacity(), c.expected);
    EXPECT_EQ(contents(out, c.used), std::string(c.used, 'u'));
    EXPECT_EQ(out.length(), c.used);
}

INSTANTIATE_TEST_SUITE_P(Table, MemOutStreamGrowth,
                         ::testing::Values(GrowthCase{4, 4, 1, 8}, GrowthCase{4, 4, 4, 8},
                                           GrowthCase{4, 4, 5, 9}, GrowthCase{4, 3, 2, 8},
                                           GrowthCase{4, 2, 20, 22}, GrowthCase{0, 0, 3, 3},
                                           GrowthCase{1024, 1024, 4, 2048}));

TEST(MemOutStream, LongWriteThroughAFullBufferGrowsForTheRest) {
    rdr::MemOutStream out(4);
    out.writeBytes("abc", 3);
    out.writeBytes("0123456789", 10);  // 1 byte fits, then room for the other 9
    EXPECT_EQ(out.capacity(), 13u);
    EXPECT_EQ(contents(out, out.length()), "abc0123456789");
}

TEST(MemOutStream, MaxSizeStopsTheItemThatWouldPassIt) {
    rdr::MemOutStream out(4, 6);
    out.writeU32(1);
    out.writeU16(2);
    EXPECT_EQ(out.capacity(), 6u);
    try {
        out.writeU8(3);
        FAIL() << "no exception";
    } catch (const rdr::OutStreamFull& e) {
        EXPECT_STREQ(e.str(), "OutStream full");
    }
    EXPECT_EQ(out.length(), 6u);
}

TEST(MemOutStream, WriteAcrossTheMaximumKeepsWhatFitsThenThrows) {
    rdr::MemOutStream out(2, 5);
    out.writeU8('a');
    EXPECT_THROW(out.writeBytes("bcdefg", 6), rdr::OutStreamFull);
    EXPECT_EQ(contents(out, out.length()), "abcde");
    // A four-byte item that does not fit whole is refused before any of it is written.
    rdr::MemOutStream other(2, 5);
    other.writeU16(0x6162);
    EXPECT_THROW(other.writeU32(0), rdr::OutStreamFull);
    EXPECT_EQ(other.length(), 2u);
}

TEST(MemOutStream, GrowthClampedByTheMaximumReportsOnlyTheItemsThatFit) {
    rdr::MemOutStream out(2, 7);
    out.writeU16(0);
    EXPECT_EQ(out.overrun(2, 10), 2u);
    EXPECT_EQ(out.capacity(), 7u);
}

}  // namespace
