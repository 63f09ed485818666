#include "messaging/MutexUNIX.h"

namespace messaging {

MutexUNIX::MutexUNIX() {
    pthread_mutex_init(&mutex_, nullptr);
}

MutexUNIX::~MutexUNIX() {
    pthread_mutex_destroy(&mutex_);
}

void MutexUNIX::lock() {
    pthread_mutex_lock(&mutex_);
}

void MutexUNIX::unlock() {
    pthread_mutex_unlock(&mutex_);
}

}  // namespace messaging
