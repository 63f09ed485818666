#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "plat/ThrownText.h"
#include "rdr/Exceptions.h"
#include "rdr/InStream.h"
#include "rdr/MemInStream.h"
#include "rdr/ScriptedInStream.h"

namespace {

using rdrtest::ScriptedInStream;
using zeltest::thrownText;

std::string take(rdr::InStream& in, size_t n) {
    std::vector<uint8_t> scratch(n);
    return std::string(reinterpret_cast<const char*>(in.getBytes(scratch.data(), n)), n);
}

// A message cut anywhere, even after several reads, rewinds to its first byte and is read
// again whole once the rest arrives. Integers are big-endian, also across chunks.
TEST(InStream, PartialReadRewindsToTheCheckpointAndBlocks) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{9, 9, 1, 2, 3});
    in.readU16();
    EXPECT_EQ(in.setCheckpoint(), 2u);
    EXPECT_EQ(thrownText<rdr::BlockException>([&] { in.readU32(); }),
              "Reading from InStream would block");
    EXPECT_EQ(in.pos(), 2u);
    in.add(std::vector<uint8_t>{4, 0, 0, 0, 5, 'a', 'b'});
    EXPECT_EQ(in.readU32(), 0x01020304u);

    in.setCheckpoint();
    EXPECT_EQ(in.readU32(), 5u);
    EXPECT_THROW(take(in, 5), rdr::BlockException);
    EXPECT_EQ(in.pos(), 6u);
    in.readU32();
    EXPECT_EQ(in.overrun(false, 4), 0);  // without wait: rewound, nothing thrown
    EXPECT_EQ(in.pos(), 6u);
    in.add("cde");
    ASSERT_EQ(in.readU32(), 5u);
    EXPECT_EQ(take(in, 5), "abcde");
}

TEST(InStream, NonRewindableStreamMovesItsCheckpointAtEachRefill) {
    ScriptedInStream in(8);
    in.setRewindable(false);
    in.add("ABCD");
    EXPECT_EQ(in.readU8(), 'A');
    EXPECT_THROW(in.readU32(), rdr::BlockException);
    // The byte read before the refill is gone; the three unread ones stay unread.
    EXPECT_EQ(in.bufferOffset(), 1u);
    EXPECT_EQ(in.pos(), 1u);
    in.add("E");
    EXPECT_EQ(in.readU32(), 0x42434445u);
    EXPECT_EQ(thrownText([&] { in.rewind(); }), "Attempt to rewind a non-rewindable stream");

    // An item longer than the buffer can only come out piecewise, each refill dropping what
    // was already copied into scratch.
    ScriptedInStream small(4);
    small.setRewindable(false);
    small.add("AB");
    small.add("CDEF");
    small.add("GHIJ");
    char scratch[10];
    EXPECT_EQ(small.getBytes(scratch, 10), reinterpret_cast<const uint8_t*>(scratch));
    EXPECT_EQ(std::string(scratch, 10), "ABCDEFGHIJ");
    EXPECT_EQ(small.pos(), 10u);
}

TEST(InStream, RepositionGoesNoFurtherBackThanTheCheckpoint) {
    ScriptedInStream in(8);
    in.add("01234");
    in.skip(2);
    in.setCheckpoint();
    in.skip(2);
    EXPECT_EQ(thrownText([&] { in.reposition(1); }), "Can't reposition before checkpoint");
    EXPECT_EQ(in.pos(), 4u);
    int calls = in.readCalls;
    in.reposition(2);  // the checkpoint itself: only a rewind
    EXPECT_EQ(in.readCalls, calls);
    EXPECT_EQ(in.readU8(), '2');
    EXPECT_THROW(in.reposition(7), rdr::BlockException);  // ahead of what has arrived
    EXPECT_EQ(in.pos(), 2u);
    in.add("5678");
    in.reposition(7);
    EXPECT_EQ(in.readU8(), '7');
}

TEST(InStream, ReadStringChecksTheLengthBeforeReadingTheBytes) {
    const struct {
        uint32_t declared, maxLength;
        bool accepted;
    } cases[] = {{5, 5, true}, {6, 5, false}, {0, 0, true}, {1, 0, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.declared);
        ScriptedInStream in;
        in.add(std::vector<uint8_t>{0, 0, 0, static_cast<uint8_t>(c.declared)});
        in.add(std::string(c.declared, 'x') + "!");
        if (c.accepted) {
            std::unique_ptr<char[]> s(in.readString(c.maxLength));
            EXPECT_EQ(std::string(s.get()), std::string(c.declared, 'x'));
            EXPECT_EQ(in.readU8(), '!');
            continue;
        }
        EXPECT_EQ(
            thrownText<rdr::StringTooLongException>([&] { delete[] in.readString(c.maxLength); }),
            "String exceeds maximum length");
        // Only the count was consumed, and no refill went after the string's bytes.
        EXPECT_EQ(in.pos(), 4u);
        EXPECT_EQ(in.readCalls, 1);
    }
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0, 0, 0, 4, 'a', 'b'});
    in.setCheckpoint();
    EXPECT_THROW(delete[] in.readString(10), rdr::BlockException);  // cut short: no leak
    EXPECT_EQ(in.pos(), 0u);
    in.add("cd");
    std::unique_ptr<char[]> s(in.readString(10));
    EXPECT_STREQ(s.get(), "abcd");
}

TEST(InStream, GetItemsReturnsWholeItemsUpToTheRequestOrOneInScratch) {
    ScriptedInStream in(16);
    in.add("aabbccd");
    uint8_t scratch[6];
    size_t n = 5;
    const uint8_t* p = in.getItems(scratch, 2, &n);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 6), "aabbcc");
    in.setCheckpoint();
    n = 2;
    EXPECT_EQ(in.getItemsNoWait(scratch, 4, &n), nullptr);  // where getItems blocks
    EXPECT_EQ(in.pos(), 6u);
    EXPECT_THROW(in.getItems(scratch, 4, &n), rdr::BlockException);
    EXPECT_EQ(in.pos(), 6u);
    in.add("ddd");
    n = 1;
    ASSERT_NE(in.getItemsNoWait(scratch, 2, &n), nullptr);
    EXPECT_EQ(n, 1u);  // two are there, one was asked for

    ScriptedInStream split(4);
    split.setRewindable(false);
    split.add("xyz");
    split.add("ABCDEFG");
    split.skip(3);
    n = 3;  // 4 bytes at the buffer's start are there, but the item is 6 bytes long
    EXPECT_EQ(split.getItems(scratch, 6, &n), scratch);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(scratch), 6), "ABCDEF");
}

TEST(BufferedInStream, RefillKeepsBytesAfterTheCheckpointSoRewindStillWorks) {
    ScriptedInStream in(8);
    in.add("ABCDEFGH");
    EXPECT_EQ(take(in, 5), "ABCDE");
    in.setCheckpoint();
    EXPECT_EQ(take(in, 2), "FG");
    in.add("IJKL");
    // One byte left: the refill drops "ABCDE", keeps "FGH" at the buffer's start and reads
    // into the room that frees.
    EXPECT_EQ(take(in, 2), "HI");
    EXPECT_EQ(in.bufferOffset(), 5u);
    EXPECT_EQ(in.offered.back(), 5u);
    EXPECT_EQ(in.pos(), 9u);
    in.rewind();
    EXPECT_EQ(in.pos(), 5u);
    EXPECT_EQ(take(in, 7), "FGHIJKL");

    ScriptedInStream many(6);  // positions keep counting over many refills
    for (int i = 0; i < 50; ++i) many.add(std::vector<uint8_t>{0, 0, 0, static_cast<uint8_t>(i)});
    for (uint32_t i = 0; i < 50; ++i) {
        EXPECT_EQ(many.setCheckpoint(), 4 * i);
        EXPECT_EQ(many.readU32(), i);
    }
}

TEST(BufferedInStream, MessageLongerThanTheBufferFromItsCheckpointIsAnOverrun) {
    ScriptedInStream in(4);
    in.add("abcdef");
    in.setCheckpoint();
    EXPECT_EQ(thrownText([&] { take(in, 6); }), "InStream overrun: buffer size exceeded");
}

// An empty answer in the middle of a script blocks once; a source may also signal "would
// block" itself, as a non-blocking socket does. Other failures pass through.
TEST(BufferedInStream, NoDataBlocksOnceAndOtherFailuresPassThrough) {
    ScriptedInStream in(8);
    in.add("ab");
    in.addNothing();
    in.add("cd");
    in.setCheckpoint();
    EXPECT_THROW(in.readU32(), rdr::BlockException);
    EXPECT_EQ(in.pos(), 0u);
    EXPECT_EQ(in.readU32(), 0x61626364u);
    in.add("x");
    in.onDry = [] { throw rdr::BlockException(); };
    in.setCheckpoint();
    EXPECT_EQ(in.overrun(false, 2), 0);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_EQ(in.available(), 1u);
    in.onDry = [] { throw plat::Exception("connection reset"); };
    EXPECT_EQ(thrownText([&] { in.readU16(); }), "connection reset");
}

TEST(MemInStream, RunningOutIsEndOfStreamNotBlock) {
    const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    rdr::MemInStream in(data, sizeof data);
    EXPECT_EQ(in.readU32(), 0x12345678u);
    EXPECT_THROW(in.readU32(), rdr::EndOfStream);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_EQ(in.readU16(), 0x9ABCu);
    // An owned block is freed with the stream: leak checkers (ASan) fail the run otherwise.
    rdr::MemInStream owner(new uint8_t[3]{'a', 'b', 'c'}, 3, true);
    EXPECT_EQ(owner.readU8(), 'a');
}

}  // namespace
