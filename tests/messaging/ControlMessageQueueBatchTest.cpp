// How the servicing thread takes its queue: the messages it queues for itself, and those
// posted while a loop that announces its waits is busy, carry no wake-up byte, so the loop
// must hear of them another way; and the bytes of a whole batch are read at once, so a
// batch that an action's exception cuts short must give back the bytes of the messages
// left behind, or a loop that waits on the descriptor never comes back for them.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "plat/Exception.h"

namespace {

using messaging::ControlMessageQueueUNIX;
using messagingtest::Counter;
using messagingtest::FnMessage;

class BodyServicer : public messaging::ControlMessageQueue::Servicer {
public:
    void run() override { body(); }
    std::function<void()> body;
};

int bytesIn(ControlMessageQueueUNIX& queue) {
    int bytes = -1;
    ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytes);
    return bytes;
}

TEST(ControlMessageQueueBatch, OwnPostsAreFlaggedInsteadOfSignalledAndKeepTheirPlace) {
    BodyServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    Counter running, posted;
    std::vector<std::string> seen;  // servicing thread only until join()
    std::vector<int> bytes;
    std::vector<bool> flagged;
    servicer.body = [&] {
        running.bump();
        posted.waitFor(1);
        queue.postFromServicer(new FnMessage([&] {
            seen.push_back("own");
            return 0;
        }));
        bytes.push_back(bytesIn(queue));
        flagged.push_back(queue.hasUnsignalledMessages());
        queue.serviceMessages();
        bytes.push_back(bytesIn(queue));
        flagged.push_back(queue.hasUnsignalledMessages());
    };
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(running.waitFor(1));
    queue.postAsynchronously(new FnMessage([&] {
        seen.push_back("posted");
        return 0;
    }));
    posted.bump();
    queue.join();
    EXPECT_EQ(seen, (std::vector<std::string>{"posted", "own"}));
    EXPECT_EQ(bytes, (std::vector<int>{1, 0}));
    EXPECT_EQ(flagged, (std::vector<bool>{true, false}));
}

TEST(ControlMessageQueueBatch, MessagesLeftBehindByAThrowingActionGetTheirBytesBack) {
    BodyServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    Counter running, posted;
    std::atomic<int> performed{0};
    std::vector<int> bytes;  // servicing thread only until join()
    servicer.body = [&] {
        running.bump();
        posted.waitFor(1);
        bytes.push_back(bytesIn(queue));
        try {
            queue.serviceMessages();
        } catch (const plat::Exception&) {
        }
        bytes.push_back(bytesIn(queue));
        queue.serviceMessages();
        bytes.push_back(bytesIn(queue));
    };
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(running.waitFor(1));
    queue.postAsynchronously(new FnMessage([]() -> int { throw plat::Exception("failed"); }));
    for (int i = 0; i < 2; ++i)
        queue.postAsynchronously(new FnMessage([&] { return ++performed; }));
    posted.bump();
    queue.join();
    EXPECT_EQ(bytes, (std::vector<int>{3, 2, 0}));
    EXPECT_EQ(performed, 2);
}

// A loop that announces its waits hears of every post: those made while it is busy by
// finding the queue not empty when it is about to block, those made while it blocks by
// their byte. A post during the wait that wrote nothing would leave the loop asleep.
TEST(ControlMessageQueueBatch, PostsToALoopThatAnnouncesItsWaitsSignalOnlyWhileItWaits) {
    BodyServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    queue.announceWaits();
    Counter running, postedBusy, waiting, postedWaiting;
    std::vector<int> bytes;  // servicing thread only until join()
    std::vector<bool> mayBlock;
    int performed = 0;
    servicer.body = [&] {
        running.bump();
        postedBusy.waitFor(1);
        bytes.push_back(bytesIn(queue));
        mayBlock.push_back(queue.beginWait());
        queue.endWait();
        queue.serviceMessages();
        mayBlock.push_back(queue.beginWait());
        waiting.bump();
        postedWaiting.waitFor(1);
        bytes.push_back(bytesIn(queue));
        queue.endWait();
        queue.serviceMessages();
        bytes.push_back(bytesIn(queue));
    };
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(running.waitFor(1));
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }));
    postedBusy.bump();
    ASSERT_TRUE(waiting.waitFor(1));
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }));
    postedWaiting.bump();
    queue.join();
    EXPECT_EQ(bytes, (std::vector<int>{0, 1, 0}));
    EXPECT_EQ(mayBlock, (std::vector<bool>{false, true}));
    EXPECT_EQ(performed, 2);
}

}  // namespace
