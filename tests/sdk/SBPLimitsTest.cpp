// The SBP entries that carry application data refuse, before anything is queued, data whose
// packet would not fit one ServicePayload.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "sdk/EndpointHarness.h"

namespace {

TEST(SBPLimits, DataWhosePacketOutgrowsOneServicePayloadIsRefused) {
    sdktest::App app(ZELCDBEndpointModeClient, sdktest::freeUrl());
    ASSERT_EQ(app.created, ZELCDBErrorNone);
    const ZELCDBSDK& t = sdktest::api();
    ZELCDBEndpoint* e = app.ep;  // not running: what is accepted finds nothing to send to
    const std::vector<uint8_t> bytes(70000, 0x5A);
    const uint8_t* d = bytes.data();
    const std::function<ZELCDBError(uint32_t)> entries[] = {
        [&](uint32_t n) { return t.sinkSendSet(e, 0x4001, nullptr, 1, d, n); },
        [&](uint32_t n) { return t.sinkSendServiceAuthResponse(e, 0x4001, 0, 0xB1, 1, 0, d, n); },
        [&](uint32_t n) { return t.sourceSendGetResponse(e, 0x4001, 0, 0xB1, 1, 0, d, n); },
        [&](uint32_t n) { return t.sourceSendServiceAuthChallenge(e, 0x4001, 0, 0xB1, 1, d, n); },
    };
    // 8100 bytes of ServicePayload hold a 15-byte header, 8084 bytes of data and the marker.
    for (size_t i = 0; i < sizeof entries / sizeof entries[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(entries[i](8084), ZELCDBErrorNone);
        EXPECT_EQ(entries[i](8085), ZELCDBErrorInvalidParameter);
        EXPECT_EQ(entries[i](70000), ZELCDBErrorInvalidParameter);
    }
}

}  // namespace
