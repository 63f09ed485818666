#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "FailingAllocator.h"
#include "messaging/ConditionUNIX.h"
#include "messaging/ControlMessageQueue.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "messaging/Mutex.h"
#include "plat/Exception.h"

namespace {

using messaging::ControlMessageQueueUNIX;
using messagingtest::BodyServicer;
using messagingtest::Counter;
using messagingtest::FnMessage;
using messagingtest::LoopServicer;

// Lets a test hold the new thread inside its start-up, or make the start-up fail.
class ScriptedQueue : public ControlMessageQueueUNIX {
public:
    using ControlMessageQueueUNIX::ControlMessageQueueUNIX;
    ~ScriptedQueue() override {  // the base destructor joins the thread
        gate.bump();
        entryGate.bump();
    }
    Counter inStartUp;
    Counter gate;  // the start-up goes on once this is bumped
    std::atomic<int> failuresLeft{0};
    // With holdEntry set, a new thread waits for entryGate before its body takes the queue
    // mutex: the gap in which nothing but the pending start keeps a second start() out.
    std::atomic<bool> holdEntry{false};
    Counter threadsCreated, entryGate;
    Counter notified;  // wake-up bytes written, one per queued message
    // When set (before the poster queues its entry), a synchronous poster that has been woken
    // lets go of the queue mutex until *wakeGate is bumped, and bumps *rewoken once it holds
    // the mutex again.
    Counter* wakeGate = nullptr;
    Counter* rewoken = nullptr;

    void startThread() override {
        if (!holdEntry) return ControlMessageQueueUNIX::startThread();
        pthread_t thread;
        if (int err = pthread_create(&thread, nullptr, heldEntry, this)) {
            cancelStart();
            throw plat::SystemException("pthread_create", err);
        }
    }
    messaging::Condition* createCondition() override {
        if (!wakeGate) return ControlMessageQueueUNIX::createCondition();
        return new SlowWakeCondition(*wakeGate, *rewoken);
    }

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
    void notify() override {
        notified.bump();
        ControlMessageQueueUNIX::notify();
    }

private:
    class SlowWakeCondition : public messaging::ConditionUNIX {
    public:
        SlowWakeCondition(Counter& gate, Counter& rewoken) : gate_(gate), rewoken_(rewoken) {}
        void wait(messaging::Mutex& mutex) override {
            ConditionUNIX::wait(mutex);
            mutex.unlock();
            gate_.waitFor(1);
            mutex.lock();
            rewoken_.bump();
        }

    private:
        Counter& gate_;
        Counter& rewoken_;
    };

    static void* heldEntry(void* self) {
        auto* queue = static_cast<ScriptedQueue*>(self);
        queue->threadsCreated.bump();
        queue->entryGate.waitFor(1);
        queue->threadBody();
        return nullptr;
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
    void stopAndJoin() {
        servicer.stop();
        queue.join();
        EXPECT_FALSE(queue.isRunning());
        EXPECT_EQ(queue.getWakeupDescriptor(), -1);
    }
    LoopServicer servicer;
    ScriptedQueue queue{&servicer};
};

// Runs post() with its nth allocation failing. Returns whether that allocation was reached,
// having checked that the post threw std::bad_alloc exactly when it was.
template <typename Fn>
bool failingAllocation(unsigned n, Fn&& post) {
    bool threw = false, triggered;
    {
        zeltest::FailNthAllocation failure(n);
        try {
            post();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        triggered = failure.triggered();
    }
    EXPECT_EQ(threw, triggered) << "allocation " << n;
    return triggered;
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
    stopAndJoin();  // the stop is queued behind everything the producers posted
    ASSERT_EQ(performed.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(offThread, 0);
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : performed) ASSERT_EQ(i, next[p]++) << "producer " << p;
}

TEST_F(RunningQueue, SynchronousPostingReturnsTheResultOrTheException) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    FnMessage answer([&] { return queue.isServicerThread() ? 42 : -1; });
    EXPECT_EQ(queue.postSynchronously(answer), 42);
    FnMessage failing([]() -> int { throw plat::Exception("refused"); });
    EXPECT_THROW(queue.postSynchronously(failing), plat::Exception);
    // The loop survived; posting synchronously from the servicing thread performs at once
    // instead of waiting for itself.
    FnMessage nested([&] {
        FnMessage inner([] { return 5; });
        return queue.postSynchronously(inner) + 1;
    });
    EXPECT_EQ(queue.postSynchronously(nested), 6);
    stopAndJoin();
}

// Messages left when run() returns are performed on the servicing thread, in order, after
// the wake-up pipe has gone.
TEST(ControlMessageQueue, MessagesQueuedWhenRunReturnsArePerformedAfterThePipeCloses) {
    BodyServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    std::vector<int> seen;  // servicing thread only until join()
    servicer.body = [&] {
        for (int i = 0; i < 3; ++i) {
            queue.postAsynchronously(new FnMessage([&, i] {
                bool ok = queue.isServicerThread() && queue.getWakeupDescriptor() == -1;
                seen.push_back(ok ? i : -1);
                return 0;
            }));
        }
    };
    ASSERT_TRUE(queue.start());
    queue.join();  // waits for run() and the finish that follows it
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

// Nobody calls join(): the destructor must wait for a run() that is still going. The message
// queued before the destructor came is discarded and freed; those posted once the queue has
// stopped are performed at once on the posting thread.
TEST(ControlMessageQueue, DestructorDiscardsQueuedMessagesAndWaitsForRun) {
    BodyServicer servicer;
    auto queue = std::make_unique<ControlMessageQueueUNIX>(&servicer);
    ControlMessageQueueUNIX* q = queue.get();  // reset() clears queue before it destroys
    Counter started, freed;
    std::vector<int> order;
    servicer.body = [&] {
        auto post = [&](int i) {
            q->postAsynchronously(new FnMessage(
                [&, i] {
                    order.push_back(i);
                    return 0;
                },
                &freed));
        };
        post(0);
        started.bump();
        while (q->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        post(1);
        post(2);
    };
    ASSERT_TRUE(queue->start());
    ASSERT_TRUE(started.waitFor(1));
    queue.reset();
    EXPECT_EQ(freed.count(), 3);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

// The first thread exists but has not yet taken the queue mutex, so the queue does not
// look running: only the pending start-up keeps the second start() from creating another
// thread.
TEST_F(RunningQueue, SecondStartWaitsForTheFirstThreadsStartUp) {
    queue.holdEntry = true;
    queue.gate.bump();
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(queue.threadsCreated.waitFor(1));
    std::atomic<bool> secondDone{false};
    bool secondStarted = true;
    std::thread second([&] {
        secondStarted = queue.start();
        secondDone = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(secondDone);
    queue.entryGate.bump();
    second.join();
    // It waited for the first thread to be running, saw it, and started no second one.
    EXPECT_FALSE(secondStarted);
    EXPECT_EQ(queue.threadsCreated.count(), 1);
    ASSERT_TRUE(servicer.started.waitFor(1));
    stopAndJoin();
    EXPECT_EQ(servicer.started.count(), 1);
}

// While stopped, a post is performed at once on the caller, and freed even when it throws.
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
    EXPECT_EQ(performed, 1);
    EXPECT_EQ(freed.count(), 1);
    EXPECT_THROW(queue.postAsynchronously(
                     new FnMessage([]() -> int { throw plat::Exception("boom"); }, &freed)),
                 plat::Exception);
    EXPECT_EQ(freed.count(), 2);
    EXPECT_EQ(servicer.started.count(), 0);    // run() was never called
    for (int round = 0; round < 2; ++round) {  // joins the failed thread, then restarts
        ASSERT_NO_FATAL_FAILURE(startAndWait());
        stopAndJoin();
    }
    EXPECT_EQ(queue.inStartUp.count(), 3);
}

// The destructor discards the waiting poster's entry, which wakes the poster with 0; the
// poster still needs the queue mutex to return, so the queue must not go before it has.
TEST(ControlMessageQueue, DestroyingTheQueueLetsAWaitingSynchronousPosterLeaveFirst) {
    BodyServicer servicer;
    Counter wakeGate, rewoken, started;
    auto queue = std::make_unique<ScriptedQueue>(&servicer);
    ScriptedQueue* q = queue.get();  // reset() clears queue before it destroys
    servicer.body = [&] {
        started.bump();
        while (q->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    queue->gate.bump();
    queue->wakeGate = &wakeGate;
    queue->rewoken = &rewoken;
    ASSERT_TRUE(queue->start());
    ASSERT_TRUE(started.waitFor(1));
    std::atomic<bool> performed{false};
    int result = -1;
    std::thread poster([&] {
        FnMessage message([&] {
            performed = true;
            return 7;
        });
        result = queue->postSynchronously(message);
    });
    ASSERT_TRUE(queue->notified.waitFor(1));
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        wakeGate.bump();
    });
    queue.reset();
    EXPECT_EQ(rewoken.count(), 1);  // the poster had the mutex back before the queue went
    poster.join();
    opener.join();
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(performed);
}

// Every allocation of every post fails once in turn, while the loop is held so that the
// queue itself has to grow: each failure throws std::bad_alloc at once with the message
// freed and nothing queued, and every post that went through is performed once, in order.
TEST_F(RunningQueue, AllocationFailureInAnAsynchronousPostFreesTheMessage) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    Counter entered, released, freed;
    queue.postAsynchronously(new FnMessage([&] {
        entered.bump();
        return released.waitFor(1) ? 0 : -1;
    }));
    ASSERT_TRUE(entered.waitFor(1));
    constexpr int kPosts = 300;
    std::vector<int> performed, expected;  // performed: servicing thread only until join()
    int failures = 0, queueGrowthFailures = 0;
    for (int k = 0; k < kPosts; ++k) {
        expected.push_back(k);
        for (unsigned n = 1;; ++n) {
            auto record = [&performed, k] {
                performed.push_back(k);
                return 0;
            };
            auto* message = new FnMessage(record, &freed);
            int freedBefore = freed.count();
            if (!failingAllocation(n, [&] { queue.postAsynchronously(message); })) break;
            EXPECT_EQ(freed.count(), freedBefore + 1) << "post " << k << ", allocation " << n;
            ++failures;
            queueGrowthFailures += n > 1;
        }
    }
    released.bump();
    servicer.stop();
    queue.join();
    EXPECT_EQ(performed, expected);
    EXPECT_EQ(freed.count(), kPosts + failures);
    EXPECT_GE(queueGrowthFailures, 1);
}

// A synchronous post whose allocations fail throws before anything is queued, so the
// action never runs; once they succeed it runs exactly once.
TEST_F(RunningQueue, AllocationFailureInASynchronousPostIsThrownWithNothingPerformed) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    int performed = 0, result = -1;
    FnMessage message([&] { return ++performed; });
    unsigned n = 1;
    for (; failingAllocation(n, [&] { result = queue.postSynchronously(message); }); ++n) {
        EXPECT_EQ(performed, 0) << n;
        ASSERT_LT(n, 20u);
    }
    EXPECT_GE(n, 2u);
    EXPECT_EQ(result, 1);
    stopAndJoin();
    EXPECT_EQ(performed, 1);
}

}  // namespace
