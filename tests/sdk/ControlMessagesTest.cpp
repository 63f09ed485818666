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

// Storage as the queue gives it: aligned for any message.
struct Storage {
    alignas(std::max_align_t) unsigned char bytes[256];
};

// The creator, the caller's message and each queued copy hold one reference each: the
// handler lives exactly as long as the last of them.
TEST(ControlMessages, AddSinkMessagesEachHoldAHandlerReference) {
    bool alive = false;
    CDBService::HandlerRef creator = CDBService::HandlerRef::adopt(new TrackedHandler(&alive));
    std::unique_ptr<AddSinkMessage> message(new AddSinkMessage(nullptr, 0x4001, creator.get()));
    Storage a, b;
    ASSERT_LE(message->copySize(), sizeof a.bytes);
    messaging::ControlMessage* first = message->copyInto(a.bytes);
    messaging::ControlMessage* second = first->copyInto(b.bytes);
    EXPECT_EQ(message->kind(), kDispatchDirect);
    creator = CDBService::HandlerRef();
    message.reset();
    first->~ControlMessage();
    EXPECT_TRUE(alive);
    second->~ControlMessage();
    EXPECT_FALSE(alive);
}

}  // namespace
