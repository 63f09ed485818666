#include <gtest/gtest.h>
#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "messaging/ControlMessage.h"
#include "messaging/ControlMessageQueue.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "plat/Exception.h"

namespace {

using messaging::ControlMessage;
using messaging::ControlMessageQueue;
using messaging::ControlMessageQueueUNIX;

constexpr auto kPatience = std::chrono::seconds(10);

// Performs a function; counts its own destruction so that tests see discarded messages freed.
class FnMessage : public ControlMessage {
public:
    explicit FnMessage(std::function<int()> fn, std::atomic<int>* freed = nullptr)
        : fn_(std::move(fn)), freed_(freed) {}
    ~FnMessage() override {
        if (freed_) ++*freed_;
    }
    int action() override { return fn_(); }

private:
    std::function<int()> fn_;
    std::atomic<int>* freed_;
};

// Counts events and lets a test wait for a count.
class Counter {
public:
    void bump() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return count_ >= count; });
    }
    int count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// The servicing thread's loop as an endpoint runs it: select() on the wake-up descriptor,
// service the queue when it is readable, until a stop message says so.
class LoopServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        stopRequested_ = false;
        started.bump();
        int fd = queue->getWakeupDescriptor();
        while (!stopRequested_) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(fd, &readable);
            if (select(fd + 1, &readable, nullptr, nullptr, nullptr) > 0) queue->serviceMessages();
        }
    }
    // Ends the loop through the queue, so every message posted before is performed first.
    void stop() {
        FnMessage message([this] {
            stopRequested_ = true;
            return 0;
        });
        queue->postSynchronously(message);
    }

    ControlMessageQueue* queue = nullptr;
    Counter started;

private:
    bool stopRequested_ = false;  // touched by the servicing thread only
};

struct RunningQueue : ::testing::Test {
    RunningQueue() { servicer.queue = &queue; }
    void startAndWait() {
        int runs = servicer.started.count();
        ASSERT_TRUE(queue.start());
        ASSERT_TRUE(servicer.started.waitFor(runs + 1));
        ASSERT_TRUE(queue.isRunning());
    }
    LoopServicer servicer;
    ControlMessageQueueUNIX queue{&servicer};
};

TEST(ControlMessageQueue, StoppedQueuePerformsOnTheCallerAtOnce) {
    LoopServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    servicer.queue = &queue;
    EXPECT_FALSE(queue.isRunning());
    EXPECT_EQ(queue.getWakeupDescriptor(), -1);

    std::atomic<int> freed{0};
    std::thread::id performedOn;
    queue.postAsynchronously(new FnMessage(
        [&] {
            performedOn = std::this_thread::get_id();
            return 0;
        },
        &freed));
    EXPECT_EQ(performedOn, std::this_thread::get_id());
    EXPECT_EQ(freed, 1);

    FnMessage seven([] { return 7; });
    EXPECT_EQ(queue.postSynchronously(seven), 7);

    // The message is freed even when its action throws on the caller.
    EXPECT_THROW(queue.postAsynchronously(
                     new FnMessage([]() -> int { throw plat::Exception("boom"); }, &freed)),
                 plat::Exception);
    EXPECT_EQ(freed, 2);
    queue.postAsynchronously(nullptr);

    queue.join();
    queue.join();
    EXPECT_FALSE(queue.isRunning());
}

TEST_F(RunningQueue, MessagesFromSeveralThreadsArePerformedInQueueOrderExactlyOnce) {
    startAndWait();
    constexpr int kProducers = 4;
    constexpr int kEach = 500;
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
    EXPECT_FALSE(queue.isRunning());

    ASSERT_EQ(performed.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(offThread, 0);
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : performed) {
        ASSERT_EQ(i, next[p]) << "producer " << p;  // in order, none twice, none skipped
        ++next[p];
    }
}

TEST_F(RunningQueue, SynchronousPostingReturnsTheResultOrTheException) {
    startAndWait();
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
    // The loop survived the exception.
    FnMessage again([] { return -3; });
    EXPECT_EQ(queue.postSynchronously(again), -3);

    // Posting synchronously from the servicing thread performs at once instead of waiting
    // for itself.
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
        startAndWait();
        EXPECT_NE(queue.getWakeupDescriptor(), -1);
        servicer.stop();
        queue.join();
        queue.join();
        EXPECT_FALSE(queue.isRunning());
        EXPECT_EQ(queue.getWakeupDescriptor(), -1);
    }
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
    std::vector<int> order;
    std::vector<int> descriptors;
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
}

// run() neither services nor returns until released, so messages pile up in the queue.
class BlockedServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        started.set_value();
        release.get_future().wait_for(kPatience);
    }
    std::promise<void> started;
    std::promise<void> release;
};

TEST(ControlMessageQueue, MessagesQueuedAtDestructionAreDiscardedAndFreed) {
    BlockedServicer servicer;
    std::atomic<int> performed{0};
    std::atomic<int> freed{0};
    constexpr int kQueued = 5;
    {
        ControlMessageQueueUNIX queue(&servicer);
        ASSERT_TRUE(queue.start());
        ASSERT_EQ(servicer.started.get_future().wait_for(kPatience), std::future_status::ready);
        for (int i = 0; i < kQueued; ++i) {
            queue.postAsynchronously(new FnMessage(
                [&] {
                    ++performed;
                    return 0;
                },
                &freed));
        }
        // The last message to be discarded lets run() return, so that the destructor's
        // join can complete.
        struct Releaser : ControlMessage {
            explicit Releaser(std::promise<void>& p) : release(p) {}
            ~Releaser() override { release.set_value(); }
            int action() override { return 0; }
            std::promise<void>& release;
        };
        queue.postAsynchronously(new Releaser(servicer.release));
    }
    EXPECT_EQ(performed, 0);
    EXPECT_EQ(freed, kQueued);
}

// Lets a test hold the new thread inside its start-up, or make the start-up fail.
class ScriptedQueue : public ControlMessageQueueUNIX {
public:
    using ControlMessageQueueUNIX::ControlMessageQueueUNIX;
    ~ScriptedQueue() override {
        // The base destructor finishes and joins; the gate must not hold the thread then.
        openGate();
    }
    void openGate() {
        std::lock_guard<std::mutex> lock(mutex_);
        gateOpen_ = true;
        changed_.notify_all();
    }
    Counter inStartUp;
    std::atomic<int> failuresLeft{0};

protected:
    bool initialiseInThread() override {
        inStartUp.bump();
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_for(lock, kPatience, [&] { return gateOpen_; });
        }
        bool ok = ControlMessageQueueUNIX::initialiseInThread();
        if (ok && failuresLeft > 0) {
            // As if fcntl had failed after pipe: the pipe is closed again.
            --failuresLeft;
            closeWakeup();
            return false;
        }
        return ok;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool gateOpen_ = false;
};

TEST(ControlMessageQueue, SecondStartWaitsForTheFirstThreadsStartUp) {
    LoopServicer servicer;
    ScriptedQueue queue(&servicer);
    servicer.queue = &queue;
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
    queue.openGate();
    second.join();
    // It waited for the first thread to be running, saw it, and started no second one.
    EXPECT_FALSE(secondStarted);
    EXPECT_EQ(queue.inStartUp.count(), 1);
    ASSERT_TRUE(servicer.started.waitFor(1));
    servicer.stop();
    queue.join();
}

TEST(ControlMessageQueue, FailedStartUpLeavesTheQueueStoppedAndALaterStartWorks) {
    LoopServicer servicer;
    ScriptedQueue queue(&servicer);
    servicer.queue = &queue;
    queue.failuresLeft = 1;
    queue.openGate();
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(queue.inStartUp.waitFor(1));
    // isRunning() needs the queue mutex, which the start-up holds until it is over.
    EXPECT_FALSE(queue.isRunning());
    std::atomic<int> freed{0};
    bool onCaller = false;
    std::thread::id caller = std::this_thread::get_id();
    queue.postAsynchronously(new FnMessage(
        [&] {
            onCaller = std::this_thread::get_id() == caller;
            return 0;
        },
        &freed));
    EXPECT_TRUE(onCaller);
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(servicer.started.count(), 0);  // run() was never called

    // The failed thread is joined by the next start, which runs normally.
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(servicer.started.waitFor(1));
    EXPECT_TRUE(queue.isRunning());
    servicer.stop();
    queue.join();
    EXPECT_EQ(queue.inStartUp.count(), 2);
}

TEST(ControlMessageQueue, DestructionRacingARunThatEndsOnItsOwnIsSafe) {
    // Nobody calls join(): the destructor must wait for the thread (a sanitizer reports a
    // leaked or raced thread), whichever of the two finishes the queue first.
    ReturningServicer servicer;
    std::unique_ptr<ControlMessageQueueUNIX> queue(new ControlMessageQueueUNIX(&servicer));
    servicer.queue = queue.get();
    ASSERT_TRUE(queue->start());
    queue.reset();
    EXPECT_LE(servicer.order.size(), 3u);
}

}  // namespace
