// The session's batches of reads: a read that leaves room unfilled ends the asking for that
// batch only. A mark that outlived its batch would stop the endpoint from ever reading
// again; one set by a read that filled the buffer would leave the rest of a burst for
// another turn of the loop.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <string>

#include "LoopbackSupport.h"
#include "mirrorlink/SocketInStream.h"

namespace {

using mirrorlink::SocketInStream;
using mltest::waitFor;

struct Batches : ::testing::Test {
    mltest::Loopback loop;
    void SetUp() override {
        loop.listen();
        ASSERT_TRUE(loop.connect());
    }
    void send(const std::string& text) {
        ASSERT_EQ(loop.client.sendAll(text.data(), text.size()), 0);
    }
};

// Everything buffered now, consumed.
std::string take(SocketInStream& in) {
    std::string got;
    while (in.available() > 0 || in.overrun(false, 1)) {
        got.append(reinterpret_cast<const char*>(in.ptr()), in.available());
        in.skip(in.available());
        in.setCheckpoint();
    }
    return got;
}

TEST_F(Batches, AnEmptiedSocketIsAskedAgainByTheNextBatchAndOutsideBatches) {
    SocketInStream in(loop.server);
    send("ab");
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    in.beginBatch();
    EXPECT_EQ(take(in), "ab");
    EXPECT_TRUE(in.receivedData());
    send("cd");
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    EXPECT_EQ(take(in), "");  // this batch already saw the socket empty
    in.endBatch();
    EXPECT_EQ(take(in), "cd");

    send("ef");
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    in.beginBatch();
    EXPECT_FALSE(in.receivedData());
    EXPECT_EQ(take(in), "ef");
    in.endBatch();
}

TEST_F(Batches, AReadThatFillsTheBufferKeepsTheBatchAsking) {
    SocketInStream in(loop.server, 4);
    send("0123456789");
    int queued = 0;
    for (int i = 0; i < 1000 && queued < 10; ++i) {
        ASSERT_TRUE(waitFor(loop.server, POLLIN));
        ASSERT_EQ(ioctl(loop.server.fd(), FIONREAD, &queued), 0);
    }
    ASSERT_EQ(queued, 10);
    in.beginBatch();
    EXPECT_EQ(take(in), "0123456789");  // four, four and two: only the last read was short
    in.endBatch();
}

}  // namespace
