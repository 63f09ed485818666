#pragma once

#include <cstddef>
#include <exception>

namespace messaging {

class Condition;
class ControlMessage;
class Mutex;
class MutexFactory;

// Gives one servicing thread (the endpoint thread) a first-in first-out queue of control
// messages that any thread may post to, and a wake-up descriptor that the servicing thread's
// own event loop watches next to its sockets: one wake-up (a pipe byte, or one count of an
// eventfd; "byte" below) is written per queued message, and the loop calls
// serviceMessages() when the descriptor is readable. Queued messages are copies in slots the
// queue keeps for reuse, so that steady traffic allocates nothing.
//
// The queue owns the thread's life: start() creates the thread, which initialises the
// wake-up descriptor, moves the queue to running and calls the servicer's run(); when run()
// returns, the messages still queued are performed on that thread and the queue stops.
// join() waits for the thread. Platform calls are behind the protected operations, which a
// platform subclass (ControlMessageQueueUNIX) implements.
//
// Locks: queueMutex_ guards the state, the queue, the count of waiting synchronous posters
// and the platform's thread record and wake-up descriptors; startMutex_ guards startPending_.
// queueMutex_ is always taken before startMutex_, never the other way round. No message is
// performed while queueMutex_ is held.
class ControlMessageQueue {
public:
    // The object whose run() is the body of the servicing thread.
    class Servicer {
    public:
        virtual ~Servicer() = default;
        virtual void run() = 0;
    };

    class Slot;

    // A queue entry, linked into the queue through next_. service(perform) performs the
    // message only when perform is true (false discards it) and returns the action's result,
    // 0 when not performed.
    class QueuedMessage {
    public:
        explicit QueuedMessage(ControlMessage* message) : message_(message) {}
        virtual ~QueuedMessage() = default;
        QueuedMessage(const QueuedMessage&) = delete;
        QueuedMessage& operator=(const QueuedMessage&) = delete;
        virtual int service(bool perform);
        // The queue's own storage behind an asynchronous entry, to be reused once serviced;
        // null for an entry that belongs to its poster.
        virtual Slot* slot() { return nullptr; }

    protected:
        ControlMessage* message_;

    private:
        friend class ControlMessageQueue;
        QueuedMessage* next_ = nullptr;  // guarded by queueMutex_
    };

    // Lives on the posting thread's stack and borrows the message. service() hands the
    // result, or the exception the action threw, to the poster waiting in waitForResult().
    class QueuedMessageActionedSynchronously : public QueuedMessage {
    public:
        // Throws std::bad_alloc when the condition cannot be created.
        QueuedMessageActionedSynchronously(ControlMessage& message, Mutex& queueMutex,
                                           MutexFactory& factory);
        ~QueuedMessageActionedSynchronously() override;
        int service(bool perform) override;
        // Called with queueMutex held; returns with it held.
        int waitForResult();

    private:
        Mutex& queueMutex_;
        Condition* condition_;
        // State below is protected by queueMutex_.
        bool done_ = false;
        int result_ = 0;
        std::exception_ptr error_;
    };

    // The servicer is not owned and must outlive the servicing thread.
    explicit ControlMessageQueue(Servicer* servicer);
    // Waits until every synchronous poster has left postSynchronously() (it still needs the
    // queue mutex to return), then deletes the mutexes and the conditions. A platform
    // subclass's destructor first calls finish(false) and join(), so messages still queued
    // are discarded, not performed, and their synchronous posters get 0.
    virtual ~ControlMessageQueue();
    ControlMessageQueue(const ControlMessageQueue&) = delete;
    ControlMessageQueue& operator=(const ControlMessageQueue&) = delete;

    // The wake-up descriptor for the servicing thread's select(), -1 while not running.
    virtual int getWakeupDescriptor();

    // Creates the servicing thread. Throws plat::SystemException when it cannot; the queue
    // stays stopped. Call after prepareStart() (start() does both).
    virtual void startThread() = 0;

    // True when the calling thread is the servicing thread. Must not be called with
    // queueMutex_ held.
    virtual bool isServicerThread() = 0;

    // Running: the servicing thread has initialised and has not yet finished.
    bool isRunning();

    // Waits until no other thread's start-up is pending, then marks one as pending.
    void prepareStart();
    // prepareStart(), then joins a servicing thread that ended on its own (its record is
    // about to be replaced), then startThread(). Returns false, starting nothing, when the
    // queue is already running (another start won the race). Returns before the new
    // thread has initialised; a thread that fails to initialise leaves the queue stopped.
    bool start();

    // Takes ownership of a heap message (null is ignored). While running, it is queued and
    // performed on the servicing thread. Otherwise it is performed at once on the calling
    // thread and deleted; an exception from its action propagates to the caller. Throws
    // std::bad_alloc, the message deleted and nothing queued, when the queue has to grow
    // and cannot.
    void postAsynchronously(ControlMessage* message);
    // The same for a message that stays the caller's: while running, its copy (copyInto())
    // is queued, in storage the queue keeps for the next message once the copy has been
    // performed; a message whose copySize() is 0 queues nothing. Not running: performed at
    // once on the calling thread. Storage is allocated only when more messages are queued
    // at once than ever before since the start (or one is larger than every free slot):
    // steady traffic allocates nothing. Throws std::bad_alloc, queueing nothing, when that
    // allocation fails.
    void postCopy(ControlMessage& message);
    // postAsynchronously() for the servicing thread itself, whose event loop asks
    // hasUnsignalledMessages() before it waits: the message is queued without a wake-up
    // byte, since nobody waits for one, and saves the loop a write and a read. Only for a
    // loop that asks; on any other thread use postAsynchronously().
    void postFromServicer(ControlMessage* message);
    void postCopyFromServicer(ControlMessage& message);
    // True when messages queued by postFromServicer() have not been serviced yet; the loop
    // then services the queue without waiting, as it would for a readable descriptor.
    // Servicing thread only.
    bool hasUnsignalledMessages() const { return unsignalled_; }

    // For a servicing loop that says when it is about to block: from announceWaits() on,
    // posts write their wake-up byte only while the loop waits (between beginWait() and
    // endWait()) and nobody has woken it yet, since a loop that is busy, or about to be,
    // looks at the queue before it next blocks. A stream of posts to a busy thread then
    // costs no system call each, and a burst to a sleeping one costs one.
    void announceWaits();
    // Servicing thread, just before it blocks: false when messages are queued (service them
    // instead of blocking); true when it may block until the descriptor is readable.
    bool beginWait();
    void endWait();
    // Queues the caller's message and waits until the servicing thread has performed it;
    // returns the action's result, or rethrows what the action threw. Performs it at once
    // on the calling thread when not running, and also on the servicing thread itself
    // (which would otherwise wait for itself). A message discarded by finish(false) gives 0.
    int postSynchronously(ControlMessage& message);

    // Called by the servicing thread's event loop when the wake-up descriptor is readable:
    // performs the queued messages in order, consuming one wake-up byte for each that came
    // with one.
    // Exceptions from an action propagate to the loop; that entry is already freed and
    // later entries stay queued.
    void serviceMessages();

    // If running: closes the wake-up descriptor, then services every remaining entry in
    // order (performing it when perform is true) and stops the queue. Exceptions from the
    // actions are swallowed: there is nobody left to report them to.
    void finish(bool perform);

    // Waits until no thread's start-up is pending. Call before deciding on isRunning()
    // right after a start: until then the new thread may still be about to run.
    void waitForStartUp();

    // Waits for a pending start-up, then for the servicing thread to end, and marks the
    // queue joined. Harmless when already joined or when no thread ever ran; does nothing
    // on the servicing thread itself. Not to be called from two threads at once.
    void join();

protected:
    // Creates the mutexes and the condition; called by the subclass's constructor once the
    // factory can be used. Throws std::bad_alloc.
    void createPrimitives(MutexFactory& factory);
    // The body of the servicing thread, called by the platform's thread entry.
    void threadBody();
    // Gives up a start marked by prepareStart() when no thread could be created.
    void cancelStart();
    Mutex& queueMutex() { return *queueMutex_; }
    // join() without waiting for a pending start-up (start() holds that start itself).
    void joinEndedThread();

    // Platform operations. All but joinThread() are called with queueMutex_ held (the
    // destructor's last closeWakeup() runs after the thread is gone). initialiseInThread(),
    // on the new thread, records it as the servicing thread and creates the wake-up
    // descriptor; false when the descriptor cannot be created.
    virtual bool initialiseInThread() = 0;
    virtual void closeWakeup() = 0;
    virtual int wakeupDescriptor() = 0;
    // Waits for the recorded thread, if any, then forgets it. Takes queueMutex_ itself.
    virtual void joinThread() = 0;
    // Writes one wake-up byte.
    virtual void notify() = 0;
    // Reads one wake-up byte without blocking; true if one was read.
    virtual bool consumeNotification() = 0;
    // Reads up to count wake-up bytes without blocking; how many were read. The default
    // reads them one by one.
    virtual size_t consumeNotifications(size_t count);

private:
    enum State : int { kRunning = 0, kStopped = 1, kJoined = 2 };

    // Queues a copy of message in a slot; signal writes its wake-up byte. Called with
    // queueMutex_ held while running. Throws std::bad_alloc, queueing nothing.
    void enqueue(const ControlMessage& message, bool signal);
    // Writes a wake-up unless the loop announces its waits and is not waiting (or has been
    // woken already). Called with queueMutex_ held while running.
    void wake();
    void push(QueuedMessage* entry);
    QueuedMessage* pop();
    // A free slot of at least size bytes, or a new one. Throws std::bad_alloc, changing
    // nothing.
    Slot* takeSlot(size_t size);
    void returnSlot(Slot* slot);
    // Frees the free slots: a stopped queue holds no storage for messages.
    void releaseSlots();

    Servicer* servicer_;
    MutexFactory* factory_ = nullptr;
    Mutex* queueMutex_ = nullptr;
    Mutex* startMutex_ = nullptr;
    Condition* startCondition_ = nullptr;  // signalled when a start-up is no longer pending
    Condition* postersGone_ = nullptr;     // signalled when syncPosters_ drops to 0
    // State below is protected by queueMutex_.
    int state_ = kStopped;
    QueuedMessage* head_ = nullptr;  // the queue: performed from head_, posted behind tail_
    QueuedMessage* tail_ = nullptr;
    size_t queued_ = 0;
    Slot* freeSlots_ = nullptr;  // serviced slots kept for the next messages
    size_t freeBytes_ = 0;       // their capacity
    int syncPosters_ = 0;        // posters between queueing their entry and returning
    // Wake-up bytes written and not yet read back: serviceMessages() reads only while some
    // are owed, so an empty pipe is never asked. A byte whose write failed (pipe full) is
    // counted too; the read that finds nothing then sets the count back to 0.
    size_t unreadBytes_ = 0;
    // Queued messages whose wake-up bytes serviceMessages() has already read: it reads the
    // bytes of every queued message in one go, then takes the messages one at a time.
    size_t prepaid_ = 0;
    // Touched by the servicing thread only: postFromServicer() queued without a byte.
    bool unsignalled_ = false;
    bool announcesWaits_ = false;
    // The servicing thread is, or is about to be, blocked, and no post has woken it yet.
    bool waiting_ = false;
    // State below is protected by startMutex_.
    bool startPending_ = false;
};

}  // namespace messaging
