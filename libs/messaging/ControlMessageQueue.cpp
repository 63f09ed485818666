#include "messaging/ControlMessageQueue.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "messaging/Condition.h"
#include "messaging/ControlMessage.h"
#include "messaging/Mutex.h"
#include "messaging/MutexFactory.h"

namespace messaging {

namespace {

// What the queue keeps of a message posted by pointer: the pointer, owned.
class Adopted final : public ControlMessage {
public:
    explicit Adopted(ControlMessage* message) : message_(message) {}
    ~Adopted() override { delete message_; }
    Adopted(const Adopted&) = delete;
    Adopted& operator=(const Adopted&) = delete;
    int action() override { return message_->action(); }
    size_t copySize() const override { return sizeof(Adopted); }
    // Moves the message into the copy; the poster's wrapper is left empty.
    ControlMessage* copyInto(void* storage) const override {
        Adopted* copy = new (storage) Adopted(message_);
        message_ = nullptr;
        return copy;
    }

private:
    mutable ControlMessage* message_;
};

constexpr size_t roundUp(size_t size, size_t to) {
    return (size + to - 1) / to * to;
}

// Slot capacities go up in steps, so that a message a little larger than the last one of its
// kind still finds its slot.
constexpr size_t kSlotStep = 256;
// Free slots beyond this many bytes are given back at once: a burst of large payloads must
// not keep its storage for the rest of the session. A window of 128 full payloads fits.
constexpr size_t kMaxFreeBytes = 1 << 20;

}  // namespace

// An asynchronous entry and, behind it in the same block, the storage of the message copy.
class ControlMessageQueue::Slot final : public QueuedMessage {
public:
    // Throws std::bad_alloc.
    static Slot* make(size_t size);
    static void destroy(Slot* slot) {
        slot->~Slot();
        ::operator delete(slot);
    }

    void* storage();
    size_t capacity() const { return capacity_; }
    void hold(ControlMessage* copy) { message_ = copy; }
    // Performs the copy (when perform is true), then destroys it in place, also when the
    // action throws; the storage stays.
    int service(bool perform) override {
        struct Destroy {
            ControlMessage* copy;
            ~Destroy() { copy->~ControlMessage(); }
        } destroy{message_};
        return QueuedMessage::service(perform);
    }
    Slot* slot() override { return this; }

    Slot* nextFree = nullptr;  // guarded by queueMutex_

private:
    explicit Slot(size_t capacity) : QueuedMessage(nullptr), capacity_(capacity) {}
    size_t capacity_;
};

namespace {
// The storage starts behind the entry, aligned for any message.
constexpr size_t kSlotHeader =
    roundUp(sizeof(ControlMessageQueue::Slot), alignof(std::max_align_t));
}  // namespace

ControlMessageQueue::Slot* ControlMessageQueue::Slot::make(size_t size) {
    size_t capacity = roundUp(size, kSlotStep);
    return new (::operator new(kSlotHeader + capacity)) Slot(capacity);
}

void* ControlMessageQueue::Slot::storage() {
    return reinterpret_cast<unsigned char*>(this) + kSlotHeader;
}

int ControlMessageQueue::QueuedMessage::service(bool perform) {
    return perform ? message_->action() : 0;
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
    // A slot serviced while finish() was discarding the rest came back after its release.
    releaseSlots();
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

void ControlMessageQueue::push(QueuedMessage* entry) {
    entry->next_ = nullptr;
    if (tail_) {
        tail_->next_ = entry;
    } else {
        head_ = entry;
    }
    tail_ = entry;
    ++queued_;
}

ControlMessageQueue::QueuedMessage* ControlMessageQueue::pop() {
    QueuedMessage* entry = head_;
    head_ = entry->next_;
    if (!head_) tail_ = nullptr;
    --queued_;
    return entry;
}

ControlMessageQueue::Slot* ControlMessageQueue::takeSlot(size_t size) {
    Slot** link = &freeSlots_;
    for (Slot* slot = freeSlots_; slot; link = &slot->nextFree, slot = slot->nextFree) {
        if (slot->capacity() >= size) {
            *link = slot->nextFree;
            freeBytes_ -= slot->capacity();
            return slot;
        }
    }
    Slot* slot = Slot::make(size);
    // No more slots than messages ever queued at once: a free one too small for this
    // message gives way to the new one.
    if (Slot* small = freeSlots_) {
        freeSlots_ = small->nextFree;
        freeBytes_ -= small->capacity();
        Slot::destroy(small);
    }
    return slot;
}

void ControlMessageQueue::returnSlot(Slot* slot) {
    if (freeBytes_ + slot->capacity() > kMaxFreeBytes) {
        Slot::destroy(slot);
        return;
    }
    slot->nextFree = freeSlots_;
    freeSlots_ = slot;
    freeBytes_ += slot->capacity();
}

void ControlMessageQueue::releaseSlots() {
    while (Slot* slot = freeSlots_) {
        freeSlots_ = slot->nextFree;
        Slot::destroy(slot);
    }
    freeBytes_ = 0;
}

void ControlMessageQueue::enqueue(const ControlMessage& message, bool signal) {
    size_t size = message.copySize();
    if (size == 0) return;
    Slot* slot = takeSlot(size);
    try {
        slot->hold(message.copyInto(slot->storage()));
    } catch (...) {
        returnSlot(slot);
        throw;
    }
    push(slot);
    if (!signal) {
        unsignalled_ = true;
    } else {
        wake();
    }
}

void ControlMessageQueue::wake() {
    if (announcesWaits_ && !waiting_) return;
    notify();
    ++unreadBytes_;
    // The loop is woken now and looks at the whole queue before it blocks again: the posts
    // that follow before it runs need no wake-up of their own (the idle-to-busy edge of a
    // burst costs one write, not one per post).
    waiting_ = false;
}

void ControlMessageQueue::announceWaits() {
    MutexLock lock(*queueMutex_);
    announcesWaits_ = true;
}

bool ControlMessageQueue::beginWait() {
    MutexLock lock(*queueMutex_);
    if (head_) return false;
    waiting_ = true;
    return true;
}

void ControlMessageQueue::endWait() {
    MutexLock lock(*queueMutex_);
    waiting_ = false;
}

void ControlMessageQueue::postAsynchronously(ControlMessage* message) {
    if (!message) return;
    Adopted owned(message);
    postCopy(owned);
}

void ControlMessageQueue::postFromServicer(ControlMessage* message) {
    if (!message) return;
    Adopted owned(message);
    postCopyFromServicer(owned);
}

void ControlMessageQueue::postCopy(ControlMessage& message) {
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        message.action();
        return;
    }
    enqueue(message, true);
}

void ControlMessageQueue::postCopyFromServicer(ControlMessage& message) {
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        message.action();
        return;
    }
    enqueue(message, false);
}

int ControlMessageQueue::postSynchronously(ControlMessage& message) {
    if (isServicerThread()) return message.action();
    MutexLock lock(*queueMutex_);
    if (state_ != kRunning) {
        lock.unlock();
        return message.action();
    }
    QueuedMessageActionedSynchronously entry(message, *queueMutex_, *factory_);
    push(&entry);
    // Counted so that a destructor discarding this entry does not delete the mutex before
    // this thread has taken it back and let go of it.
    ++syncPosters_;
    wake();
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
    Slot* spent = nullptr;  // given back under the lock the next turn takes anyway
    for (;;) {
        MutexLock lock(*queueMutex_);
        if (spent) returnSlot(spent);
        // One byte per message keeps the pipe no fuller than the queue. A message whose
        // byte could not be written (pipe full), or that was queued by this thread without
        // one, is performed all the same: the loop stops on an empty queue, not on a
        // missing byte.
        if (!head_) {
            unsignalled_ = false;
            return;
        }
        if (prepaid_ == 0 && unreadBytes_ > 0) {
            // The bytes of every message queued now, in one read rather than one each.
            size_t owed = std::min(unreadBytes_, queued_);
            prepaid_ = consumeNotifications(owed);
            unreadBytes_ = prepaid_ < owed ? 0 : unreadBytes_ - owed;
        }
        if (prepaid_ > 0) --prepaid_;
        QueuedMessage* entry = pop();
        // Asked now: a synchronous entry may be gone as soon as it has been serviced.
        spent = entry->slot();
        lock.unlock();
        try {
            entry->service(true);
        } catch (...) {
            // The messages behind it stay queued for the next call, and get back the bytes
            // read for them, so that a loop waiting on the descriptor still sees them.
            lock.lock();
            if (spent) returnSlot(spent);
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
    while (head_) {
        QueuedMessage* entry = pop();
        Slot* spent = entry->slot();
        lock.unlock();
        try {
            entry->service(perform);
        } catch (...) {
        }
        lock.lock();
        if (spent) returnSlot(spent);
    }
    state_ = kStopped;
    releaseSlots();
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
