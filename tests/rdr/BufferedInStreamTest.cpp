#include <gtest/gtest.h>

#include <string>

#include "rdr/BufferedInStream.h"
#include "rdr/Exceptions.h"
#include "rdr/ScriptedInStream.h"

namespace {

using rdrtest::ScriptedInStream;

std::string take(rdr::InStream& in, size_t n) {
    std::vector<uint8_t> scratch(n);
    return std::string(reinterpret_cast<const char*>(in.getBytes(scratch.data(), n)), n);
}

TEST(BufferedInStream, SizeZeroMeans16800Bytes) {
    ScriptedInStream in(0);
    EXPECT_EQ(in.bufferSize(), 16800u);
    in.add("a");
    in.readU8();
    ASSERT_EQ(in.offered.size(), 1u);
    EXPECT_EQ(in.offered[0], 16800u);
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
}

TEST(BufferedInStream, PositionsKeepCountingOverManyRefills) {
    ScriptedInStream in(6);
    for (int i = 0; i < 50; ++i) {
        in.add(std::vector<uint8_t>{0, 0, 0, static_cast<uint8_t>(i)});
    }
    for (uint32_t i = 0; i < 50; ++i) {
        EXPECT_EQ(in.setCheckpoint(), 4 * i);
        EXPECT_EQ(in.readU32(), i);
    }
}

TEST(BufferedInStream, MessageLongerThanTheBufferFromItsCheckpointIsAnOverrun) {
    ScriptedInStream in(4);
    in.add("abcdef");
    in.setCheckpoint();
    try {
        take(in, 6);
        FAIL() << "no exception";
    } catch (const rdr::BlockException&) {
        FAIL() << "blocked instead of overrun";
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "InStream overrun: buffer size exceeded");
    }
}

TEST(BufferedInStream, EmptyAnswerInTheMiddleOfAScriptBlocksOnce) {
    ScriptedInStream in(8);
    in.add("ab");
    in.addNothing();
    in.add("cd");
    in.setCheckpoint();
    EXPECT_THROW(in.readU32(), rdr::BlockException);
    EXPECT_EQ(in.pos(), 0u);
    EXPECT_EQ(in.readU32(), 0x61626364u);
}

// A source that signals "would block" itself, as a non-blocking socket may.
class BlockingSource : public rdr::BufferedInStream {
public:
    BlockingSource() : rdr::BufferedInStream(8) {}
    bool fail = false;

protected:
    size_t readData(void* dest, size_t) override {
        if (fail) throw plat::Exception("connection reset");
        static_cast<uint8_t*>(dest)[0] = 'x';
        if (++calls_ > 1) throw rdr::BlockException();
        return 1;
    }

private:
    int calls_ = 0;
};

TEST(BufferedInStream, BlockFromTheSourceCountsAsNoDataAndOtherFailuresPassThrough) {
    BlockingSource in;
    in.setCheckpoint();
    EXPECT_EQ(in.overrun(false, 2), 0);
    EXPECT_EQ(in.pos(), 0u);
    EXPECT_EQ(in.available(), 1u);
    in.fail = true;
    try {
        in.readU16();
        FAIL() << "no exception";
    } catch (const rdr::BlockException&) {
        FAIL() << "source failure turned into a block";
    } catch (const plat::Exception& e) {
        EXPECT_STREQ(e.str(), "connection reset");
    }
}

}  // namespace
