// An endpoint-style thread on virtual time: its select() is bounded by the timer manager,
// and moving a ManualClock wakes it through the queue's wake-up descriptor.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

#include "messaging/ControlMessage.h"
#include "messaging/ControlMessageQueueUNIX.h"
#include "plat/Clock.h"
#include "plat/ManualClock.h"
#include "plat/TimerManager.h"

namespace {

using messaging::ControlMessage;
using messaging::ControlMessageQueue;

class Fn : public ControlMessage {
public:
    explicit Fn(std::function<int()> fn) : fn_(std::move(fn)) {}
    int action() override { return fn_(); }

private:
    std::function<int()> fn_;
};

class Flag {
public:
    void set() {
        std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return set_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;
};

// The loop of a session: fire due timers, wait for the wake-up descriptor no longer than
// the clock allows, service the queue.
class TimerLoopServicer : public ControlMessageQueue::Servicer, public plat::Timer::Callback {
public:
    void run() override {
        plat::TimerManager manager;
        plat::Timer timer(this);
        timer.start(5000);
        started.set();
        int fd = queue->getWakeupDescriptor();
        while (!stopRequested) {
            manager.processTimers();
            int waitMs = plat::Clock::current().realWaitMs(manager.timeUntilNext());
            timeval timeout{waitMs / 1000, (waitMs % 1000) * 1000};
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(fd, &readable);
            if (select(fd + 1, &readable, nullptr, nullptr, waitMs < 0 ? nullptr : &timeout) > 0) {
                queue->serviceMessages();
            }
        }
    }
    int timerFired(plat::Timer&) override {
        firedOnLoop = true;
        fired.set();
        return 0;
    }

    ControlMessageQueue* queue = nullptr;
    Flag started;
    Flag fired;
    bool firedOnLoop = false;    // servicing thread only
    bool stopRequested = false;  // servicing thread only
};

// Wakes the loop whenever the test moves the clock.
class WakeOnClockChange : public plat::ManualClock::Listener {
public:
    explicit WakeOnClockChange(ControlMessageQueue& queue) : queue_(queue) {}
    void timeChanged(plat::ManualClock&) override {
        queue_.postAsynchronously(new Fn([] { return 0; }));
    }

private:
    ControlMessageQueue& queue_;
};

TEST(VirtualTimeLoop, MovingTheClockWakesTheLoopAndFiresItsTimer) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    EXPECT_EQ(clock.realWaitMs(5000), -1);
    EXPECT_EQ(plat::SystemClock::instance().realWaitMs(5000), 5000);

    TimerLoopServicer servicer;
    messaging::ControlMessageQueueUNIX queue(&servicer);
    servicer.queue = &queue;
    WakeOnClockChange wake(queue);
    clock.addListener(&wake);
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(servicer.started.wait());

    // Asks the loop's own manager, on the loop's thread, whether the timer fired.
    Fn probe([&] {
        plat::TimerManager::current()->processTimers();
        return servicer.firedOnLoop ? 1 : 0;
    });
    clock.advanceMs(4999);
    EXPECT_EQ(queue.postSynchronously(probe), 0);
    clock.advanceMs(1);  // only this wake-up can end the loop's unbounded wait
    ASSERT_TRUE(servicer.fired.wait());

    Fn stop([&] {
        servicer.stopRequested = true;
        return 0;
    });
    queue.postSynchronously(stop);
    queue.join();
    clock.removeListener(&wake);
}

// run() services the queue once, when the test says so.
class GatedServicer : public ControlMessageQueue::Servicer {
public:
    void run() override {
        started.set();
        gate.wait();
        queue->serviceMessages();
        int fd = queue->getWakeupDescriptor();
        ioctl(fd, FIONREAD, &bytesLeft);
    }
    ControlMessageQueue* queue = nullptr;
    Flag started;
    Flag gate;
    int bytesLeft = -1;
};

TEST(WakeupPipe, HoldsOneBytePerQueuedMessage) {
    GatedServicer servicer;
    messaging::ControlMessageQueueUNIX queue(&servicer);
    servicer.queue = &queue;
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(servicer.started.wait());
    std::atomic<int> performed{0};
    for (int i = 0; i < 3; ++i) {
        queue.postAsynchronously(new Fn([&] { return ++performed; }));
    }
    int bytes = -1;
    ASSERT_EQ(ioctl(queue.getWakeupDescriptor(), FIONREAD, &bytes), 0);
    EXPECT_EQ(bytes, 3);
    servicer.gate.set();
    queue.join();
    EXPECT_EQ(performed, 3);
    EXPECT_EQ(servicer.bytesLeft, 0);
}

}  // namespace
