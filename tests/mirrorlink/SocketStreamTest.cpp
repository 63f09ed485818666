#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "LoopbackSupport.h"
#include "mirrorlink/SocketInStream.h"
#include "mirrorlink/SocketOutStream.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace {

using mirrorlink::SocketInStream;
using mirrorlink::SocketOutStream;
using mltest::waitFor;

struct ConnectedPair : ::testing::Test {
    mltest::Loopback loop;
    void SetUp() override {
        loop.listen();
        ASSERT_TRUE(loop.connect());
    }
    // Sends text and waits until the server end has it all.
    void deliver(const std::string& text) {
        ASSERT_EQ(loop.client.sendAll(text.data(), text.size()), 0);
        int queued = 0;
        for (int i = 0; i < 1000 && queued < static_cast<int>(text.size()); ++i) {
            ASSERT_TRUE(waitFor(loop.server, POLLIN));
            ASSERT_EQ(ioctl(loop.server.fd(), FIONREAD, &queued), 0);
        }
        ASSERT_EQ(queued, static_cast<int>(text.size()));
    }
};

// Takes whatever is there now, as the session's batch of reads after select() does.
std::string take(SocketInStream& in) {
    std::string got;
    while (in.available() > 0 || in.overrun(false, 1)) {
        got.append(reinterpret_cast<const char*>(in.ptr()), in.available());
        in.skip(in.available());
        in.setCheckpoint();
    }
    return got;
}

// Nothing there yet is no error, and neither is a closed peer: that is a readable socket
// that yields no bytes, not "Network error".
TEST_F(ConnectedPair, NothingYetAndPeerCloseReadAsNoBytesWithoutError) {
    SocketInStream in(loop.server);
    EXPECT_EQ(in.overrun(false, 1), 0);
    EXPECT_FALSE(in.receivedData());
    ASSERT_NO_FATAL_FAILURE(deliver("bye"));
    loop.client.close();
    EXPECT_EQ(take(in), "bye");
    EXPECT_TRUE(in.receivedData());
    ASSERT_TRUE(waitFor(loop.server, POLLIN));
    in.clearReceivedData();
    EXPECT_EQ(take(in), "");
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
    int small = 65536;  // fixed, so that the kernel cannot grow them to hold it all
    ::setsockopt(loop.client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    ::setsockopt(loop.server.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::string sent(4 * 1024 * 1024, '\0'), got;  // far beyond the socket buffers
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 131 + (i >> 12));
    out.writeBytes(sent.data(), sent.size());
    bool sawBacklog = false;
    for (int turn = 0; turn < 100000 && got.size() < sent.size(); ++turn) {
        if (out.hasUnflushedData()) out.flushBuffer();
        sawBacklog = sawBacklog || out.hasUnflushedData();
        if (waitFor(loop.server, POLLIN, 100)) got += take(in);
    }
    EXPECT_TRUE(sawBacklog);
    EXPECT_TRUE(got == sent);
}

// In a batch, a read that leaves room unfilled ends the asking for that batch only. A mark
// that outlived its batch would stop the endpoint from ever reading again; one set by a
// read that filled the buffer would leave the rest of a burst for another turn of the loop.
TEST_F(ConnectedPair, BatchStopsAtTheReadThatEmptiedTheSocket) {
    SocketInStream in(loop.server);
    ASSERT_NO_FATAL_FAILURE(deliver("ab"));
    in.beginBatch();
    EXPECT_EQ(take(in), "ab");
    ASSERT_NO_FATAL_FAILURE(deliver("cd"));
    EXPECT_EQ(take(in), "");  // this batch already saw the socket empty
    in.endBatch();
    EXPECT_EQ(take(in), "cd");
    ASSERT_NO_FATAL_FAILURE(deliver("ef"));
    in.beginBatch();
    EXPECT_FALSE(in.receivedData());
    EXPECT_EQ(take(in), "ef");
    in.endBatch();

    SocketInStream small(loop.server, 4);
    ASSERT_NO_FATAL_FAILURE(deliver("0123456789"));
    small.beginBatch();
    EXPECT_EQ(take(small), "0123456789");  // four, four and two: only the last read was short
    small.endBatch();
}

}  // namespace
