#pragma once

#include <pthread.h>

#include "messaging/Mutex.h"

namespace messaging {

// A pthread mutex with default (non-recursive) attributes. Return values of the pthread
// calls are not checked: with a default mutex used as documented they cannot fail.
class MutexUNIX : public Mutex {
public:
    MutexUNIX();
    ~MutexUNIX() override;
    MutexUNIX(const MutexUNIX&) = delete;
    MutexUNIX& operator=(const MutexUNIX&) = delete;

    void lock() override;
    void unlock() override;

    pthread_mutex_t* native() { return &mutex_; }

private:
    pthread_mutex_t mutex_;
};

}  // namespace messaging
