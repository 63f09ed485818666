#include "plat/Clock.h"

#include <sys/time.h>
#include <time.h>

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

namespace {

int64_t monotonicTicks() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kTicksPerSecond +
           static_cast<int64_t>(ts.tv_nsec) / 100;
}

int64_t wallClockTicks() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * kTicksPerSecond +
           static_cast<int64_t>(tv.tv_usec) * 10 + kUnixEpochTicks;
}

}  // namespace

// Timers run on the monotonic clock: head units step their wall clock, and with the wall
// clock as the base a forward step of a few seconds fired the ping and request time-outs at
// once and dropped a healthy connection. The timer manager still heals jumps, for the clocks
// that do jump (a test's clock).
SystemClock::SystemClock() : offset_(wallClockTicks() - monotonicTicks()) {}

int64_t SystemClock::nowTicks() {
    return monotonicTicks() + offset_;
}

SystemClock& SystemClock::instance() {
    // Never destroyed: threads still running at exit may read the clock.
    static SystemClock* clock = new SystemClock;
    return *clock;
}

}  // namespace plat
