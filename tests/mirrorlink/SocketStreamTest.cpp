#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "LoopbackSupport.h"
#include "mirrorlink/SocketInStream.h"
#include "mirrorlink/SocketOutStream.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace {

using mirrorlink::SocketInStream;
using mirrorlink::SocketOutStream;
using mltest::Loopback;
using mltest::waitFor;

struct ConnectedPair : ::testing::Test {
    Loopback loop;
    void SetUp() override {
        loop.listen();
        ASSERT_TRUE(loop.connect());
    }
};

// Reads whatever is there now: the session's batch of reads after select().
size_t readAvailable(SocketInStream& in, std::vector<uint8_t>* into) {
    size_t before = into->size();
    while (in.available() > 0 || in.overrun(false, 1)) {
        into->insert(into->end(), in.ptr(), in.end());
        in.skip(in.available());
        in.setCheckpoint();
    }
    return into->size() - before;
}

// A closed peer is a readable socket that yields nothing: no "Network error".
TEST_F(ConnectedPair, PeerCloseReadsAsNoBytesWithoutError) {
    SocketInStream in(loop.server);
    const char last[] = "bye";
    ASSERT_EQ(loop.client.sendAll(last, 3), 0);
    loop.client.close();
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    std::vector<uint8_t> got;
    in.clearReceivedData();
    for (int i = 0; i < 100 && got.size() < 3; ++i) {
        readAvailable(in, &got);
        if (got.size() < 3) waitFor(loop.server, POLLIN, 10);
    }
    EXPECT_EQ(got, (std::vector<uint8_t>{'b', 'y', 'e'}));
    EXPECT_TRUE(in.receivedData());

    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    in.clearReceivedData();
    EXPECT_EQ(readAvailable(in, &got), 0u);
    EXPECT_FALSE(in.receivedData());
    EXPECT_THROW(in.readU8(), rdr::BlockException);
}

TEST_F(ConnectedPair, NothingToReadYetIsNotAnError) {
    SocketInStream in(loop.server);
    in.clearReceivedData();
    EXPECT_EQ(in.overrun(false, 1), 0);
    EXPECT_FALSE(in.receivedData());
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
        EXPECT_EQ(e.err(), ECONNRESET);
        EXPECT_EQ(std::string(e.str()), "Network error: " + std::string(std::strerror(ECONNRESET)) +
                                            " (" + std::to_string(ECONNRESET) + ")");
    }
    // Sending into it fails the same way and, thanks to MSG_NOSIGNAL, raises no SIGPIPE.
    out.writeU32(1);
    try {
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
    const size_t total = 4 * 1024 * 1024;  // far beyond the socket buffers
    std::vector<uint8_t> sent(total);
    for (size_t i = 0; i < total; ++i) sent[i] = static_cast<uint8_t>(i * 131 + (i >> 12));
    out.writeBytes(sent.data(), sent.size());
    EXPECT_EQ(in.bufferSize(), 16800u);
    in.clearReceivedData();
    std::vector<uint8_t> got;
    bool sawBacklog = false;
    for (int turn = 0; turn < 100000 && got.size() < total; ++turn) {
        if (out.hasUnflushedData()) {
            out.flushBuffer();
            sawBacklog = sawBacklog || out.hasUnflushedData();
        }
        if (waitFor(loop.server, POLLIN, 100)) readAvailable(in, &got);
    }
    EXPECT_TRUE(sawBacklog);
    EXPECT_TRUE(in.receivedData());
    ASSERT_EQ(got.size(), total);
    EXPECT_TRUE(got == sent);
}

}  // namespace
