#pragma once

#include <cstdint>

namespace plat {

class TimerManager;

// A one-shot timer in milliseconds, embedded in its owner and serviced by the TimerManager
// of the thread that starts it. A timer and its manager belong to one thread: nothing here
// is thread-safe.
class Timer {
public:
    class Callback {
    public:
        virtual ~Callback();
        // Called by TimerManager::processTimers() with the timer already unlinked, so it may
        // start, stop or destroy other timers and start its own. A non-zero result asks for
        // the timer to run again after its interval (ignored when the callback started the
        // timer itself, and when the interval is 0 or less; the callback must return 0 if it
        // destroyed the timer).
        virtual int timerFired(Timer& timer) = 0;
    };

    explicit Timer(Callback* callback = nullptr) : callback_(callback) {}
    // Stops the timer.
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // (Re)starts the timer to fire `ms` milliseconds from now on the calling thread's
    // manager. Throws plat::Exception "no TimerManager" when the thread has none (the timer
    // is then stopped).
    void start(int ms);
    // Stops the timer; does nothing when it is not running.
    void stop();

    bool isRunning() const { return next_ != nullptr; }
    int interval() const { return interval_; }
    int64_t due() const { return due_; }
    Callback* callback() const { return callback_; }
    void setCallback(Callback* callback) { callback_ = callback; }

private:
    friend class TimerManager;
    void unlink();

    int64_t due_ = 0;
    int32_t interval_ = 0;
    Callback* callback_;
    // Links of the manager's list; both null while the timer is not running.
    Timer* next_ = nullptr;
    Timer* prev_ = nullptr;
};

// The timers of one thread, ordered by due time (first started first among equal due
// times). The owning thread asks it how long it may wait and lets it fire the due timers
// when the wait ends. At most one manager per thread; Timer::start() finds it through
// thread-local storage. Time comes from Clock::now(), so tests drive it with a clock they
// move by hand.
//
// Clock jumps are healed rather than reported (the system clock is monotonic, but a clock a
// test installs may jump): when the first timer is due further ahead than its own interval
// allows (clock set backwards), or more than four minutes overdue (clock set far forwards),
// every timer is restarted with its full interval from now and a line is logged at level 30
// under "TimerManager".
class TimerManager {
public:
    class Callbacks {
    public:
        virtual ~Callbacks();
        // The time until the first timer is due changed (a timer became first, the first
        // one was stopped, or timers were processed): ms is at least 0, or -1 when no timer
        // runs. Lets the owner shorten a wait that is already under way.
        virtual void nextTimeoutChanged(TimerManager& manager, int ms) = 0;
    };

    // Binds the manager to the calling thread; a second manager on one thread is a broken
    // invariant and aborts. `callbacks` (may be null) is not owned.
    explicit TimerManager(Callbacks* callbacks = nullptr);
    // Unlinks every timer still running (without notifications: the owner is going away)
    // and unbinds the thread.
    ~TimerManager();
    TimerManager(const TimerManager&) = delete;
    TimerManager& operator=(const TimerManager&) = delete;

    // Fires every due timer, re-arming those that ask for it. Returns -1 when no timer
    // runs, the time until the first timer when none was due, and 0 after firing (the
    // caller then comes back at once). Exceptions from timerFired propagate; the timer that
    // threw stays stopped.
    int processTimers();
    // Milliseconds until the first timer is due, rounded up, at least 0; -1 when none runs.
    int timeUntilNext() const;

    bool hasTimers() const { return head_.next_ != &head_; }

    // The calling thread's manager, or null.
    static TimerManager* current();

    // (a - b) ticks in milliseconds, rounded up for positive differences and clamped to
    // the 32-bit range (see the .cpp for the exact edges).
    static int millisecondsBetween(int64_t a, int64_t b);

private:
    friend class Timer;

    // Restarts every timer when the clock jumped; returns true if it did. Reads the
    // clock into now.
    bool checkClock(int64_t& now);
    void insert(Timer& timer);
    void notifyNextTimeout();
    Timer* first() const { return head_.next_ == &head_ ? nullptr : head_.next_; }

    // Sentinel of the circular list: next_ is the earliest timer, prev_ the latest.
    Timer head_;
    Callbacks* callbacks_;
};

}  // namespace plat
