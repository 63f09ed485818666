#include <gtest/gtest.h>

#include "rdr/Exceptions.h"
#include "rdr/MemInStream.h"

namespace {

TEST(MemInStream, EmptyBlockThrowsEndOfStreamOnFirstRead) {
    rdr::MemInStream in(nullptr, 0);
    try {
        in.readU8();
        FAIL() << "no exception";
    } catch (const rdr::EndOfStream& e) {
        EXPECT_STREQ(e.str(), "End of stream");
    }
}

TEST(MemInStream, TruncatedIntegerIsEndOfStreamNotBlock) {
    const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    rdr::MemInStream in(data, sizeof data);
    EXPECT_EQ(in.readU32(), 0x12345678u);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_THROW(in.readU32(), rdr::EndOfStream);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_EQ(in.readU16(), 0x9ABCu);
    in.setCheckpoint();
    in.readU8();
    in.reposition(6);
    EXPECT_EQ(in.readU8(), 0xDEu);
}

TEST(MemInStream, OwnedBlockIsFreedWithTheStream) {
    uint8_t* block = new uint8_t[3]{'a', 'b', 'c'};
    rdr::MemInStream in(block, 3, true);
    EXPECT_EQ(in.readU8(), 'a');
    // Leak checkers (ASan) fail the run when the destructor forgets the block.
}

}  // namespace
