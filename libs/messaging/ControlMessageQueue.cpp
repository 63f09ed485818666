#include "messaging/ControlMessageQueue.h"

#include <algorithm>
#include <memory>

#include "messaging/Condition.h"
#include "messaging/ControlMessage.h"
#include "messaging/Mutex.h"
#include "messaging/MutexFactory.h"

namespace messaging {

int ControlMessageQueue::QueuedMessage::service(bool perform) {
    return perform ? message_->action() : 0;
}

ControlMessageQueue::QueuedMessageActionedAsynchronously::~QueuedMessageActionedAsynchronously() {
    delete message_;
}

int ControlMessageQueue::QueuedMessageActionedAsynchronously::service(bool perform) {
    std::unique_ptr<QueuedMessageActionedAsynchronously> self(this);
    return QueuedMessage::service(perform);
}

ControlMessageQueue::QueuedMessageActionedSynchronously::QueuedMessageActionedSynchronously(
    ControlMessage& message, Mutex& queueMutex, MutexFactory& factory)
    : QueuedMessage(&message), queueMutex_(queueMutex), condition_(factory.createCondition()) {}

ControlMessageQueue::QueuedMessageActionedSynchronously::~QueuedMessageActionedSynchronously() {
    delete condition_;
}

int ControlMessageQueue::QueuedMessageActionedSynchronously::service(bool perform) {
    int result = 0;
    std::exception_ptr error;
    try {
        result = QueuedMessage::service(perform);
    } catch (...) {
        // The poster is waiting for this entry: it gets the exception, the servicing loop
        // goes on.
        error = std::current_exception();
    }
    MutexLock lock(queueMutex_);
    result_ = result;
    error_ = error;
    done_ = true;
    // The poster cannot return, and destroy this entry, before the lock is released, and
    // nothing here touches the entry after that.
    condition_->signal();
    return result;
}

int ControlMessageQueue::QueuedMessageActionedSynchronously::waitForResult() {
    while (!done_) condition_->wait(queueMutex_);
    if (error_) std::rethrow_exception(error_);
    return result_;
}

ControlMessageQueue::ControlMessageQueue(Servicer* servicer) : servicer_(servicer) {}

ControlMessageQueue::~ControlMessageQueue() {
    if (queueMutex_ && postersGone_) {
        MutexLock lock(*queueMutex_);
        while (syncPosters_ > 0) postersGone_->wait(*queueMutex_);
    }
    delete postersGone_;
    delete startCondition_;
    delete startMutex_;
    delete queueMutex_;
}

void ControlMessageQueue::createPrimitives(MutexFactory& factory) {
    factory_ = &factory;
    queueMutex_ = factory.createMutex();
    startMutex_ = factory.createMutex();
    startCondition_ = factory.createCondition();
    postersGone_ = factory.createCondition();
}

int ControlMessageQueue::getWakeupDescriptor() {
    MutexLock lock(*queueMutex_);
    return wakeupDescriptor();
}

bool ControlMessageQueue::isRunning() {
    MutexLock lock(*queueMutex_);
    return state_ == kRunning;
}

void ControlMessageQueue::prepareStart() {
    MutexLock lock(*startMutex_);
    while (startPending_) startCondition_->wait(*startMutex_);
    startPending_ = true;
}

void ControlMessageQueue::cancelStart() {
    MutexLock lock(*startMutex_);
    startPending_ = false;
    startCondition_->signal();
}

bool ControlMessageQueue::start() {
    prepareStart();
    bool running;
    {
        MutexLock lock(*queueMutex_);
        running = state_ == kRunning;
    }
    if (running) {
        cancelStart();
        return false;
    }
    joinEndedThread();
    startThread();
    return true;
}

void ControlMessageQueue::threadBody() {
    bool initialised;
    {
        MutexLock lock(*queueMutex_);
        initialised = initialiseInThread();
        unreadBytes_ = 0;  // a new pipe
        prepaid_ = 0;
        unsignalled_ = false;
        waiting_ = false;
        // A thread that failed still has to be joined, even after an earlier join().
        state_ = initialised ? kRunning : kStopped;
        MutexLock startLock(*startMutex_);
        if (startPending_) {
            startPending_ = false;
            startCondition_->signal();
        }
    }
    if (!initialised) return;
    try {
        servicer_->run();
    } catch (...) {
        // The servicer reports its own failures; an exception escaping a thread would end
        // the process.
    }
    finish(true);
}

void ControlMessageQueue::enqueue(std::unique_ptr<ControlMessage>& message, bool signal) {
    std::unique_ptr<QueuedMessage> entry(new QueuedMessageActionedAsynchronously(message.get()));
    message.release();
    queue_.push_back(entry.get());
    entry.release();
    if (!signal) {
        unsignalled_ = true;
    } else if (!announcesWaits_ || waiting_) {
        notify();
        ++unreadBytes_;
    }
}

void ControlMessageQueue::announceWaits() {
    MutexLock lock(*queueMutex_);
    announcesWaits_ = true;
}

bool ControlMessageQueue::beginWait() {
    MutexLock lock(*queueMutex_);
    if (!queue_.empty()) return false;
    waiting_ = true;
    return true;
}

void ControlMessageQueue::endWait() {
    MutexLock lock(*queueMutex_);
    waiting_ = false;
}

void ControlMessageQueue::postAsynchronously(ControlMessage* message) {
    std::unique_ptr<ControlMessage> owned(message);
    if (!message) return;
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        owned->action();
        return;
    }
    enqueue(owned, true);
}

void ControlMessageQueue::postFromServicer(ControlMessage* message) {
    std::unique_ptr<ControlMessage> owned(message);
    if (!message) return;
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        owned->action();
        return;
    }
    enqueue(owned, false);
}

int ControlMessageQueue::postSynchronously(ControlMessage& message) {
    if (isServicerThread()) return message.action();
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        return message.action();
    }
    QueuedMessageActionedSynchronously entry(message, *queueMutex_, *factory_);
    queue_.push_back(&entry);
    // Counted so that a destructor discarding this entry does not delete the mutex before
    // this thread has taken it back and let go of it.
    ++syncPosters_;
    if (!announcesWaits_ || waiting_) {
        notify();
        ++unreadBytes_;
    }
    int result = 0;
    std::exception_ptr error;
    try {
        result = entry.waitForResult();
    } catch (...) {
        error = std::current_exception();
    }
    if (--syncPosters_ == 0) postersGone_->signal();
    if (error) std::rethrow_exception(error);
    return result;
}

void ControlMessageQueue::serviceMessages() {
    for (;;) {
        MutexLock lock(*queueMutex_);
        // One byte per message keeps the pipe no fuller than the queue. A message whose
        // byte could not be written (pipe full), or that was queued by this thread without
        // one, is performed all the same: the loop stops on an empty queue, not on a
        // missing byte.
        if (queue_.empty()) {
            unsignalled_ = false;
            return;
        }
        if (prepaid_ == 0 && unreadBytes_ > 0) {
            // The bytes of every message queued now, in one read rather than one each.
            size_t owed = std::min(unreadBytes_, queue_.size());
            prepaid_ = consumeNotifications(owed);
            unreadBytes_ = prepaid_ < owed ? 0 : unreadBytes_ - owed;
        }
        if (prepaid_ > 0) --prepaid_;
        QueuedMessage* entry = queue_.front();
        queue_.pop_front();
        lock.unlock();
        try {
            entry->service(true);
        } catch (...) {
            // The messages behind it stay queued for the next call, and get back the bytes
            // read for them, so that a loop waiting on the descriptor still sees them.
            lock.lock();
            for (; prepaid_ > 0; --prepaid_) {
                notify();
                ++unreadBytes_;
            }
            throw;
        }
    }
}

size_t ControlMessageQueue::consumeNotifications(size_t count) {
    size_t read = 0;
    while (read < count && consumeNotification()) ++read;
    return read;
}

void ControlMessageQueue::finish(bool perform) {
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) return;
    closeWakeup();
    unreadBytes_ = 0;
    prepaid_ = 0;
    // Other threads may still queue behind us while the lock is released: they are served
    // too, since the state only changes once the queue is empty.
    while (!queue_.empty()) {
        QueuedMessage* entry = queue_.front();
        queue_.pop_front();
        lock.unlock();
        try {
            entry->service(perform);
        } catch (...) {
        }
        lock.lock();
    }
    state_ = kStopped;
}

void ControlMessageQueue::waitForStartUp() {
    MutexLock lock(*startMutex_);
    while (startPending_) startCondition_->wait(*startMutex_);
    // The condition wakes one waiter; pass the wake-up on in case it was meant for a start
    // waiting in prepareStart().
    startCondition_->signal();
}

void ControlMessageQueue::join() {
    if (isServicerThread()) return;
    // A thread still starting up has not recorded itself yet and could not be waited for.
    waitForStartUp();
    joinEndedThread();
}

void ControlMessageQueue::joinEndedThread() {
    MutexLock lock(*queueMutex_);
    if (state_ >= kJoined) return;
    lock.unlock();
    joinThread();
    lock.lock();
    state_ = kJoined;
}

}  // namespace messaging
