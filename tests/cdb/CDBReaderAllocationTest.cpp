#include <gtest/gtest.h>

#include <new>

#include "CDBTestSupport.h"
#include "FailingAllocator.h"

namespace {

using cdbtest::Bytes;

// A payload larger than the stream's buffer is collected into a block of its own. When that
// block cannot be allocated the reader throws std::bad_alloc, and a later call must start
// the collection again rather than copy into the block it does not have.
TEST(CDBReaderAllocation, PayloadCollectorRecoversFromAFailedAllocation) {
    const Bytes data = cdbtest::pattern(1000, 3);
    const Bytes message = cdbtest::written([&](zelcdbsdk::CDBWriter& w) {
        w.sendServicePayload(0x4001, 7, data.data(), data.size());
    });
    const size_t split = 500;
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        cdbtest::EchoHandler handler;
        cdbtest::FeedInStream in(64);
        zelcdbsdk::CDBReader reader(handler, in, nullptr);
        in.feed(message.data(), split);
        bool threw = false, triggered;
        {
            zeltest::FailNthAllocation failure(n);
            try {
                reader.processMessages();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            triggered = failure.triggered();
        }
        EXPECT_EQ(threw, triggered);
        in.feed(message.data() + split, message.size() - split);
        EXPECT_EQ(cdbtest::drain(reader), 1);
        EXPECT_EQ(handler.bytes(), message);
        if (!triggered) {
            EXPECT_GE(n, 2u);  // the collector's block did fail once
            break;
        }
        ASSERT_LT(n, 20u);
    }
}

}  // namespace
