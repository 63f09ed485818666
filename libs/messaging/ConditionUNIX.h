#pragma once

#include <pthread.h>

#include "messaging/Condition.h"

namespace messaging {

// A pthread condition with default attributes; waits on a MutexUNIX.
class ConditionUNIX : public Condition {
public:
    ConditionUNIX();
    ~ConditionUNIX() override;
    ConditionUNIX(const ConditionUNIX&) = delete;
    ConditionUNIX& operator=(const ConditionUNIX&) = delete;

    void signal() override;
    // `mutex` must be a MutexUNIX.
    void wait(Mutex& mutex) override;

private:
    pthread_cond_t cond_;
};

}  // namespace messaging
