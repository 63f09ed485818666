// An endpoint-style thread on virtual time: its select() is bounded by the timer manager,
// and moving a ManualClock wakes it through the queue's wake-up descriptor.
#include <gtest/gtest.h>

#include "messaging/ControlMessageQueueUNIX.h"
#include "messaging/LoopServicer.h"
#include "plat/ManualClock.h"

namespace {

using messagingtest::FnMessage;

// Wakes the loop whenever the test moves the clock.
class WakeOnClockChange : public plat::ManualClock::Listener {
public:
    explicit WakeOnClockChange(messaging::ControlMessageQueue& queue) : queue_(queue) {}
    void timeChanged(plat::ManualClock&) override {
        queue_.postAsynchronously(new FnMessage([] { return 0; }));
    }

private:
    messaging::ControlMessageQueue& queue_;
};

TEST(VirtualTimeLoop, MovingTheClockWakesTheLoopAndFiresItsTimer) {
    plat::ManualClock clock;
    plat::ScopedClock useClock(&clock);
    EXPECT_EQ(clock.realWaitMs(5000), -1);
    EXPECT_EQ(plat::SystemClock::instance().realWaitMs(5000), 5000);

    messagingtest::LoopServicer servicer;
    servicer.timerMs = 5000;
    messaging::ControlMessageQueueUNIX queue(&servicer);
    servicer.queue = &queue;
    WakeOnClockChange wake(queue);
    clock.addListener(&wake);
    ASSERT_TRUE(queue.start());
    ASSERT_TRUE(servicer.started.waitFor(1));
    // Asks the loop's own manager, on the loop's thread, whether the timer fired.
    FnMessage probe([&] {
        plat::TimerManager::current()->processTimers();
        return servicer.fired.count();
    });
    clock.advanceMs(4999);
    EXPECT_EQ(queue.postSynchronously(probe), 0);
    clock.advanceMs(1);  // only this wake-up can end the loop's unbounded wait
    ASSERT_TRUE(servicer.fired.waitFor(1));
    servicer.stop();
    queue.join();
    clock.removeListener(&wake);
}

}  // namespace
