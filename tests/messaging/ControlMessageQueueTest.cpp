// The control queue between application threads and the one servicing thread: order, the
// thread's start and end, the wake-up bytes, allocation failure, and the races between them.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "FailingAllocator.h"
#include "messaging/ConditionUNIX.h"
#include "messaging/ControlMessage.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/Mutex.h"
#include "plat/Exception.h"

namespace {

using messaging::ControlMessageQueueUNIX;
using Seen = std::vector<std::string>;

// Counts events on any thread; waitFor(n) waits (at most ten seconds) for the nth.
struct Counter {
    void bump() {
        std::lock_guard<std::mutex> lock(mutex);
        ++n;
        changed.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return n >= count; });
    }
    int count() {
        std::lock_guard<std::mutex> lock(mutex);
        return n;
    }
    std::mutex mutex;
    std::condition_variable changed;
    int n = 0;
};

// Performs a function; counts its own destruction so that tests see discarded messages freed.
struct FnMessage : messaging::ControlMessage {
    explicit FnMessage(std::function<int()> fn, Counter* freed = nullptr)
        : fn(std::move(fn)), freed(freed) {}
    ~FnMessage() override {
        if (freed) freed->bump();
    }
    int action() override { return fn(); }
    std::function<int()> fn;
    Counter* freed;
};

// The servicing thread runs `body`, by default an endpoint's loop: wait on the wake-up
// descriptor, service the queue, until a message sets `stop`. Hooks let a test hold the new
// thread in its start-up or before it takes the queue mutex, fail its start-up once, or
// slow down a synchronous poster's wake-up.
struct Queue : messaging::ControlMessageQueue::Servicer, ControlMessageQueueUNIX {
    Queue() : ControlMessageQueueUNIX(this) {}
    ~Queue() override {  // as the base destructor does, but before the members go
        gate.bump();
        entryGate.bump();
        waitForStartUp();
        finish(false);
        join();
    }
    void run() override {
        started.bump();
        if (body) return body();
        for (stop = false; !stop;) {
            pollfd entry = {getWakeupDescriptor(), POLLIN, 0};
            if (::poll(&entry, 1, -1) == 1) serviceMessages();
        }
    }
    // Ends the default loop through the queue, after every message posted before.
    void stopAndJoin() {
        FnMessage message([this] { return stop = true; });
        postSynchronously(message);
        join();
        EXPECT_FALSE(isRunning());
        EXPECT_EQ(getWakeupDescriptor(), -1);
    }
    void startThread() override {
        if (!holdEntry) return ControlMessageQueueUNIX::startThread();
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, heldEntry, this), 0);
    }
    static void* heldEntry(void* self) {
        auto* queue = static_cast<Queue*>(self);
        queue->threadsCreated.bump();
        queue->entryGate.waitFor(1);
        queue->threadBody();
        return nullptr;
    }
    bool initialiseInThread() override {
        inStartUp.bump();
        gate.waitFor(1);
        if (!ControlMessageQueueUNIX::initialiseInThread()) return false;
        if (failuresLeft == 0) return true;
        --failuresLeft;  // as if fcntl had failed after pipe: the pipe is closed again
        closeWakeup();
        return false;
    }
    void notify() override {
        notified.bump();
        ControlMessageQueueUNIX::notify();
    }
    using ControlMessageQueueUNIX::consumeNotifications;
    // With wakeGate set, a woken synchronous poster lets go of the queue mutex until
    // wakeGate is bumped, and bumps rewoken once it holds the mutex again.
    struct SlowWake : messaging::ConditionUNIX {
        explicit SlowWake(Queue& q) : q(q) {}
        void wait(messaging::Mutex& mutex) override {
            ConditionUNIX::wait(mutex);
            mutex.unlock();
            q.wakeGate->waitFor(1);
            mutex.lock();
            q.rewoken->bump();
        }
        Queue& q;
    };
    messaging::Condition* createCondition() override {
        return wakeGate ? new SlowWake(*this) : ControlMessageQueueUNIX::createCondition();
    }
    // Starts the thread past its start-up and waits for run().
    void startAndWait() {
        gate.bump();
        int runs = started.count();
        ASSERT_TRUE(start());
        ASSERT_TRUE(started.waitFor(runs + 1));
        ASSERT_TRUE(isRunning());
    }

    std::function<void()> body;
    bool stop = false;  // servicing thread only
    std::atomic<int> failuresLeft{0};
    std::atomic<bool> holdEntry{false};
    Counter *wakeGate = nullptr, *rewoken = nullptr;
    Counter started, inStartUp, gate, threadsCreated, entryGate, notified;
};

// Messages from several threads are performed on the servicing thread, in queue order,
// exactly once. A synchronous post gives back the result or the exception; made from the
// servicing thread it performs at once instead of waiting for itself.
TEST(ControlMessageQueue, PostsArePerformedInOrderOnceOnTheServicingThread) {
    Queue queue;
    ASSERT_NO_FATAL_FAILURE(queue.startAndWait());
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
    FnMessage answer([&] { return queue.isServicerThread() ? 42 : -1; });
    EXPECT_EQ(queue.postSynchronously(answer), 42);
    FnMessage failing([]() -> int { throw plat::Exception("refused"); });
    EXPECT_THROW(queue.postSynchronously(failing), plat::Exception);
    FnMessage nested([&] {
        FnMessage inner([] { return 5; });
        return queue.postSynchronously(inner) + 1;
    });
    EXPECT_EQ(queue.postSynchronously(nested), 6);
    queue.stopAndJoin();
    ASSERT_EQ(performed.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(offThread, 0);
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : performed) ASSERT_EQ(i, next[p]++) << "producer " << p;
}

// Messages left when run() returns are performed on the servicing thread, in order, after
// the wake-up pipe has gone.
TEST(ControlMessageQueue, MessagesLeftWhenRunReturnsArePerformedAfterThePipeHasGone) {
    Queue queue;
    std::vector<int> seen;  // servicing thread only until join()
    queue.body = [&] {
        for (int i = 0; i < 3; ++i) {
            queue.postAsynchronously(new FnMessage([&, i] {
                bool late = queue.isServicerThread() && queue.getWakeupDescriptor() == -1;
                return seen.push_back(late ? i : -1), 0;
            }));
        }
    };
    queue.gate.bump();
    ASSERT_TRUE(queue.start());
    queue.join();  // waits for run() and the finish that follows it
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

// Nobody calls join(): the destructor waits for run() and discards (and frees) what was
// queued before it came, what is posted once the queue has stopped is performed at once on
// the posting thread, and a synchronous poster whose entry is discarded is woken with 0. That
// poster still needs the queue mutex to return, so the queue must not go before it has.
TEST(ControlMessageQueue, DestroyingTheQueueDiscardsWhatIsQueuedAndLetsAWaitingPosterLeave) {
    auto owned = std::make_unique<Queue>();
    Queue* q = owned.get();  // reset() clears owned before it destroys
    Counter freed, wakeGate, rewoken;
    std::vector<int> seen;
    q->body = [&] {
        auto post = [&](int i) {
            q->postAsynchronously(new FnMessage([&, i] { return seen.push_back(i), 0; }, &freed));
        };
        post(0);
        q->started.bump();
        while (q->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        post(1);
        post(2);
    };
    q->wakeGate = &wakeGate;
    q->rewoken = &rewoken;
    ASSERT_NO_FATAL_FAILURE(q->startAndWait());
    ASSERT_TRUE(q->started.waitFor(2));
    std::atomic<bool> performed{false};
    int result = -1;
    std::thread poster([&] {
        FnMessage message([&] { return performed = true, 7; });
        result = q->postSynchronously(message);
    });
    ASSERT_TRUE(q->notified.waitFor(2));
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        wakeGate.bump();
    });
    owned.reset();
    EXPECT_EQ(rewoken.count(), 1);  // the poster had the mutex back before the queue went
    poster.join();
    opener.join();
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(performed);
    EXPECT_EQ(freed.count(), 3);
    EXPECT_EQ(seen, (std::vector<int>{1, 2}));
}

// The queue's own destructor discards what is still queued: freed, never performed, since
// the servicer it would run for is going away.
TEST(ControlMessageQueue, TheQueuesDestructorDiscardsWhatIsQueued) {
    struct Idle : messaging::ControlMessageQueue::Servicer {
        void run() override {
            while (queue->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ControlMessageQueueUNIX* queue = nullptr;
    } idle;
    auto queue = std::make_unique<ControlMessageQueueUNIX>(&idle);
    idle.queue = queue.get();
    ASSERT_TRUE(queue->start());
    for (int i = 0; i < 5000 && !queue->isRunning(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(queue->isRunning());
    Counter freed;
    std::atomic<int> performed{0};
    for (int i = 0; i < 3; ++i) {
        queue->postAsynchronously(new FnMessage([&] { return ++performed; }, &freed));
    }
    queue.reset();
    EXPECT_EQ(performed, 0);
    EXPECT_EQ(freed.count(), 3);
}

// The first thread exists but has not yet taken the queue mutex, so the queue does not
// look running: only the pending start-up keeps the second start() from creating another
// thread.
TEST(ControlMessageQueue, SecondStartWaitsForTheFirstThreadsStartUp) {
    Queue queue;
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
    EXPECT_FALSE(secondStarted);
    EXPECT_EQ(queue.threadsCreated.count(), 1);
    ASSERT_TRUE(queue.started.waitFor(1));
    queue.stopAndJoin();
    EXPECT_EQ(queue.started.count(), 1);
}

// While stopped, a post is performed at once on the caller, and freed even when it throws;
// the failed thread is joined by the next start, which works.
TEST(ControlMessageQueue, FailedStartUpLeavesTheQueueStoppedAndALaterStartWorks) {
    Queue queue;
    queue.failuresLeft = 1;
    queue.gate.bump();
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(queue.inStartUp.waitFor(1));
    EXPECT_FALSE(queue.isRunning());  // it waits for the start-up, which holds the mutex
    std::atomic<int> performed{0};
    Counter freed;
    queue.postAsynchronously(new FnMessage([&] { return ++performed; }, &freed));
    EXPECT_EQ(performed, 1);
    EXPECT_EQ(freed.count(), 1);
    EXPECT_THROW(queue.postAsynchronously(
                     new FnMessage([]() -> int { throw plat::Exception("boom"); }, &freed)),
                 plat::Exception);
    EXPECT_EQ(freed.count(), 2);
    EXPECT_EQ(queue.started.count(), 0);  // run() was never called
    for (int round = 0; round < 2; ++round) {
        ASSERT_NO_FATAL_FAILURE(queue.startAndWait());
        queue.stopAndJoin();
    }
    EXPECT_EQ(queue.inStartUp.count(), 3);
}

// Every allocation of every post fails once in turn, while the loop is held so that the
// queue itself has to grow: each failure throws std::bad_alloc with the message freed and
// nothing queued, and every post that went through is performed once, in order. Once the
// loop has caught up, as many posts again find their storage kept and allocate nothing. A
// synchronous post whose allocation fails never runs its action.
TEST(ControlMessageQueue, AllocationFailureInAPostFreesTheMessageAndQueuesNothing) {
    Queue queue;
    ASSERT_NO_FATAL_FAILURE(queue.startAndWait());
    Counter entered, released, freed;
    queue.postAsynchronously(new FnMessage([&] {
        entered.bump();
        return released.waitFor(1) ? 0 : -1;
    }));
    ASSERT_TRUE(entered.waitFor(1));
    std::vector<int> performed, expected;  // performed: servicing thread only until join()
    int failures = 0, runs = 0;
    // Whether post() reached its nth allocation, which must then have thrown std::bad_alloc.
    auto fails = [&](unsigned n, const std::function<void()>& post) {
        zeltest::FailNthAllocation failure(n);
        bool threw = false;
        try {
            post();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        EXPECT_EQ(threw, failure.triggered()) << "allocation " << n;
        return failure.triggered();
    };
    auto post = [&](int k, unsigned n) {
        auto* message =
            new FnMessage([&performed, k] { return performed.push_back(k), 0; }, &freed);
        return fails(n, [&] { queue.postAsynchronously(message); });
    };
    for (int k = 0; k < 300; ++k) {
        expected.push_back(k);
        for (unsigned n = 1; post(k, n); ++n, ++failures) EXPECT_EQ(freed.count(), failures + 1);
    }
    released.bump();
    FnMessage caughtUp([] { return 0; }), sync([&] { return ++runs; });
    queue.postSynchronously(caughtUp);
    for (int k = 300; k < 600; ++k) {
        expected.push_back(k);
        EXPECT_FALSE(post(k, 1)) << k;
    }
    EXPECT_TRUE(fails(1, [&] { queue.postSynchronously(sync); }));
    EXPECT_EQ(runs, 0);
    queue.stopAndJoin();
    EXPECT_EQ(performed, expected);
    EXPECT_EQ(failures, 300);
    EXPECT_EQ(freed.count(), 600 + failures);
}

// How the servicing thread takes its queue, as a trace of what was performed and of the
// wake-up bytes then in the pipe. Each round runs `body` as the servicing thread once
// `post` has run on this one, then joins.
struct Batch : ::testing::Test {
    Queue queue;
    Seen seen;  // servicing thread only until join()

    // The wake-ups pending on the descriptor: a pipe's bytes, or an eventfd's counter (read,
    // and written back).
    void note(const std::string& what) {
        int fd = queue.getWakeupDescriptor();
        int pending = -1;
        if (ioctl(fd, FIONREAD, &pending) != 0) {
            uint64_t count = 0;
            pending =
                ::read(fd, &count, sizeof count) == sizeof count ? static_cast<int>(count) : 0;
            if (count > 0 && ::write(fd, &count, sizeof count) != sizeof count) pending = -1;
        }
        seen.push_back(what + ": " + std::to_string(pending));
    }
    FnMessage* noting(const std::string& what) {
        return new FnMessage([this, what] { return seen.push_back(what), 0; });
    }
    Seen run(const std::function<void()>& body, const std::function<void()>& post) {
        Counter posted;
        seen.clear();
        queue.body = [&] { posted.waitFor(1), body(); };
        queue.startAndWait();
        post();
        posted.bump();
        queue.join();
        return seen;
    }
};

TEST_F(Batch, WakeUpBytes) {
    // The messages the servicing thread queues for itself carry no wake-up byte: they are
    // flagged instead, and keep their place.
    EXPECT_EQ(run(
                  [&] {
                      queue.postFromServicer(noting("own"));
                      note(queue.hasUnsignalledMessages() ? "flagged" : "not flagged");
                      queue.serviceMessages();
                      note(queue.hasUnsignalledMessages() ? "flagged" : "not flagged");
                  },
                  [&] { queue.postAsynchronously(noting("posted")); }),
              (Seen{"flagged: 1", "posted", "own", "not flagged: 0"}));

    // The bytes of a whole batch are read at once. The action's exception reaches the loop
    // that called serviceMessages(), its entry freed with it; the entries behind it wait,
    // and get their bytes back, or a loop that waits on the descriptor never comes back.
    Counter freed;
    EXPECT_EQ(run(
                  [&] {
                      note("before");
                      try {
                          queue.serviceMessages();
                      } catch (const plat::Exception& e) {
                          note(e.str() + (", freed " + std::to_string(freed.count())));
                      }
                      queue.serviceMessages();
                      note("after");
                  },
                  [&] {
                      queue.postAsynchronously(
                          new FnMessage([]() -> int { throw plat::Exception("failed"); }, &freed));
                      queue.postAsynchronously(noting("a"));
                      queue.postAsynchronously(noting("b"));
                  }),
              (Seen{"before: 3", "failed, freed 1: 2", "a", "b", "after: 0"}));

    // A read of fewer wake-ups than are pending leaves the rest on the descriptor (an
    // eventfd's read takes the whole counter, so the rest is written back).
    EXPECT_EQ(run(
                  [&] {
                      queue.notify(), queue.notify(), queue.notify();
                      note(std::to_string(queue.consumeNotifications(1)));
                  },
                  [] {}),
              (Seen{"1: 2"}));

    // A loop that announces its waits hears of every post: those made while it is busy by
    // finding the queue not empty when it is about to block, those made while it blocks by
    // their byte. A post during the wait that wrote nothing would leave the loop asleep; the
    // posts after it, before the loop has run, need none of their own.
    queue.announceWaits();
    Counter waiting, postedWaiting;
    auto wait = [&] { note(queue.beginWait() ? "may block" : "must not block"); };
    std::thread whileWaiting([&] {
        waiting.waitFor(1);
        queue.postAsynchronously(noting("waiting"));
        queue.postAsynchronously(noting("also waiting"));
        postedWaiting.bump();
    });
    EXPECT_EQ(run(
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
                  [&] { queue.postAsynchronously(noting("busy")); }),
              (Seen{"must not block: 0", "busy", "may block: 0", "woken: 1", "waiting",
                    "also waiting", "done: 0"}));
    whileWaiting.join();
}

// A scope that let go of its lock must not let go of it again: a second unlock would
// release the lock another thread has taken since.
TEST(MutexLock, ReleasesOnlyWhatItHolds) {
    struct Counting : messaging::Mutex {
        std::string calls;
        void lock() override { calls += "L"; }
        void unlock() override { calls += "U"; }
    } mutex;
    {
        messaging::MutexLock lock(mutex);
        lock.unlock();
    }
    {
        messaging::MutexLock lock(mutex);
        lock.unlock();
        lock.lock();
    }
    EXPECT_EQ(mutex.calls, "LULULU");
}

}  // namespace
