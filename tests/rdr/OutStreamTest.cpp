#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>

#include "plat/ThrownText.h"
#include "rdr/Exceptions.h"
#include "rdr/FullyBufferedOutStream.h"
#include "rdr/MemOutStream.h"
#include "rdr/OutStream.h"

namespace {

using zeltest::thrownText;

std::string contents(rdr::MemOutStream& out) {
    return std::string(reinterpret_cast<const char*>(out.data()), out.length());
}

// Growth is to used plus needed or double, whichever is more, clamped by the maximum, in
// which case only the items that fit count; the bytes written so far survive it.
TEST(MemOutStream, WritesBigEndianAndGrowsKeepingItsBytes) {
    rdr::MemOutStream out(7);  // an item that fits exactly grows nothing
    out.writeU8(0xAB);
    out.writeU16(0x0102);
    out.writeU32(0x81828384);
    EXPECT_EQ(contents(out), "\xAB\x01\x02\x81\x82\x83\x84");
    EXPECT_EQ(out.capacity(), 7u);
    rdr::MemOutStream two(2);
    two.writeU16(0x0102);
    EXPECT_EQ(two.capacity(), 2u);
    const struct {
        size_t capacity, maxSize, used, itemSize, nItems, fit, expected;
    } cases[] = {{4, 0, 4, 1, 1, 1, 8}, {4, 0, 2, 20, 1, 1, 22}, {2, 7, 2, 2, 10, 2, 7}};
    for (const auto& c : cases) {
        rdr::MemOutStream grown(c.capacity, c.maxSize);
        grown.writeBytes(std::string(c.used, 'u').data(), c.used);
        EXPECT_EQ(grown.overrun(c.itemSize, c.nItems), c.fit);
        EXPECT_EQ(grown.capacity(), c.expected);
        EXPECT_EQ(contents(grown), std::string(c.used, 'u'));
    }
}

TEST(MemOutStream, TheMaximumStopsTheItemThatWouldPassIt) {
    rdr::MemOutStream out(4, 6);
    out.writeU32(1);
    out.writeU16(2);
    EXPECT_EQ(out.capacity(), 6u);
    EXPECT_EQ(thrownText<rdr::OutStreamFull>([&] { out.writeU8(3); }), "OutStream full");
    EXPECT_EQ(out.length(), 6u);
    // A byte string keeps what fits; a four-byte item that does not fit whole writes nothing.
    rdr::MemOutStream bytes(2, 5), item(2, 5);
    bytes.writeU8('a');
    EXPECT_THROW(bytes.writeBytes("bcdefg", 6), rdr::OutStreamFull);
    EXPECT_EQ(contents(bytes), "abcde");
    item.writeU16(0x6162);
    EXPECT_THROW(item.writeU32(0), rdr::OutStreamFull);
    EXPECT_EQ(item.length(), 2u);
}

// A sink that takes as many bytes per call as the script says (an empty script takes all)
// and records everything it was handed.
struct RecordingStream : rdr::FullyBufferedOutStream {
    using rdr::FullyBufferedOutStream::FullyBufferedOutStream;
    std::deque<size_t> accept;
    std::string received;
    bool fail = false;

    size_t writeData(const void* data, size_t length) override {
        if (fail) throw plat::Exception("broken pipe");
        size_t n = length;
        if (!accept.empty()) {
            n = std::min(length, accept.front());
            accept.pop_front();
        }
        received.append(static_cast<const char*>(data), n);
        return n;
    }
};

TEST(FullyBufferedOutStream, GrowsForAllItemsElseForOneElseThrows) {
    RecordingStream out(4, 10);
    out.writeU32(0);
    EXPECT_EQ(out.overrun(2, 2), 2u);  // 4 + 4 fits by doubling to 8
    EXPECT_EQ(out.capacity(), 8u);
    out.writeU32(0);
    EXPECT_EQ(out.overrun(2, 3), 1u);  // 8 + 6 passes 10; 8 + 2 fits
    EXPECT_EQ(out.capacity(), 10u);
    out.writeU16(0);
    EXPECT_EQ(thrownText([&] { out.overrun(1, 1); }), "Maximum buffer size 10 reached");
}

// The 16/10/1 sequence: after a partial flush the bytes the sink took are reclaimed as room,
// and neither that nor growth may hand them over again. A failing sink keeps the rest.
TEST(FullyBufferedOutStream, BytesTheSinkTookAreNeverHandedOverAgain) {
    RecordingStream out(16);
    const std::string first = "abcdefghijklmnop";
    out.writeBytes(first.data(), first.size());
    out.accept = {10, 0};
    out.flushBuffer();
    EXPECT_EQ(out.received, first.substr(0, 10));
    EXPECT_TRUE(out.hasUnflushedData());
    EXPECT_EQ(out.spaceAvailable(), 10u);
    out.writeU8('!');  // needs room: the ten bytes taken make it, no growth
    EXPECT_EQ(out.capacity(), 16u);
    out.fail = true;
    EXPECT_THROW(out.flushBuffer(), plat::Exception);
    out.fail = false;
    out.flushBuffer();
    EXPECT_EQ(out.received, first + "!");
    EXPECT_FALSE(out.hasUnflushedData());
    // When the reclaimed room is not enough the buffer grows, still without repeats.
    out.writeBytes(first.data(), 16);
    out.accept = {3, 0};
    out.flushBuffer();
    out.writeBytes("0123456789", 10);
    EXPECT_EQ(out.capacity(), 32u);
    out.flushBuffer();
    EXPECT_EQ(out.received, first + "!" + first + "0123456789");
    EXPECT_EQ(out.length(), 43u);
}

// A slow peer: the sink takes arbitrary amounts, writes of every kind come in between, and
// whatever the sink took, concatenated, must be exactly what was written. spaceAvailable()
// must be a promise: writing that much never grows the buffer.
TEST(FullyBufferedOutStream, RandomSinkReceivesExactlyWhatWasWritten) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        auto upTo = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n)(random); };
        RecordingStream out(16, 1 << 20);
        std::string written;
        for (int step = 0; step < 400; ++step) {
            size_t room = out.spaceAvailable(), capacity = out.capacity();
            std::string bytes(upTo(48), '\0');
            for (char& c : bytes) c = static_cast<char>(random());
            size_t kind = upTo(3);
            if (kind == 0) {
                out.writeBytes(bytes.data(), bytes.size());
            } else if (kind == 1) {
                out.writeU8('x'), bytes = "x";
            } else if (kind == 2) {
                out.writeU32(0x41424344), bytes = "ABCD";
            } else {
                out.accept = {upTo(40), upTo(40), upTo(40)};
                out.flushBuffer();
                out.accept.clear();
                bytes.clear();
            }
            written += bytes;
            SCOPED_TRACE(step);
            if (bytes.size() <= room) {
                EXPECT_EQ(out.capacity(), capacity);
            }
            ASSERT_EQ(out.length(), written.size());
            ASSERT_EQ(out.received, written.substr(0, out.received.size()));
        }
        out.flushBuffer();
        EXPECT_EQ(out.received, written);
        EXPECT_FALSE(out.hasUnflushedData());
    }
}

}  // namespace
