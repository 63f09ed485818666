#include "plat/Clock.h"

#include <sys/time.h>

#include <atomic>

namespace plat {

namespace {
// Readers on the endpoint threads race with a test installing its clock, hence atomic.
std::atomic<Clock*> gCurrentClock{nullptr};
}  // namespace

Clock::~Clock() = default;

Clock& Clock::current() {
    Clock* clock = gCurrentClock.load(std::memory_order_acquire);
    return clock ? *clock : SystemClock::instance();
}

void Clock::setCurrent(Clock* clock) {
    gCurrentClock.store(clock, std::memory_order_release);
}

int64_t Clock::now() {
    return current().nowTicks();
}

int64_t SystemClock::nowTicks() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * kTicksPerSecond +
           static_cast<int64_t>(tv.tv_usec) * 10 + kUnixEpochTicks;
}

SystemClock& SystemClock::instance() {
    // Never destroyed: threads still running at exit may read the clock.
    static SystemClock* clock = new SystemClock;
    return *clock;
}

}  // namespace plat
