#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "plat/Logger.h"
#include "rdr/Exceptions.h"
#include "rdr/InStream.h"
#include "rdr/ScriptedInStream.h"

namespace {

using rdrtest::ScriptedInStream;

// Prints assertion lines to stderr so that death tests can match them.
struct StderrLogger : plat::Logger {
    void log(int, const char* facility, const char* format, va_list args) override {
        std::fprintf(stderr, "%s: ", facility);
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    }
};

TEST(InStream, IntegersAreBigEndianAcrossChunkBoundaries) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0xAB, 0x01});
    in.add(std::vector<uint8_t>{0x02, 0x81, 0x82});
    in.add(std::vector<uint8_t>{0x83, 0x84});
    EXPECT_EQ(in.readU8(), 0xABu);
    EXPECT_EQ(in.readU16(), 0x0102u);
    EXPECT_EQ(in.readU32(), 0x81828384u);
    EXPECT_EQ(in.pos(), 7u);
}

TEST(InStream, MissingByteRewindsToCheckpointAndBlocks) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{9, 9, 1, 2, 3});
    in.readU16();
    EXPECT_EQ(in.setCheckpoint(), 2u);
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

TEST(InStream, MessageCutAfterSeveralReadsRestartsFromItsFirstByte) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0, 0, 0, 5, 'a', 'b'});
    in.setCheckpoint();
    uint8_t scratch[5];
    EXPECT_EQ(in.readU32(), 5u);
    EXPECT_THROW(in.getBytes(scratch, 5), rdr::BlockException);
    EXPECT_EQ(in.pos(), 0u);
    in.add("cde");
    ASSERT_EQ(in.readU32(), 5u);
    const uint8_t* p = in.getBytes(scratch, 5);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 5), "abcde");
}

TEST(InStream, OverrunWithoutWaitRewindsAndReturnsZero) {
    ScriptedInStream in;
    in.add("xyz");
    in.setCheckpoint();
    in.readU16();
    EXPECT_EQ(in.overrun(false, 4), 0);
    EXPECT_EQ(in.pos(), 0u);
}

TEST(InStream, ContiguousBytesComeFromTheBufferWithoutCopy) {
    ScriptedInStream in(16);
    in.add("abcdefgh");
    uint8_t scratch[4];
    in.readU8();
    const uint8_t* p = in.getBytes(scratch, 4);
    EXPECT_EQ(p, in.bufferStart() + 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 4), "bcde");
}

TEST(InStream, NonRewindableStreamCopiesAcrossRefillsIntoScratch) {
    // The item is longer than the buffer: it can only come out piecewise, with each refill
    // dropping what was already copied.
    ScriptedInStream in(4);
    in.setRewindable(false);
    in.add("AB");
    in.add("CDEF");
    in.add("GHIJ");
    char scratch[10];
    const uint8_t* p = in.getBytes(scratch, 10);
    EXPECT_EQ(p, reinterpret_cast<const uint8_t*>(scratch));
    EXPECT_EQ(std::string(scratch, 10), "ABCDEFGHIJ");
    EXPECT_EQ(in.pos(), 10u);
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
    try {
        in.rewind();
        FAIL() << "no exception";
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "Attempt to rewind a non-rewindable stream");
    }
}

TEST(InStream, RepositionBeforeCheckpointThrows) {
    ScriptedInStream in;
    in.add("0123456789");
    in.skip(4);
    in.setCheckpoint();
    try {
        in.reposition(3);
        FAIL() << "no exception";
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "Can't reposition before checkpoint");
    }
    EXPECT_EQ(in.pos(), 4u);
}

TEST(InStream, RepositionToCheckpointOnlyRewinds) {
    ScriptedInStream in;
    in.add("0123456789");
    in.skip(4);
    in.setCheckpoint();
    in.skip(3);
    int calls = in.readCalls;
    in.reposition(4);
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_EQ(in.readCalls, calls);
    EXPECT_EQ(in.readU8(), '4');
}

TEST(InStream, RepositionForwardRefillsOrBlocksAtTheCheckpoint) {
    ScriptedInStream in(8);
    in.add("01234");
    in.skip(2);
    in.setCheckpoint();
    EXPECT_THROW(in.reposition(7), rdr::BlockException);
    EXPECT_EQ(in.pos(), 2u);
    in.add("5678");
    in.reposition(7);
    EXPECT_EQ(in.readU8(), '7');
}

struct StringCase {
    const char* name;
    uint32_t declared;
    uint32_t maxLength;
    bool accepted;
};

class ReadString : public ::testing::TestWithParam<StringCase> {};

TEST_P(ReadString, LengthAgainstMaximum) {
    const StringCase& c = GetParam();
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0, 0, 0, static_cast<uint8_t>(c.declared)});
    in.add(std::string(c.declared, 'x') + "!");
    if (c.accepted) {
        std::unique_ptr<char[]> s(in.readString(c.maxLength));
        EXPECT_EQ(std::string(s.get()), std::string(c.declared, 'x'));
        EXPECT_EQ(in.readU8(), '!');
    } else {
        try {
            delete[] in.readString(c.maxLength);
            FAIL() << "no exception";
        } catch (const rdr::StringTooLongException& e) {
            EXPECT_STREQ(e.str(), "String exceeds maximum length");
        }
        // Only the count was consumed; the one refill was for the count, none went after
        // the string's bytes.
        EXPECT_EQ(in.pos(), 4u);
        EXPECT_EQ(in.readCalls, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Boundaries, ReadString,
                         ::testing::Values(StringCase{"AtMaximum", 5, 5, true},
                                           StringCase{"OneAboveMaximum", 6, 5, false},
                                           StringCase{"Empty", 0, 0, true},
                                           StringCase{"OneAboveZero", 1, 0, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(InStream, ReadStringCutShortRewindsAndDoesNotLeak) {
    ScriptedInStream in;
    in.add(std::vector<uint8_t>{0, 0, 0, 4, 'a', 'b'});
    in.setCheckpoint();
    EXPECT_THROW(delete[] in.readString(10), rdr::BlockException);
    EXPECT_EQ(in.pos(), 0u);
    in.add("cd");
    std::unique_ptr<char[]> s(in.readString(10));
    EXPECT_STREQ(s.get(), "abcd");
}

TEST(InStream, GetItemsReturnsWholeItemsUpToTheRequest) {
    ScriptedInStream in(16);
    in.add("aabbccd");
    uint8_t scratch[2];
    size_t n = 5;
    const uint8_t* p = in.getItems(scratch, 2, &n);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 6), "aabbcc");
    in.add("d");
    n = 1;
    p = in.getItems(scratch, 2, &n);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 2), "dd");
}

TEST(InStream, GetItemsNoWaitReturnsNullWhereGetItemsBlocks) {
    ScriptedInStream in;
    in.add("abc");
    in.setCheckpoint();
    uint8_t scratch[4];
    size_t n = 2;
    EXPECT_EQ(in.getItemsNoWait(scratch, 4, &n), nullptr);
    EXPECT_EQ(in.pos(), 0u);
    EXPECT_THROW(in.getItems(scratch, 4, &n), rdr::BlockException);
    EXPECT_EQ(in.pos(), 0u);
    in.add("d");
    EXPECT_NE(in.getItemsNoWait(scratch, 4, &n), nullptr);
    EXPECT_EQ(n, 1u);
}

TEST(InStream, GetItemsCopiesOneSplitItemIntoScratch) {
    ScriptedInStream in(4);
    in.setRewindable(false);
    in.add("xyz");
    in.add("ABCDEFG");
    in.skip(3);
    // 4 bytes at the buffer's start are there, but the item is 6 bytes long.
    char scratch[6];
    size_t n = 3;
    const uint8_t* p = in.getItems(scratch, 6, &n);
    EXPECT_EQ(p, reinterpret_cast<const uint8_t*>(scratch));
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(std::string(scratch, 6), "ABCDEF");
}

using InStreamDeathTest = ::testing::Test;

TEST_F(InStreamDeathTest, SetPtrOutsideTheBufferAborts) {
    ScriptedInStream in;
    in.add("abcd");
    in.readU8();
    in.setPtr(in.end());
    EXPECT_EQ(in.pos(), 4u);
    EXPECT_DEATH(
        {
            StderrLogger logger;
            plat::ScopedCurrentLogger scope(&logger);
            in.setPtr(in.ptr() - 1);
        },
        "Assertion 'p >= ptr && p <= end' failed at libs/rdr/InStream:53");
}

TEST_F(InStreamDeathTest, GetItemsOfZeroItemsAborts) {
    ScriptedInStream in;
    in.add("abcd");
    uint8_t scratch[1];
    size_t n = 0;
    EXPECT_DEATH(
        {
            StderrLogger logger;
            plat::ScopedCurrentLogger scope(&logger);
            in.getItems(scratch, 1, &n);
        },
        "Assertion '\\*nItems > 0' failed at libs/rdr/InStream:71");
    EXPECT_DEATH(
        {
            StderrLogger logger;
            plat::ScopedCurrentLogger scope(&logger);
            in.getItemsNoWait(scratch, 1, &n);
        },
        "Assertion '\\*nItems > 0' failed at libs/rdr/InStream:89");
}

}  // namespace
