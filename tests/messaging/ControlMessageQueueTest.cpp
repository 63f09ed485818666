#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "messaging/ControlMessageQueue.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "plat/Exception.h"

namespace {

using messaging::ControlMessage;
using messaging::ControlMessageQueue;
using messaging::ControlMessageQueueUNIX;
using messagingtest::Counter;
using messagingtest::FnMessage;
using messagingtest::LoopServicer;

// Lets a test hold the new thread inside its start-up, or make the start-up fail.
class ScriptedQueue : public ControlMessageQueueUNIX {
public:
    using ControlMessageQueueUNIX::ControlMessageQueueUNIX;
    ~ScriptedQueue() override { gate.bump(); }  // the base destructor joins the thread
    Counter inStartUp;
    Counter gate;  // the start-up goes on once this is bumped
    std::atomic<int> failuresLeft{0};

protected:
    bool initialiseInThread() override {
        inStartUp.bump();
        gate.waitFor(1);
        bool ok = ControlMessageQueueUNIX::initialiseInThread();
        if (ok && failuresLeft > 0) {
            // As if fcntl had failed after pipe: the pipe is closed again.
            --failuresLeft;
            closeWakeup();
            return false;
        }
        return ok;
    }
};

// A queue whose servicing thread runs LoopServicer.
struct RunningQueue : ::testing::Test {
    RunningQueue() { servicer.queue = &queue; }
    void startAndWait() {
        queue.gate.bump();
        int runs = servicer.started.count();
        ASSERT_TRUE(queue.start());
        ASSERT_TRUE(servicer.started.waitFor(runs + 1));
        ASSERT_TRUE(queue.isRunning());
    }
    LoopServicer servicer;
    ScriptedQueue queue{&servicer};
};

TEST_F(RunningQueue, StoppedQueuePerformsOnTheCallerAtOnce) {
    EXPECT_FALSE(queue.isRunning());
    EXPECT_EQ(queue.getWakeupDescriptor(), -1);
    std::atomic<int> performed{0};
    Counter freed;
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }, &freed));
    EXPECT_EQ(performed, 1);  // no thread runs: done on this one before the post returned
    EXPECT_EQ(freed.count(), 1);
    FnMessage seven([] { return 7; });
    EXPECT_EQ(queue.postSynchronously(seven), 7);
    // The message is freed even when its action throws on the caller.
    EXPECT_THROW(queue.postAsynchronously(
                     new FnMessage([]() -> int { throw plat::Exception("boom"); }, &freed)),
                 plat::Exception);
    EXPECT_EQ(freed.count(), 2);
    queue.postAsynchronously(nullptr);
    queue.join();  // no thread ever ran: harmless, twice
    queue.join();
    EXPECT_FALSE(queue.isRunning());
}

TEST_F(RunningQueue, MessagesFromSeveralThreadsArePerformedInQueueOrderExactlyOnce) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    constexpr int kProducers = 4, kEach = 500;
    std::vector<std::pair<int, int>> performed;  // appended on the servicing thread only
    std::atomic<int> offThread{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i) {
                queue.postAsynchronously(new FnMessage([&, p, i] {
                    if (!queue.isServicerThread()) ++offThread;
                    performed.emplace_back(p, i);
                    return 0;
                }));
            }
        });
    }
    for (std::thread& t : producers) t.join();
    servicer.stop();  // queued behind everything the producers posted
    queue.join();
    ASSERT_EQ(performed.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(offThread, 0);
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : performed) {
        ASSERT_EQ(i, next[p]++) << "producer " << p;  // in order, none twice, none skipped
    }
}

TEST_F(RunningQueue, SynchronousPostingReturnsTheResultOrTheException) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    bool onServicer = false;
    FnMessage answer([&] {
        onServicer = queue.isServicerThread();
        return 42;
    });
    EXPECT_EQ(queue.postSynchronously(answer), 42);
    EXPECT_TRUE(onServicer);
    EXPECT_FALSE(queue.isServicerThread());
    FnMessage failing([]() -> int { throw plat::Exception("refused"); });
    EXPECT_THROW(queue.postSynchronously(failing), plat::Exception);
    // The loop survived; posting synchronously from the servicing thread performs at once
    // instead of waiting for itself.
    FnMessage nested([&] {
        FnMessage inner([] { return 5; });
        return queue.postSynchronously(inner) + 1;
    });
    EXPECT_EQ(queue.postSynchronously(nested), 6);
    servicer.stop();
    queue.join();
}

TEST_F(RunningQueue, JoinTwiceIsHarmlessAndTheQueueRestarts) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_NO_FATAL_FAILURE(startAndWait());
        EXPECT_NE(queue.getWakeupDescriptor(), -1);
        servicer.stop();
        queue.join();
        queue.join();
        EXPECT_FALSE(queue.isRunning());
        EXPECT_EQ(queue.getWakeupDescriptor(), -1);
    }
}

TEST_F(RunningQueue, WakeupPipeHoldsOneBytePerQueuedMessage) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    Counter entered, released;
    queue.postAsynchronously(new FnMessage([&] {  // holds the loop until released
        entered.bump();
        return released.waitFor(1) ? 0 : -1;
    }));
    ASSERT_TRUE(entered.waitFor(1));
    std::atomic<int> performed{0};
    for (int i = 0; i < 3; ++i) {
        queue.postAsynchronously(new FnMessage([&] { return ++performed; }));
    }
    int bytes = -1, bytesLeft = -1;
    ASSERT_EQ(ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytes), 0);
    EXPECT_EQ(bytes, 3);
    released.bump();
    FnMessage measure([&] { return ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytesLeft); });
    EXPECT_EQ(queue.postSynchronously(measure), 0);
    EXPECT_EQ(bytesLeft, 0);
    EXPECT_EQ(performed, 3);
    servicer.stop();
    queue.join();
}

// Messages left when run() returns are performed on the servicing thread, in order, after
// the wake-up pipe has gone.
class ReturningServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        for (int i = 0; i < 3; ++i) {
            queue->postAsynchronously(new FnMessage([this, i] {
                order.push_back(i);
                descriptors.push_back(queue->getWakeupDescriptor());
                onServicer = onServicer && queue->isServicerThread();
                return 0;
            }));
        }
    }
    ControlMessageQueue* queue = nullptr;
    std::vector<int> order, descriptors;
    bool onServicer = true;
};

TEST(ControlMessageQueue, MessagesQueuedWhenRunReturnsArePerformedAfterThePipeCloses) {
    ReturningServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    servicer.queue = &queue;
    ASSERT_TRUE(queue.start());
    queue.join();  // waits for run() and the finish that follows it
    EXPECT_FALSE(queue.isRunning());
    EXPECT_EQ(servicer.order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(servicer.descriptors, (std::vector<int>{-1, -1, -1}));
    EXPECT_TRUE(servicer.onServicer);

    // Nobody calls join() now: the destructor must wait for the thread (a sanitizer reports
    // a leaked or raced thread), whichever of the two finishes the queue first.
    ReturningServicer racing;
    auto unjoined = std::make_unique<ControlMessageQueueUNIX>(&racing);
    racing.queue = unjoined.get();
    ASSERT_TRUE(unjoined->start());
    unjoined.reset();
    EXPECT_LE(racing.order.size(), 3u);
}

// run() neither services nor returns until five messages have been freed, so messages pile
// up in the queue.
class BlockedServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        started.bump();
        freed.waitFor(5);
    }
    Counter started, freed;
};

TEST(ControlMessageQueue, MessagesQueuedAtDestructionAreDiscardedAndFreed) {
    BlockedServicer servicer;
    std::atomic<int> performed{0};
    {
        ControlMessageQueueUNIX queue(&servicer);
        ASSERT_TRUE(queue.start());
        ASSERT_TRUE(servicer.started.waitFor(1));
        for (int i = 0; i < 5; ++i) {
            queue.postAsynchronously(new FnMessage([&] { return ++performed; }, &servicer.freed));
        }
        // The destructor frees them unperformed, which lets run() return for its join.
    }
    EXPECT_EQ(performed, 0);
    EXPECT_EQ(servicer.freed.count(), 5);
}

TEST_F(RunningQueue, SecondStartWaitsForTheFirstThreadsStartUp) {
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(queue.inStartUp.waitFor(1));
    std::atomic<bool> secondDone{false};
    bool secondStarted = true;
    std::thread second([&] {
        secondStarted = queue.start();
        secondDone = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(secondDone);  // held in prepareStart while the first start-up is pending
    queue.gate.bump();
    second.join();
    // It waited for the first thread to be running, saw it, and started no second one.
    EXPECT_FALSE(secondStarted);
    EXPECT_EQ(queue.inStartUp.count(), 1);
    ASSERT_TRUE(servicer.started.waitFor(1));
    servicer.stop();
    queue.join();
}

TEST_F(RunningQueue, FailedStartUpLeavesTheQueueStoppedAndALaterStartWorks) {
    queue.failuresLeft = 1;
    queue.gate.bump();
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(queue.inStartUp.waitFor(1));
    // isRunning() needs the queue mutex, which the start-up holds until it is over.
    EXPECT_FALSE(queue.isRunning());
    std::atomic<int> performed{0};
    Counter freed;
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }, &freed));
    EXPECT_EQ(performed, 1);  // at once, on this thread
    EXPECT_EQ(freed.count(), 1);
    EXPECT_EQ(servicer.started.count(), 0);   // run() was never called
    ASSERT_NO_FATAL_FAILURE(startAndWait());  // joins the failed thread and runs normally
    servicer.stop();
    queue.join();
    EXPECT_EQ(queue.inStartUp.count(), 2);
}

}  // namespace
