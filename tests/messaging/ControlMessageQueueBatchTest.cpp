// How the servicing thread takes its queue: the messages it queues for itself, and those
// posted while a loop that announces its waits is busy, carry no wake-up byte, so the loop
// must hear of them another way; and the bytes of a whole batch are read at once, so a
// batch that an action's exception cuts short must give back the bytes of the messages
// left behind, or a loop that waits on the descriptor never comes back for them.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "plat/Exception.h"

namespace {

using messagingtest::Counter;
using messagingtest::FnMessage;
using Seen = std::vector<std::string>;

struct ControlMessageQueueBatch : ::testing::Test {
    messagingtest::BodyServicer servicer;
    messaging::ControlMessageQueueUNIX queue{&servicer};
    Seen seen;  // servicing thread only until join()

    // Notes what happened with the wake-up bytes then in the pipe.
    void note(const std::string& what) {
        int bytes = -1;
        ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytes);
        seen.push_back(what + ": " + std::to_string(bytes));
    }
    FnMessage* noting(const std::string& what) {
        return new FnMessage([this, what] {
            seen.push_back(what);
            return 0;
        });
    }
    // Runs body as the servicing thread once post() has run on this one, then joins.
    void run(const std::function<void()>& body, const std::function<void()>& post) {
        Counter running, posted;
        servicer.body = [&] {
            running.bump();
            posted.waitFor(1);
            body();
        };
        ASSERT_TRUE(queue.start());
        ASSERT_TRUE(running.waitFor(1));
        post();
        posted.bump();
        queue.join();
    }
};

TEST_F(ControlMessageQueueBatch, OwnPostsAreFlaggedInsteadOfSignalledAndKeepTheirPlace) {
    run(
        [&] {
            queue.postFromServicer(noting("own"));
            note(queue.hasUnsignalledMessages() ? "flagged" : "not flagged");
            queue.serviceMessages();
            note(queue.hasUnsignalledMessages() ? "flagged" : "not flagged");
        },
        [&] { queue.postAsynchronously(noting("posted")); });
    EXPECT_EQ(seen, (Seen{"flagged: 1", "posted", "own", "not flagged: 0"}));
}

// The action's exception reaches the loop that called serviceMessages(), its entry freed
// with it; the entries behind it wait, bytes and all, for the next call.
TEST_F(ControlMessageQueueBatch, MessagesLeftBehindByAThrowingActionGetTheirBytesBack) {
    Counter freed;
    run(
        [&] {
            note("before");
            try {
                queue.serviceMessages();
            } catch (const plat::Exception& e) {
                note(std::string(e.str()) + ", freed " + std::to_string(freed.count()));
            }
            queue.serviceMessages();
            note("after");
        },
        [&] {
            queue.postAsynchronously(
                new FnMessage([]() -> int { throw plat::Exception("failed"); }, &freed));
            queue.postAsynchronously(noting("a"));
            queue.postAsynchronously(noting("b"));
        });
    EXPECT_EQ(seen, (Seen{"before: 3", "failed, freed 1: 2", "a", "b", "after: 0"}));
}

// A loop that announces its waits hears of every post: those made while it is busy by
// finding the queue not empty when it is about to block, those made while it blocks by
// their byte. A post during the wait that wrote nothing would leave the loop asleep.
TEST_F(ControlMessageQueueBatch, PostsToALoopThatAnnouncesItsWaitsSignalOnlyWhileItWaits) {
    queue.announceWaits();
    Counter waiting, postedWaiting;
    auto wait = [&] { note(queue.beginWait() ? "may block" : "must not block"); };
    std::thread whileWaiting([&] {
        waiting.waitFor(1);
        queue.postAsynchronously(noting("waiting"));
        postedWaiting.bump();
    });
    run(
        [&] {
            wait();
            queue.endWait();
            queue.serviceMessages();
            wait();
            waiting.bump();
            postedWaiting.waitFor(1);
            note("woken");
            queue.endWait();
            queue.serviceMessages();
            note("done");
        },
        [&] { queue.postAsynchronously(noting("busy")); });
    whileWaiting.join();
    EXPECT_EQ(seen, (Seen{"must not block: 0", "busy", "may block: 0", "woken: 1", "waiting",
                          "done: 0"}));
}

}  // namespace
