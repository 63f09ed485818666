// What a queued control message keeps once the API call that built it has returned.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "sdk/ControlMessages.h"

namespace {

using zelcdbsdk::CDBService;
using namespace zelcdbsdk::ControlMessages;

struct TrackedHandler : CDBService::Handler {
    explicit TrackedHandler(bool* alive) : Handler(nullptr, 0x4001), alive(alive) { *alive = true; }
    ~TrackedHandler() override { *alive = false; }
    void servicePayload(const uint8_t*, size_t) override {}
    bool* alive;
};

TEST(ControlMessages, PayloadCloneOwnsACopyOfTheBytes) {
    for (uint32_t length : {0u, 1u, 8100u}) {
        SCOPED_TRACE(length);
        std::unique_ptr<uint8_t[]> caller(new uint8_t[length + 1]);
        std::memset(caller.get(), 'a', length);
        SendServicePayloadMessage message(nullptr, 0x4001, caller.get(), length);
        std::unique_ptr<SendServicePayloadMessage> copy(
            static_cast<SendServicePayloadMessage*>(message.clone()));
        std::memset(caller.get(), 'X', length);
        caller.reset();
        ASSERT_TRUE(copy);
        ASSERT_EQ(copy->length(), length);
        for (uint32_t i = 0; i < length; ++i) ASSERT_EQ(copy->data()[i], 'a') << i;
        std::unique_ptr<SendServicePayloadMessage> again(
            static_cast<SendServicePayloadMessage*>(copy->clone()));
        copy.reset();
        for (uint32_t i = 0; i < length; ++i) ASSERT_EQ(again->data()[i], 'a') << i;
    }
}

// The creator, the caller's message and each clone hold one reference each: the handler
// lives exactly as long as the last of them.
TEST(ControlMessages, AddSinkMessagesEachHoldAHandlerReference) {
    bool alive = false;
    CDBService::HandlerRef creator = CDBService::HandlerRef::adopt(new TrackedHandler(&alive));
    std::unique_ptr<AddSinkMessage> message(new AddSinkMessage(nullptr, 0x4001, creator.get()));
    std::unique_ptr<messaging::ControlMessage> first(message->clone());
    std::unique_ptr<messaging::ControlMessage> second(first->clone());
    EXPECT_EQ(message->kind(), kDispatchDirect);
    creator = CDBService::HandlerRef();
    message.reset();
    first.reset();
    EXPECT_TRUE(alive);
    second.reset();
    EXPECT_FALSE(alive);
}

}  // namespace
