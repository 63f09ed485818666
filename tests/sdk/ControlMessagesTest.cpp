// What a queued control message keeps once the API call that built it has returned.
#include <gtest/gtest.h>

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
