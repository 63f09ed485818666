#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>

#include "rdr/FullyBufferedOutStream.h"

namespace {

// A sink that takes as many bytes per call as the script says (an empty script takes all)
// and records everything it was handed.
class RecordingStream : public rdr::FullyBufferedOutStream {
public:
    using rdr::FullyBufferedOutStream::FullyBufferedOutStream;

    std::deque<size_t> accept;
    std::string received;
    int calls = 0;
    bool fail = false;

protected:
    size_t writeData(const void* data, size_t length) override {
        ++calls;
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

TEST(FullyBufferedOutStream, DefaultsGrowFrom16KiBUpTo4MiB) {
    RecordingStream out(0, 0);
    EXPECT_EQ(out.capacity(), 16384u);
    EXPECT_EQ(out.spaceAvailable(), 16384u);
    std::string block(16384, 'b');
    out.writeBytes(block.data(), block.size());
    EXPECT_EQ(out.capacity(), 16384u);
    out.writeU8('x');
    EXPECT_EQ(out.capacity(), 32768u);
    for (int i = 1; i < 255; ++i) out.writeBytes(block.data(), block.size());
    EXPECT_EQ(out.capacity(), 4194304u);
    out.writeBytes(block.data(), block.size() - 1);
    EXPECT_EQ(out.length(), 4194304u);
    try {
        out.writeU8('y');
        FAIL() << "no exception";
    } catch (const rdr::FullyBufferedOutStream::MaxBufferSizeReached& e) {
        EXPECT_STREQ(e.str(), "Maximum buffer size 4194304 reached");
    }
}

TEST(FullyBufferedOutStream, GrowsForAllItemsElseForOneElseThrows) {
    RecordingStream out(4, 10);
    out.writeU32(0);
    EXPECT_EQ(out.overrun(2, 2), 2u);  // 4 + 4 fits by doubling to 8
    EXPECT_EQ(out.capacity(), 8u);
    out.writeU32(0);
    EXPECT_EQ(out.overrun(2, 3), 1u);  // 8 + 6 passes 10; 8 + 2 fits
    EXPECT_EQ(out.capacity(), 10u);
    out.writeU16(0);
    try {
        out.overrun(1, 1);
        FAIL() << "no exception";
    } catch (const plat::ExceptionFmt& e) {
        EXPECT_STREQ(e.str(), "Maximum buffer size 10 reached");
    }
}

TEST(FullyBufferedOutStream, FullFlushHandsEverythingOverAndStartsAgain) {
    RecordingStream out(8);
    out.writeBytes("hello", 5);
    EXPECT_TRUE(out.hasUnflushedData());
    out.accept = {2, 2};
    out.flushBuffer();
    EXPECT_EQ(out.received, "hello");
    EXPECT_EQ(out.calls, 3);
    EXPECT_FALSE(out.hasUnflushedData());
    EXPECT_EQ(out.length(), 5u);
    EXPECT_EQ(out.spaceAvailable(), 8u);
    out.writeBytes("world!!!", 8);  // fits again without growing
    EXPECT_EQ(out.capacity(), 8u);
    out.flushBuffer();
    EXPECT_EQ(out.received, "helloworld!!!");
    EXPECT_EQ(out.length(), 13u);
}

TEST(FullyBufferedOutStream, PartialFlushKeepsTheRestForLater) {
    RecordingStream out(8);
    out.writeBytes("abcdef", 6);
    out.accept = {4, 0};
    out.flushBuffer();
    EXPECT_EQ(out.received, "abcd");
    EXPECT_TRUE(out.hasUnflushedData());
    // The taken bytes still occupy the buffer but count as free space.
    EXPECT_EQ(out.spaceAvailable(), 2u + 4u);
    out.writeU16(0x6768);  // fits in the tail: no regrow
    out.flushBuffer();
    EXPECT_EQ(out.received, "abcdefgh");
    EXPECT_FALSE(out.hasUnflushedData());
}

TEST(FullyBufferedOutStream, RegrowAfterPartialFlushHandsTakenBytesOverAgain) {
    RecordingStream out(4);
    out.writeBytes("abcd", 4);
    out.accept = {3, 0};
    out.flushBuffer();
    EXPECT_EQ(out.received, "abc");
    out.writeU8('e');  // regrows: the copy starts unflushed at the block's first byte
    EXPECT_EQ(out.capacity(), 8u);
    out.flushBuffer();
    EXPECT_EQ(out.received, "abcabcde");
    EXPECT_FALSE(out.hasUnflushedData());
}

TEST(FullyBufferedOutStream, SinkFailureLeavesTheBytesUnflushed) {
    RecordingStream out(8);
    out.writeBytes("abc", 3);
    out.fail = true;
    EXPECT_THROW(out.flushBuffer(), plat::Exception);
    EXPECT_TRUE(out.hasUnflushedData());
    out.fail = false;
    out.flushBuffer();
    EXPECT_EQ(out.received, "abc");
}

}  // namespace
