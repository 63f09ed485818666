#include "messaging/ControlMessageQueueUNIX.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#ifdef ZEL_WAKEUP_EVENTFD
#include <sys/eventfd.h>
#endif

#include <algorithm>
#include <cstdint>

#include "messaging/ConditionUNIX.h"
#include "messaging/Mutex.h"
#include "messaging/MutexUNIX.h"
#include "plat/Exception.h"

namespace messaging {

namespace {

#ifndef ZEL_WAKEUP_EVENTFD
bool addFlags(int fd, int statusFlags) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | statusFlags) < 0) return false;
    // The library lives inside the application's process: its pipe must not leak into
    // programs the application executes.
    int fdFlags = fcntl(fd, F_GETFD);
    return fdFlags >= 0 && fcntl(fd, F_SETFD, fdFlags | FD_CLOEXEC) == 0;
}
#endif

}  // namespace

ControlMessageQueueUNIX::ControlMessageQueueUNIX(Servicer* servicer)
    : ControlMessageQueue(servicer) {
    createPrimitives(*this);
}

ControlMessageQueueUNIX::~ControlMessageQueueUNIX() {
    // A thread still starting up would otherwise run on a destroyed queue.
    waitForStartUp();
    finish(false);
    join();
    closeWakeup();
}

Mutex* ControlMessageQueueUNIX::createMutex() {
    return new MutexUNIX;
}

Condition* ControlMessageQueueUNIX::createCondition() {
    return new ConditionUNIX;
}

void* ControlMessageQueueUNIX::threadEntry(void* queue) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    static_cast<ControlMessageQueueUNIX*>(queue)->threadBody();
    return nullptr;
}

void ControlMessageQueueUNIX::startThread() {
    pthread_t thread;
    int err = pthread_create(&thread, nullptr, threadEntry, this);
    if (err != 0) {
        cancelStart();
        throw plat::SystemException("pthread_create", err);
    }
}

bool ControlMessageQueueUNIX::initialiseInThread() {
    // Recorded first, so that a thread that fails below is still joined.
    thread_ = pthread_self();
    threadRecorded_ = true;
    closeWakeup();
#ifdef ZEL_WAKEUP_EVENTFD
    // One descriptor whose counter holds the wake-ups, where the pipe needs two per endpoint
    // and a byte per post. Measured on the bare hand-off (post, wake, perform, answer) it is
    // no faster than the pipe: the cost is the sleeping thread's wake-up, not the write. It
    // is kept for the descriptors it saves (two fewer per endpoint pair); the pipe stays for
    // systems without it.
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) return false;
    readFd_ = fd;
    writeFd_ = fd;
    return true;
#else
    int fds[2];
    if (pipe(fds) != 0) return false;
    // The read end must not block: select() may report it readable when no byte is left.
    // The write end must not block either: a poster writes while holding the queue mutex,
    // and the servicing thread needs that mutex to drain a full pipe.
    if (!addFlags(fds[0], O_NONBLOCK) || !addFlags(fds[1], O_NONBLOCK)) {
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    readFd_ = fds[0];
    writeFd_ = fds[1];
    return true;
#endif
}

bool ControlMessageQueueUNIX::isServicerThread() {
    MutexLock lock(queueMutex());
    return threadRecorded_ && pthread_equal(pthread_self(), thread_);
}

void ControlMessageQueueUNIX::closeWakeup() {
    if (readFd_ >= 0) close(readFd_);
    if (writeFd_ >= 0 && writeFd_ != readFd_) close(writeFd_);
    readFd_ = -1;
    writeFd_ = -1;
}

void ControlMessageQueueUNIX::joinThread() {
    pthread_t thread;
    {
        MutexLock lock(queueMutex());
        if (!threadRecorded_) return;
        thread = thread_;
    }
    // The record stays while the thread ends, so that it still knows itself as the
    // servicing thread.
    pthread_join(thread, nullptr);
    MutexLock lock(queueMutex());
    if (threadRecorded_ && pthread_equal(thread_, thread)) threadRecorded_ = false;
}

#ifdef ZEL_WAKEUP_EVENTFD

void ControlMessageQueueUNIX::notify() {
    const uint64_t one = 1;
    if (write(writeFd_, &one, sizeof one) != sizeof one) {
        // Counter full or already closed: serviceMessages() does not depend on the count.
    }
}

bool ControlMessageQueueUNIX::consumeNotification() {
    return consumeNotifications(1) == 1;
}

size_t ControlMessageQueueUNIX::consumeNotifications(size_t count) {
    // A read takes the whole counter; what was not asked for goes back, so that the
    // descriptor stays readable for the messages it stands for.
    uint64_t pending = 0;
    if (count == 0 || read(readFd_, &pending, sizeof pending) != sizeof pending) return 0;
    if (pending > count) {
        const uint64_t rest = pending - count;
        if (write(writeFd_, &rest, sizeof rest) != sizeof rest) {
        }
        return count;
    }
    return static_cast<size_t>(pending);
}

#else

void ControlMessageQueueUNIX::notify() {
    const char zero = 0;
    if (write(writeFd_, &zero, 1) != 1) {
        // Pipe full or already closed: serviceMessages() does not depend on the byte.
    }
}

bool ControlMessageQueueUNIX::consumeNotification() {
    char byte;
    return read(readFd_, &byte, 1) == 1;
}

size_t ControlMessageQueueUNIX::consumeNotifications(size_t count) {
    char bytes[256];
    size_t total = 0;
    while (total < count) {
        size_t chunk = std::min(count - total, sizeof bytes);
        ssize_t got = read(readFd_, bytes, chunk);
        if (got <= 0) break;
        total += static_cast<size_t>(got);
        if (static_cast<size_t>(got) < chunk) break;
    }
    return total;
}

#endif

}  // namespace messaging
