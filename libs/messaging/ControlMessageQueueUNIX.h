#pragma once

#include <pthread.h>

#include "messaging/ControlMessageQueue.h"
#include "messaging/MutexFactory.h"

namespace messaging {

// The POSIX queue: an eventfd (where the build found one) or a pipe as the wake-up
// descriptor, a pthread as the servicing thread, and pthread mutexes and conditions. The
// descriptor exists only while the queue runs; with an eventfd both ends are the same one.
class ControlMessageQueueUNIX : public ControlMessageQueue, public MutexFactory {
public:
    // The servicer is not owned. Throws std::bad_alloc.
    explicit ControlMessageQueueUNIX(Servicer* servicer);
    // Waits for a pending start-up, discards the messages still queued (without performing
    // them), waits for the servicing thread, and closes the pipe. The servicer must have been told
    // to end first: a run() that never returns would make this wait forever.
    ~ControlMessageQueueUNIX() override;

    // The new thread blocks SIGPIPE (writes to a closed socket must not kill the
    // application) and runs the queue's thread body. Its pthread_t is not kept here: the
    // thread records itself once it runs, and that record is what join() waits for.
    void startThread() override;
    bool isServicerThread() override;

    Mutex* createMutex() override;
    Condition* createCondition() override;

protected:
    bool initialiseInThread() override;
    void closeWakeup() override;
    int wakeupDescriptor() override { return readFd_; }
    void joinThread() override;
    void notify() override;
    bool consumeNotification() override;
    size_t consumeNotifications(size_t count) override;

private:
    static void* threadEntry(void* queue);

    // State below is protected by the queue mutex.
    int readFd_ = -1;
    int writeFd_ = -1;
    pthread_t thread_{};
    bool threadRecorded_ = false;
};

}  // namespace messaging
