#include "plat/TimerManager.h"

#include <cstdint>

#include "plat/Assert.h"
#include "plat/Clock.h"
#include "plat/Exception.h"
#include "plat/Logger.h"

namespace plat {

namespace {

const LoggerRef kTimerLog{"TimerManager", nullptr};

thread_local TimerManager* thrInst = nullptr;  // the calling thread's manager

// A first timer due later than its own interval plus this much means the clock went back.
constexpr int64_t kBackwardsSlackMs = 100;
// A first timer overdue by more than this (four minutes) means the clock jumped forwards.
constexpr int kForwardsLimitMs = -240000;

// Applications match the text and line of this assertion in their logs, so the line is fixed
// here rather than taken from where the check happens to sit.
constexpr int kSecondManagerAssertLine = 50;

int64_t toTicks(int32_t ms) {
    return static_cast<int64_t>(ms) * kTicksPerMillisecond;
}

}  // namespace

Timer::Callback::~Callback() = default;

TimerManager::Callbacks::~Callbacks() = default;

int TimerManager::millisecondsBetween(int64_t a, int64_t b) {
    int64_t diff;
    if (__builtin_sub_overflow(a, b, &diff)) return a > b ? INT32_MAX : INT32_MIN;
    int64_t rounded;
    if (__builtin_add_overflow(diff, kTicksPerMillisecond - 1, &rounded)) return INT32_MAX;
    // Truncating division: positive differences round up, short negative ones give 0.
    int64_t ms = rounded / kTicksPerMillisecond;
    if (ms > INT32_MAX - 1) return INT32_MAX;
    // The lower edge is one early (-2147483647 already gives INT32_MIN), which is harmless:
    // only a timer some 24 days overdue gets there, and every caller treats both alike.
    if (ms <= INT32_MIN + 1) return INT32_MIN;
    return static_cast<int>(ms);
}

// A second manager on one thread would take over Timer::start() and strand the first one's
// timers, so it is a broken invariant, not an error to report.
TimerManager::TimerManager(Callbacks* callbacks) : callbacks_(callbacks) {
    if (thrInst) assertionFailed("!thrInst", __FILE__, kSecondManagerAssertLine);
    thrInst = this;
    head_.next_ = &head_;
    head_.prev_ = &head_;
}

TimerManager::~TimerManager() {
    Timer* timer = head_.next_;
    while (timer != &head_) {
        Timer* next = timer->next_;
        timer->next_ = nullptr;
        timer->prev_ = nullptr;
        timer = next;
    }
    head_.next_ = &head_;
    head_.prev_ = &head_;
    if (thrInst == this) thrInst = nullptr;
}

TimerManager* TimerManager::current() {
    return thrInst;
}

int TimerManager::timeUntilNext() const {
    Timer* timer = first();
    if (!timer) return -1;
    int ms = millisecondsBetween(timer->due_, Clock::now());
    return ms < 0 ? 0 : ms;
}

void TimerManager::insert(Timer& timer) {
    // Walk back from the latest timer: new timers usually go at or near the end, and
    // stopping at the first timer due no later keeps equal due times in start order.
    Timer* after = head_.prev_;
    while (after != &head_ && after->due_ > timer.due_) after = after->prev_;
    timer.prev_ = after;
    timer.next_ = after->next_;
    after->next_->prev_ = &timer;
    after->next_ = &timer;
}

bool TimerManager::checkClock(int64_t& now) {
    now = Clock::now();
    Timer* timer = first();
    if (!timer) return false;
    int ms = millisecondsBetween(timer->due_, now);
    if (ms > timer->interval_ + kBackwardsSlackMs) {
        kTimerLog.info("Time has moved backwards - restarting timers");
    } else if (ms < kForwardsLimitMs) {
        kTimerLog.info("Time has jumped forwards - restarting timers");
    } else {
        return false;
    }
    // Restart every timer with its full interval from now, keeping their relative order
    // among equal intervals.
    head_.next_ = &head_;
    head_.prev_ = &head_;
    while (timer != &head_) {
        Timer* next = timer->next_;
        timer->due_ = now + toTicks(timer->interval_);
        insert(*timer);
        timer = next;
    }
    return true;
}

void TimerManager::notifyNextTimeout() {
    if (callbacks_) callbacks_->nextTimeoutChanged(*this, timeUntilNext());
}

int TimerManager::processTimers() {
    if (!hasTimers()) return -1;
    int64_t now;
    checkClock(now);
    Timer* timer = first();
    if (timer->due_ > now) return timeUntilNext();
    while ((timer = first()) != nullptr && timer->due_ <= now) {
        timer->unlink();
        int again = timer->callback_ ? timer->callback_->timerFired(*timer) : 0;
        // An interval of 0 or less would make the timer due again at once and keep this loop
        // firing it forever: such a timer is not re-armed.
        if (!again || timer->isRunning() || timer->interval_ <= 0) continue;
        // Re-arm from the old due time so that a steady period does not drift, but skip
        // the periods that were missed while the thread was busy instead of catching up.
        int64_t interval = toTicks(timer->interval_);
        if (checkClock(now)) {
            timer->due_ = now + interval;
        } else {
            timer->due_ += interval;
            if (timer->due_ <= now) timer->due_ = now + interval;
        }
        insert(*timer);
    }
    notifyNextTimeout();
    return 0;
}

Timer::~Timer() {
    stop();
}

void Timer::unlink() {
    next_->prev_ = prev_;
    prev_->next_ = next_;
    next_ = nullptr;
    prev_ = nullptr;
}

void Timer::start(int ms) {
    stop();
    interval_ = ms;
    TimerManager* manager = thrInst;
    if (!manager) throw Exception("no TimerManager");
    int64_t now;
    manager->checkClock(now);
    due_ = now + toTicks(ms);
    manager->insert(*this);
    if (manager->head_.next_ == this) manager->notifyNextTimeout();
}

void Timer::stop() {
    if (!isRunning()) return;
    TimerManager* manager = thrInst;
    bool wasFirst = manager && manager->head_.next_ == this;
    unlink();
    if (wasFirst) manager->notifyNextTimeout();
}

}  // namespace plat
