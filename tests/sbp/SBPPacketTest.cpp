// SBP packets on the wire: the layout, and the faults a reader must refuse.
#include <gtest/gtest.h>

#include "SBPScript.h"
#include "plat/RecordingLogger.h"

namespace sbptest {
namespace {

using zelcdbsdk::readSBPPacket;

TEST(SBPPacket, WritesTheLayoutAndReadsThePayloadInPlace) {
    EXPECT_EQ(zeltest::hex(encode("Subscribe #506 1020304 100000a"), ""),
              "B30000000F010203040506"
              "0100000A"
              "00000000B0");
    EXPECT_EQ(zeltest::hex(encode("Response #1 7 +1"), ""),
              "B90000000C000000070001"
              "00000000"
              "01B0");
    // A length of 15 or less means "no payload" to every peer, so one to four payload bytes
    // are written but not delivered; SBP data is never that short.
    for (size_t n : {0, 1, 4, 5, 8100}) {
        std::string text = format("Response #ffff deadbeef 10000000 +%zu", n);
        Bytes wire = encode(text);
        zelcdbsdk::SBPPacket p;
        ASSERT_EQ(readSBPPacket(wire.data(), wire.size(), {"test", nullptr}, &p), 0);
        EXPECT_EQ(wire.size(), n == 0 ? 20 : 16 + n);
        EXPECT_EQ(describe(p), n > 4 ? text : "Response #ffff deadbeef 10000000");
        EXPECT_EQ(p.payload, n > 4 ? wire.data() + 15 : nullptr);
    }
}

TEST(SBPPacket, RefusesMalformedPacketsWithOneDebugLine) {
    const struct {
        const char* wire;
        const char* line;  // after the summary line, when there is one
        ZELCDBError result;
    } cases[] = {
        {"B1 0000000F 00000005 0009 000000", "Truncated SBP command", 15},
        {"B1 00000010 00000005 0009 00000000 00000000 B0", "Truncated SBP packet", 15},
        {"B1 0000000F 00000005 0009 00000000 00000000 B1", "SBP command missing end marker", 15},
        {"B1 0000000F 00000005 0009 00000000 00000000 B0 B0",
         "Excess trailing data after SBP packet", 0},
    };
    for (const auto& c : cases) {
        zeltest::RecordingLogger logger;
        zelcdbsdk::SBPPacket p;
        Bytes wire = zeltest::parseHex(c.wire);
        EXPECT_EQ(readSBPPacket(wire.data(), wire.size(), {"ZELSBPSink", &logger}, &p), c.result);
        std::vector<std::string> texts;
        for (const auto& line : logger.lines) {
            EXPECT_EQ(line.level, plat::kLogDebug);
            EXPECT_EQ(line.facility, "ZELSBPSink");
            if (line.text.rfind("SBP packet: ", 0) != 0) texts.push_back(line.text);
        }
        EXPECT_EQ(texts, std::vector<std::string>{c.line});
    }
    zeltest::RecordingLogger logger;
    zelcdbsdk::SBPPacket p;
    EXPECT_EQ(readSBPPacket(nullptr, 20, {"ZELSBPSource", &logger}, &p), 15);
    Bytes wire = encode("Cancel #3 ab b3");
    readSBPPacket(wire.data(), wire.size(), {"ZELSBPSource", &logger}, &p);
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[1].text,
              "SBP packet: actual length=20, payloadLength=15, command=b4, uid=ab, "
              "commandValue=b3");
}

}  // namespace
}  // namespace sbptest
