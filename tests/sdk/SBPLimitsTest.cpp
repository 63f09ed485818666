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
    // Not running, so what is accepted is performed at once and finds nothing to send to.
    const std::vector<uint8_t> data(70000, 0x5A);
    const std::function<ZELCDBError(uint32_t)> entries[] = {
        [&](uint32_t n) { return t.sinkSendSet(app.ep, 0x4001, nullptr, 1, data.data(), n); },
        [&](uint32_t n) {
            return t.sinkSendServiceAuthResponse(app.ep, 0x4001, nullptr, 0xB1, 1, 0, data.data(),
                                                 n);
        },
        [&](uint32_t n) {
            return t.sourceSendGetResponse(app.ep, 0x4001, nullptr, 0xB1, 1, 0, data.data(), n);
        },
        [&](uint32_t n) {
            return t.sourceSendServiceAuthChallenge(app.ep, 0x4001, nullptr, 0xB1, 1, data.data(),
                                                    n);
        },
    };
    // 8100 bytes of ServicePayload hold a 15-byte header, 8084 bytes of data and the marker.
    const struct {
        uint32_t size;
        ZELCDBError result;
    } sizes[] = {
        {8084, ZELCDBErrorNone},
        {8085, ZELCDBErrorInvalidParameter},
        {70000, ZELCDBErrorInvalidParameter},
    };
    for (size_t i = 0; i < sizeof entries / sizeof entries[0]; ++i) {
        for (const auto& s : sizes) {
            SCOPED_TRACE(testing::Message() << "entry " << i << ", " << s.size << " bytes");
            EXPECT_EQ(entries[i](s.size), s.result);
        }
    }
}

}  // namespace
