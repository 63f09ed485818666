// SBP packets on the wire, and the request table that sinks and sources keep.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plat/ManualClock.h"
#include "plat/RecordingLogger.h"
#include "plat/TimerManager.h"
#include "sbp/SBPPacket.h"
#include "sbp/SBPRequest.h"

namespace {

using zelcdbsdk::readSBPPacket;
using zelcdbsdk::SBPPacket;
using zelcdbsdk::SBPRequest;
using zelcdbsdk::SBPRequestTable;
using Bytes = std::vector<uint8_t>;

Bytes packetBytes(uint8_t command, uint32_t uid, uint16_t packetId, uint32_t value,
                  const Bytes& payload) {
    rdr::MemOutStream out;
    EXPECT_EQ(zelcdbsdk::writeSBPPacket(out, command, uid, packetId, value, payload.data(),
                                        payload.size()),
              ZELCDBErrorNone);
    return Bytes(out.data(), out.data() + out.length());
}

TEST(SBPPacket, WritesTheLayoutAndReadsItBackInPlace) {
    EXPECT_EQ(packetBytes(0xB3, 0x01020304, 0x0506, 0x0100000A, {}),
              (Bytes{0xB3, 0, 0, 0, 15, 1, 2, 3, 4, 5, 6, 1, 0, 0, 0x0A, 0, 0, 0, 0, 0xB0}));
    EXPECT_EQ(packetBytes(0xB9, 7, 1, 0, {0x42}),
              (Bytes{0xB9, 0, 0, 0, 12, 0, 0, 0, 7, 0, 1, 0, 0, 0, 0, 0x42, 0xB0}));
    // A length of 15 or less means "no payload" to every peer, so one to four payload bytes
    // are written but not delivered; SBP data is never that short.
    for (size_t n : {0u, 1u, 4u, 5u, 8100u}) {
        SCOPED_TRACE(n);
        Bytes payload(n);
        for (size_t i = 0; i < n; ++i) payload[i] = static_cast<uint8_t>(i * 7);
        Bytes wire = packetBytes(0xB9, 0xDEADBEEF, 0xFFFF, 0x10000000, payload);
        ASSERT_EQ(wire.size(), n == 0 ? 20 : 16 + n);  // no payload is four zero bytes
        SBPPacket p;
        ASSERT_EQ(readSBPPacket(wire.data(), wire.size(), {"test", nullptr}, &p), 0);
        EXPECT_EQ(p.command, 0xB9);
        EXPECT_EQ(p.uid, 0xDEADBEEFu);
        EXPECT_EQ(p.packetId, 0xFFFF);
        EXPECT_EQ(p.commandValue, 0x10000000u);
        EXPECT_EQ(Bytes(p.payload, p.payload + p.payloadSize), n > 4 ? payload : Bytes());
        EXPECT_EQ(p.payload, n > 4 ? wire.data() + 15 : nullptr);  // in place, no copy
    }
}

TEST(SBPPacket, RefusesMalformedPacketsWithOneDebugLine) {
    Bytes good = packetBytes(0xB1, 5, 9, 0, {});
    Bytes longer = good;
    longer[4] = 16;  // length one larger than the data
    Bytes shorter = packetBytes(0xB9, 5, 9, 0, {1, 2, 3, 4, 5, 6, 0xB0});
    shorter[4] -= 1;  // now the byte before the marker must be the marker
    Bytes noMarker = good;
    noMarker.back() = 0xB1;
    const struct {
        Bytes wire;
        int result;
        std::vector<std::string> lines;  // after the summary line, when there is one
    } cases[] = {
        {Bytes(good.begin(), good.begin() + 14), 15, {"Truncated SBP command"}},
        {longer, 15, {"Truncated SBP packet"}},
        {shorter, 0, {"Excess trailing data after SBP packet"}},
        {noMarker, 15, {"SBP command missing end marker"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lines[0]);
        zeltest::RecordingLogger logger;
        SBPPacket p;
        EXPECT_EQ(readSBPPacket(c.wire.data(), c.wire.size(), {"ZELSBPSink", &logger}, &p),
                  c.result);
        std::vector<std::string> texts;
        for (const auto& line : logger.lines) {
            EXPECT_EQ(line.level, 100);
            EXPECT_EQ(line.facility, "ZELSBPSink");
            if (line.text.rfind("SBP packet: ", 0) != 0) texts.push_back(line.text);
        }
        EXPECT_EQ(texts, c.lines);
        // A shortened length that still ends on a marker parses, with the shorter payload.
        if (c.result == 0) {
            EXPECT_EQ(p.payloadSize, 6u);
        }
    }
    Bytes wire = packetBytes(0xB4, 0xAB, 3, 0xB3, {});
    zeltest::RecordingLogger logger;
    SBPPacket p;
    readSBPPacket(wire.data(), wire.size(), {"ZELSBPSource", &logger}, &p);
    ASSERT_FALSE(logger.lines.empty());
    EXPECT_EQ(logger.lines[0].text,
              "SBP packet: actual length=20, payloadLength=15, command=b4, uid=ab, "
              "commandValue=b3");
}

// Counts time-outs and answers with what the test wants.
struct Owner : zelcdbsdk::SBPRequestOwner {
    int timeouts = 0;
    int again = 0;
    SBPRequestTable* removeFrom = nullptr;
    int requestTimedOut(SBPRequest& request) override {
        ++timeouts;
        if (removeFrom) removeFrom->remove(request);
        return removeFrom ? 0 : again;
    }
};

std::unique_ptr<SBPRequest> request(Owner& owner, uint32_t command, uint32_t uid, uint16_t id) {
    return std::unique_ptr<SBPRequest>(new SBPRequest(&owner, command, uid, id));
}

TEST(SBPRequestTable, PacketIdsRunUpwardSkipInUseWrapAndRunOut) {
    plat::TimerManager timers;
    Owner owner;
    SBPRequestTable table;
    EXPECT_EQ(table.allocatePacketId(), 1);  // 0 is never handed out
    table.add(request(owner, 0xB1, 0, 2), 5000);
    EXPECT_EQ(table.allocatePacketId(), 3);  // 2 is in use
    for (int i = 4; i <= 0xFFFF; ++i) table.allocatePacketId();
    EXPECT_EQ(table.allocatePacketId(), 1);  // wrapped past 0
    for (uint32_t i = 1; i < 0xFFFF; ++i) {
        uint16_t id = table.allocatePacketId();
        ASSERT_NE(id, 0) << i;
        table.add(request(owner, 0xB1, i, id), 5000);
    }
    EXPECT_EQ(table.allocatePacketId(), 0);
    uint16_t freed = table.find(0xB1, 77)->packetId;
    table.remove(*table.find(0xB1, 77));
    EXPECT_EQ(table.allocatePacketId(), freed);
}

TEST(SBPRequestTable, BothIndexesAlwaysAgree) {
    plat::TimerManager timers;
    Owner owner;
    SBPRequestTable table;
    table.add(request(owner, 0xB1, 10, 1), 5000);
    table.add(request(owner, 0xB3, 10, 2), 5000);
    // Same (command, uid) under a new packetId: the old record goes entirely.
    table.add(request(owner, 0xB1, 10, 3), 5000);
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table.findByPacketId(1), nullptr);
    EXPECT_EQ(table.find(0xB1, 10)->packetId, 3);
    // Same packetId for another (command, uid): the old key must not find the new record.
    table.add(request(owner, 0xB2, 11, 2), 5000);
    EXPECT_EQ(table.find(0xB3, 10), nullptr);
    EXPECT_EQ(table.find(0xB2, 11)->packetId, 2);
    EXPECT_EQ(table.size(), 2u);
    table.remove(*table.findByPacketId(3));
    EXPECT_EQ(table.find(0xB1, 10), nullptr);
    table.clear();
    EXPECT_TRUE(table.empty());
    EXPECT_FALSE(timers.hasTimers());  // no timer outlives its record
}

TEST(SBPRequestTable, TimerTellsTheOwnerWhichMayRemoveOrRearm) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    plat::TimerManager timers;
    Owner owner;
    SBPRequestTable table;
    SBPRequest& r = table.add(request(owner, 0xB1, 1, 1), 4000);
    owner.again = 1;
    auto after = [&](int ms) {
        clock.advanceMs(ms);
        timers.processTimers();
        return owner.timeouts;
    };
    EXPECT_EQ(after(3999), 0);
    EXPECT_EQ(after(1), 1);
    EXPECT_TRUE(r.timer.isRunning());
    EXPECT_EQ(r.timer.interval(), 4000);
    owner.removeFrom = &table;
    EXPECT_EQ(after(4000), 2);
    EXPECT_TRUE(table.empty());
    EXPECT_FALSE(timers.hasTimers());
}

}  // namespace
