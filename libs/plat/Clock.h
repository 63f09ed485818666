#pragma once

#include <cstdint>

namespace plat {

// Time base of the platform layer: 100-nanosecond ticks since 1601-01-01 (signed 64-bit).
constexpr int64_t kTicksPerMillisecond = 10000;
constexpr int64_t kTicksPerSecond = 10000000;
// Ticks from 1601-01-01 to the Unix epoch.
constexpr int64_t kUnixEpochTicks = 116444736000000000;

// The one place where the library reads the time. Everything that needs "now" (the timer
// manager first of all) asks Clock::now(), so that tests can replace the clock of the whole
// process, endpoint threads included, with a clock they move instead of sleeping
// (tests/support's ManualClock).
class Clock {
public:
    virtual ~Clock();

    // The current time in ticks. Called from any thread; must be thread-safe.
    virtual int64_t nowTicks() = 0;

    // How long a thread may block, in real milliseconds, when its next timer is due in
    // `ms` milliseconds of this clock's time (-1 = no timer). The system clock returns ms
    // unchanged. A clock whose time only moves when a test moves it returns -1: waiting
    // in real time would gain nothing, and moving the clock wakes the waiter instead.
    virtual int realWaitMs(int ms) { return ms; }

    // The process-wide current clock; the system clock unless a test installed another.
    static Clock& current();
    // Installs `clock` as the current clock (nullptr restores the system clock). The clock
    // must outlive every reader; install it before starting the threads that use it.
    static void setCurrent(Clock* clock);
    // Clock::current().nowTicks(): one atomic load and one virtual call.
    static int64_t now();
};

// CLOCK_MONOTONIC in ticks, offset once so that it starts at the wall-clock time of its
// construction: the values look like dates, but a step of the wall clock (a head unit
// setting its time) does not move them.
class SystemClock : public Clock {
public:
    int64_t nowTicks() override;
    static SystemClock& instance();

private:
    SystemClock();
    const int64_t offset_;  // wall-clock ticks minus monotonic ticks at construction
};

// Makes a clock the current one for the scope's duration, then restores the previous one.
class ScopedClock {
public:
    explicit ScopedClock(Clock* clock) : previous_(&Clock::current()) { Clock::setCurrent(clock); }
    ~ScopedClock() { Clock::setCurrent(previous_); }
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;

private:
    Clock* previous_;
};

}  // namespace plat
