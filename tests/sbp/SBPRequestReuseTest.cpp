// The request table hands the record of the last removed request to the next one. A record
// that came back with an old flag would misroute the new request's answer (a "cancel sent"
// mark swallows it, a "subscribed" mark turns a Get's answer into an update), and one that
// came back to another owner would report its time-out to the wrong sink or source.
#include <gtest/gtest.h>

#include <memory>

#include "plat/TimerManager.h"
#include "sbp/SBPRequest.h"

namespace {

using zelcdbsdk::SBPRequest;
using zelcdbsdk::SBPRequestTable;

struct Owner : zelcdbsdk::SBPRequestOwner {
    int requestTimedOut(SBPRequest&) override { return 0; }
};

TEST(SBPRequestReuse, ARecordComesBackAsNewUnderItsNewKeysOnly) {
    plat::TimerManager timers;
    Owner owner;
    SBPRequestTable table;
    SBPRequest& first = table.add(table.newRequest(&owner, 0xB3, 7, 1, 1, &owner), 5000);
    first.flags = SBPRequest::kSubscribed | SBPRequest::kCancelSent;
    first.interval = 250;
    table.remove(first);

    int context = 0;
    std::unique_ptr<SBPRequest> next = table.newRequest(&owner, 0xB1, 8, 2, 0, &context);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->extra, 0u);
    EXPECT_EQ(next->context, &context);
    EXPECT_EQ(next->flags, 0u);
    EXPECT_EQ(next->interval, 0u);
    EXPECT_FALSE(next->timer.isRunning());

    SBPRequest& stored = table.add(std::move(next), 5000);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table.find(0xB1, 8), &stored);
    EXPECT_EQ(table.findByPacketId(2), &stored);
    EXPECT_EQ(table.find(0xB3, 7), nullptr);
    EXPECT_EQ(table.findByPacketId(1), nullptr);
}

TEST(SBPRequestReuse, AnotherOwnerGetsARecordOfItsOwn) {
    plat::TimerManager timers;
    Owner sink, source;
    SBPRequestTable table;
    table.remove(table.add(table.newRequest(&sink, 0xB1, 1, 1), 5000));
    std::unique_ptr<SBPRequest> other = table.newRequest(&source, 0xB1, 1, 2);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->owner(), &source);
}

// Many requests in and out in every order: the kept nodes never make the indexes disagree.
TEST(SBPRequestReuse, IndexesAgreeThroughManyReuses) {
    plat::TimerManager timers;
    Owner owner;
    SBPRequestTable table;
    for (uint32_t round = 0; round < 50; ++round) {
        for (uint32_t i = 0; i < 4; ++i) {
            uint16_t id = table.allocatePacketId();
            table.add(table.newRequest(&owner, 0xB1 + i % 2, round * 4 + i, id), 5000);
        }
        // Out of order, and one replaced in place by the same (command, uid).
        table.remove(*table.find(0xB1, round * 4 + 2));
        table.add(table.newRequest(&owner, 0xB2, round * 4 + 1, table.allocatePacketId()), 5000);
        table.remove(*table.find(0xB1, round * 4));
        table.remove(*table.find(0xB2, round * 4 + 1));
        table.remove(*table.find(0xB2, round * 4 + 3));
        ASSERT_TRUE(table.empty()) << round;
    }
}

}  // namespace
