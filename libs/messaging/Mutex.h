#pragma once

namespace messaging {

// A non-recursive mutex, created by a MutexFactory so that the queue's logic holds no
// platform call.
class Mutex {
public:
    virtual ~Mutex() = default;
    virtual void lock() = 0;
    virtual void unlock() = 0;
};

// Holds a Mutex for a scope; unlock()/lock() let a scope drop it around a call.
class MutexLock {
public:
    explicit MutexLock(Mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() {
        if (locked_) mutex_.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() {
        mutex_.unlock();
        locked_ = false;
    }
    void lock() {
        mutex_.lock();
        locked_ = true;
    }

private:
    Mutex& mutex_;
    bool locked_ = true;
};

}  // namespace messaging
