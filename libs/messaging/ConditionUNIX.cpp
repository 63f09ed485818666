#include "messaging/ConditionUNIX.h"

#include "messaging/MutexUNIX.h"

namespace messaging {

ConditionUNIX::ConditionUNIX() {
    pthread_cond_init(&cond_, nullptr);
}

ConditionUNIX::~ConditionUNIX() {
    pthread_cond_destroy(&cond_);
}

void ConditionUNIX::signal() {
    pthread_cond_signal(&cond_);
}

void ConditionUNIX::wait(Mutex& mutex) {
    pthread_cond_wait(&cond_, static_cast<MutexUNIX&>(mutex).native());
}

}  // namespace messaging
