#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
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
}

// run() posts one message, waits until the destructor has discarded it and stopped the
// queue, then posts two more, which the stopped queue performs at once on this thread, and
// returns.
class LateServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        queue->postAsynchronously(new FnMessage([this] { return perform(0); }, &freed));
        started.bump();
        while (queue->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (int i = 1; i < 3; ++i) {
            queue->postAsynchronously(new FnMessage([this, i] { return perform(i); }, &freed));
        }
    }
    int perform(int i) {
        order.push_back(i);
        return 0;
    }
    ControlMessageQueue* queue = nullptr;
    Counter started, freed;
    std::vector<int> order;
};

// Nobody calls join(): the destructor itself must wait for a run() that is still going.
TEST(ControlMessageQueue, DestructorWaitsForARunThatIsStillGoing) {
    LateServicer servicer;
    auto queue = std::make_unique<ControlMessageQueueUNIX>(&servicer);
    servicer.queue = queue.get();
    ASSERT_TRUE(queue->start());
    ASSERT_TRUE(servicer.started.waitFor(1));
    queue.reset();
    EXPECT_EQ(servicer.freed.count(), 3);
    EXPECT_EQ(servicer.order, (std::vector<int>{1, 2}));
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
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(secondDone);
    queue.entryGate.bump();
    second.join();
    // It waited for the first thread to be running, saw it, and started no second one.
    EXPECT_FALSE(secondStarted);
    EXPECT_EQ(queue.threadsCreated.count(), 1);
    ASSERT_TRUE(servicer.started.waitFor(1));
    servicer.stop();
    queue.join();
    EXPECT_EQ(servicer.started.count(), 1);
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

// run() services nothing and returns once the queue has stopped.
class IdleServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        started.bump();
        while (queue->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ControlMessageQueue* queue = nullptr;
    Counter started;
};

// The destructor discards the waiting poster's entry, which wakes the poster with 0; the
// poster still needs the queue mutex to return, so the queue must not go before it has.
TEST(ControlMessageQueue, DestroyingTheQueueLetsAWaitingSynchronousPosterLeaveFirst) {
    IdleServicer servicer;
    Counter wakeGate, rewoken;
    auto queue = std::make_unique<ScriptedQueue>(&servicer);
    servicer.queue = queue.get();
    queue->gate.bump();
    queue->wakeGate = &wakeGate;
    queue->rewoken = &rewoken;
    ASSERT_TRUE(queue->start());
    ASSERT_TRUE(servicer.started.waitFor(1));
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
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        wakeGate.bump();
    });
    queue.reset();
    EXPECT_EQ(rewoken.count(), 1);  // the poster had the mutex back before the queue went
    poster.join();
    opener.join();
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(performed);
}

class FnServicer : public ControlMessageQueue::Servicer {
public:
    void run() override { body(); }
    std::function<void()> body;
};

// An asynchronous action's exception reaches the loop that called serviceMessages(); its
// entry is freed with it, the entries behind it wait for the next call, and the wake-up
// bytes still match the queue.
TEST(ControlMessageQueue, ActionThatThrowsInServiceMessagesReachesTheLoopAndTheRestStaysQueued) {
    FnServicer servicer;
    ControlMessageQueueUNIX queue(&servicer);
    Counter running, posted, freed;
    std::atomic<int> performed{0};
    std::vector<std::string> seen;  // servicing thread only until join()
    int bytesLeft = -1;
    servicer.body = [&] {
        running.bump();
        posted.waitFor(1);
        try {
            queue.serviceMessages();
            seen.push_back("no exception");
        } catch (const plat::Exception& e) {
            seen.push_back(e.str());
        }
        seen.push_back("freed " + std::to_string(freed.count()) + ", performed " +
                       std::to_string(performed));
        queue.serviceMessages();
        seen.push_back("performed " + std::to_string(performed));
        ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytesLeft);
    };
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(running.waitFor(1));
    queue.postAsynchronously(
        new FnMessage([]() -> int { throw plat::Exception("action failed"); }, &freed));
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }, &freed));
    posted.bump();
    queue.join();
    EXPECT_EQ(seen,
              (std::vector<std::string>{"action failed", "freed 1, performed 0", "performed 1"}));
    EXPECT_EQ(bytesLeft, 0);
    EXPECT_EQ(freed.count(), 2);
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
    std::vector<int> performed;  // servicing thread only until join()
    int failures = 0, queueGrowthFailures = 0;
    // A lambda, so that a failed ASSERT still lets the loop go below.
    auto postAll = [&] {
        for (int k = 0; k < kPosts; ++k) {
            for (unsigned n = 1;; ++n) {
                auto* message = new FnMessage(
                    [&performed, k] {
                        performed.push_back(k);
                        return 0;
                    },
                    &freed);
                int freedBefore = freed.count();
                bool threw = false, triggered;
                {
                    zeltest::FailNthAllocation failure(n);
                    try {
                        queue.postAsynchronously(message);
                    } catch (const std::bad_alloc&) {
                        threw = true;
                    }
                    triggered = failure.triggered();
                }
                ASSERT_EQ(threw, triggered) << "post " << k << ", allocation " << n;
                if (!triggered) break;
                ASSERT_EQ(freed.count(), freedBefore + 1) << "post " << k << ", allocation " << n;
                ++failures;
                if (n > 1) ++queueGrowthFailures;
            }
        }
    };
    postAll();
    released.bump();
    servicer.stop();
    queue.join();
    std::vector<int> expected(kPosts);
    for (int k = 0; k < kPosts; ++k) expected[k] = k;
    EXPECT_EQ(performed, expected);
    EXPECT_EQ(freed.count(), kPosts + failures);
    EXPECT_GE(queueGrowthFailures, 1);
}

// A synchronous post whose allocations fail throws before anything is queued, so the
// action never runs; once they succeed it runs exactly once.
TEST_F(RunningQueue, AllocationFailureInASynchronousPostIsThrownWithNothingPerformed) {
    ASSERT_NO_FATAL_FAILURE(startAndWait());
    int performed = 0;
    FnMessage message([&] { return ++performed; });
    unsigned n = 1;
    for (;; ++n) {
        bool threw = false, triggered;
        int result = -1;
        {
            zeltest::FailNthAllocation failure(n);
            try {
                result = queue.postSynchronously(message);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            triggered = failure.triggered();
        }
        if (!triggered) {
            EXPECT_FALSE(threw);
            EXPECT_EQ(result, 1);
            break;
        }
        EXPECT_TRUE(threw) << n;
        EXPECT_EQ(performed, 0) << n;
        ASSERT_LT(n, 20u);
    }
    EXPECT_GE(n, 2u);
    servicer.stop();
    queue.join();
    EXPECT_EQ(performed, 1);
}

}  // namespace
