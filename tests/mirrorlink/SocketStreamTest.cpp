#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "LoopbackSupport.h"
#include "mirrorlink/SocketInStream.h"
#include "mirrorlink/SocketOutStream.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace {

using mirrorlink::SocketInStream;
using mirrorlink::SocketOutStream;
using mltest::waitFor;
using Bytes = std::vector<uint8_t>;

struct ConnectedPair : ::testing::Test {
    mltest::Loopback loop;
    void SetUp() override {
        loop.listen();
        ASSERT_TRUE(loop.connect());
    }
};

// Takes whatever is there now, as the session's batch of reads after select() does.
size_t readAvailable(SocketInStream& in, Bytes* into) {
    size_t before = into->size();
    while (in.available() > 0 || in.overrun(false, 1)) {
        into->insert(into->end(), in.ptr(), in.end());
        in.skip(in.available());
        in.setCheckpoint();
    }
    return into->size() - before;
}

// Nothing there yet is no error, and neither is a closed peer: that is a readable socket
// that yields no bytes, not "Network error".
TEST_F(ConnectedPair, NothingYetAndPeerCloseReadAsNoBytesWithoutError) {
    SocketInStream in(loop.server);
    in.clearReceivedData();
    EXPECT_EQ(in.overrun(false, 1), 0);
    EXPECT_FALSE(in.receivedData());

    ASSERT_EQ(loop.client.sendAll("bye", 3), 0);
    loop.client.close();
    Bytes got;
    for (int i = 0; i < 100 && got.size() < 3; ++i) {
        ASSERT_TRUE(waitFor(loop.server, POLLIN));
        readAvailable(in, &got);
    }
    EXPECT_EQ(got, (Bytes{'b', 'y', 'e'}));
    EXPECT_TRUE(in.receivedData());
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    in.clearReceivedData();
    EXPECT_EQ(readAvailable(in, &got), 0u);
    EXPECT_FALSE(in.receivedData());
    EXPECT_THROW(in.readU8(), rdr::BlockException);
}

TEST_F(ConnectedPair, AResetConnectionIsANetworkErrorBothWays) {
    SocketInStream in(loop.server);
    SocketOutStream out(loop.server);
    linger abort = {1, 0};
    ASSERT_EQ(::setsockopt(loop.client.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
    loop.client.close();  // sends a reset
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    try {
        in.readU8();
        FAIL() << "read from a reset connection";
    } catch (const plat::SystemException& e) {
        EXPECT_EQ(std::string(e.str()), "Network error: " + mltest::errText(ECONNRESET));
    }
    // Sending into it fails the same way and, thanks to MSG_NOSIGNAL, raises no SIGPIPE.
    try {
        out.writeU32(1);
        out.flushBuffer();
        out.writeU32(2);
        out.flushBuffer();
        FAIL() << "sent into a reset connection";
    } catch (const plat::SystemException& e) {
        EXPECT_EQ(std::string(e.str()).rfind("Network error: ", 0), 0u) << e.str();
    }
}

// A socket that takes only part of the output is not an error: the rest waits for the next
// flush, and everything arrives once, in order.
TEST_F(ConnectedPair, FullSocketKeepsTheRestForTheNextFlush) {
    SocketOutStream out(loop.client);
    SocketInStream in(loop.server);
    Bytes sent(4 * 1024 * 1024), got;  // far beyond the socket buffers
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<uint8_t>(i * 131 + (i >> 12));
    out.writeBytes(sent.data(), sent.size());
    EXPECT_EQ(in.bufferSize(), 16800u);
    bool sawBacklog = false;
    for (int turn = 0; turn < 100000 && got.size() < sent.size(); ++turn) {
        if (out.hasUnflushedData()) out.flushBuffer();
        sawBacklog = sawBacklog || out.hasUnflushedData();
        if (waitFor(loop.server, POLLIN, 100)) readAvailable(in, &got);
    }
    EXPECT_TRUE(sawBacklog);
    EXPECT_TRUE(got == sent);
}

}  // namespace
