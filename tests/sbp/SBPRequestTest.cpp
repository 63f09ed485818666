// The request table's two indexes, and the record it keeps for reuse: sinks and sources never
// give it a clash, so these rules only show from here.
#include <gtest/gtest.h>

#include "plat/TimerManager.h"
#include "sbp/SBPRequest.h"

namespace {

using zelcdbsdk::SBPRequest;

struct Owner : zelcdbsdk::SBPRequestOwner {
    int requestTimedOut(SBPRequest&) override { return 0; }
};

TEST(SBPRequestTable, BothIndexesAlwaysAgree) {
    plat::TimerManager timers;
    Owner owner, other;
    zelcdbsdk::SBPRequestTable table;
    auto add = [&](uint32_t command, uint32_t uid, uint16_t id, Owner& by) -> SBPRequest& {
        return table.add(table.newRequest(&by, command, uid, id), 5000);
    };
    add(0xB1, 10, 1, owner);
    add(0xB3, 10, 2, owner);
    // Same (command, uid) under a new packetId: the old record goes entirely.
    add(0xB1, 10, 3, owner);
    EXPECT_EQ(table.findByPacketId(1), nullptr);
    EXPECT_EQ(table.find(0xB1, 10)->packetId, 3);
    // Same packetId for another (command, uid): the old key must not find the new record.
    add(0xB2, 11, 2, owner);
    EXPECT_EQ(table.find(0xB3, 10), nullptr);
    EXPECT_EQ(table.size(), 2u);
    // The record kept from a removal goes back only to its own owner.
    table.remove(*table.findByPacketId(3));
    EXPECT_EQ(table.find(0xB1, 10), nullptr);
    EXPECT_EQ(add(0xB1, 12, 4, other).owner(), &other);
    EXPECT_EQ(add(0xB1, 10, 5, owner).owner(), &owner);
    table.clear();
    EXPECT_FALSE(timers.hasTimers());  // no timer outlives its record
}

}  // namespace
