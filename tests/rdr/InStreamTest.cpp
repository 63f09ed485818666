#include <gtest/gtest.h>

#include <string>

#include "rdr/Exceptions.h"
#include "rdr/InStream.h"
#include "rdr/ScriptedInStream.h"

namespace {

using rdrtest::ScriptedInStream;

TEST(InStream, IntegersAreBigEndian) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0xAB, 0x01, 0x02, 0x81, 0x82, 0x83, 0x84});
    EXPECT_EQ(in.readU8(), 0xABu);
    EXPECT_EQ(in.readU16(), 0x0102u);
    EXPECT_EQ(in.readU32(), 0x81828384u);
    EXPECT_EQ(in.pos(), 7u);
}

TEST(InStream, MissingByteRewindsToCheckpointAndBlocks) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{9, 9, 1, 2, 3});
    in.readU16();
    in.setCheckpoint();
    try {
        in.readU32();  // 3 of 4 bytes there, source dry
        FAIL() << "no exception";
    } catch (const rdr::BlockException& e) {
        EXPECT_STREQ(e.str(), "Reading from InStream would block");
    }
    EXPECT_EQ(in.pos(), 2u);
    in.add(std::vector<uint8_t>{4});
    EXPECT_EQ(in.readU32(), 0x01020304u);
}

}  // namespace
