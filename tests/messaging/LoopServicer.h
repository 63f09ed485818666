#pragma once

#include <sys/select.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

#include "messaging/ControlMessage.h"
#include "messaging/ControlMessageQueue.h"
#include "plat/Clock.h"
#include "plat/TimerManager.h"

namespace messagingtest {

// How long a test waits for another thread before it gives up and fails.
constexpr auto kPatience = std::chrono::seconds(10);

// Counts events on any thread and lets a test wait for a count.
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

// Performs a function; counts its own destruction so that tests see discarded messages freed.
class FnMessage : public messaging::ControlMessage {
public:
    explicit FnMessage(std::function<int()> fn, Counter* freed = nullptr)
        : fn_(std::move(fn)), freed_(freed) {}
    ~FnMessage() override {
        if (freed_) freed_->bump();
    }
    int action() override { return fn_(); }

private:
    std::function<int()> fn_;
    Counter* freed_;
};

// Runs whatever body the test gives it as the servicing thread's run().
class BodyServicer : public messaging::ControlMessageQueue::Servicer {
public:
    void run() override { body(); }
    std::function<void()> body;
};

// The servicing thread's loop as an endpoint runs it: fire the due timers, wait in select()
// on the wake-up descriptor no longer than the clock allows, service the queue when it is
// readable; until stop().
class LoopServicer : public messaging::ControlMessageQueue::Servicer {
public:
    void run() override {
        plat::TimerManager manager;
        stopRequested_ = false;
        started.bump();
        int fd = queue->getWakeupDescriptor();
        while (!stopRequested_) {
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
    // Ends the loop through the queue, so every message posted before is performed first.
    void stop() {
        FnMessage message([this] {
            stopRequested_ = true;
            return 0;
        });
        queue->postSynchronously(message);
    }

    messaging::ControlMessageQueue* queue = nullptr;
    Counter started;

private:
    bool stopRequested_ = false;  // touched by the servicing thread only
};

}  // namespace messagingtest
