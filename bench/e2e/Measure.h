#pragma once

// Clocks, sample statistics and the small waiting primitives that both sides of every
// comparison use, so that the SDK and its raw-TCP floor are timed and woken the same way.

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace e2e {

inline int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The q-quantile (0..1) of samples, nearest rank; sorts them.
inline double quantile(std::vector<int64_t>& samples, double q) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    size_t rank = static_cast<size_t>(q * static_cast<double>(samples.size() - 1) + 0.5);
    return static_cast<double>(samples[std::min(rank, samples.size() - 1)]);
}

// A counting semaphore: the cheapest way for one thread to wake one waiting thread, used
// for every "wait for the answer" in the measurements.
class Semaphore {
public:
    Semaphore() { sem_init(&sem_, 0, 0); }
    ~Semaphore() { sem_destroy(&sem_); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    void post() { sem_post(&sem_); }
    void wait() {
        while (sem_wait(&sem_) != 0) {
        }
    }
    // False when the deadline (steady-clock seconds from now) passed first.
    bool waitFor(double seconds);

private:
    sem_t sem_;
};

// A value that threads raise and others wait on until it reaches a target.
class Counter {
public:
    void add(int64_t n = 1) {
        std::lock_guard<std::mutex> lock(mutex_);
        value_ += n;
        changed_.notify_all();
    }
    void set(int64_t value) {
        std::lock_guard<std::mutex> lock(mutex_);
        value_ = value;
        changed_.notify_all();
    }
    int64_t get() {
        std::lock_guard<std::mutex> lock(mutex_);
        return value_;
    }
    // True once the value is at least target; false when seconds passed first.
    bool waitAtLeast(int64_t target, double seconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [&] { return value_ >= target; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int64_t value_ = 0;
};

// Process-wide CPU time and voluntary context switches (every thread, living or gone).
struct Usage {
    double cpuSeconds = 0;
    int64_t voluntarySwitches = 0;
    static Usage now();
};

}  // namespace e2e
