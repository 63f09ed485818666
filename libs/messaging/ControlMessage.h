#pragma once

namespace messaging {

// A unit of work handed to the servicing thread of a ControlMessageQueue. The poster builds
// one on its own stack; when it has to be queued, clone() gives the heap copy that the queue
// owns and performs later on the servicing thread.
class ControlMessage {
public:
    virtual ~ControlMessage() = default;

    // Performs the message. The result reaches a synchronous poster; asynchronous posting
    // drops it.
    virtual int action() = 0;

    // A heap copy that owns deep copies of everything the message refers to (the caller's
    // buffers are gone by the time the copy is performed), or null when the message cannot
    // be queued. The caller owns the copy.
    virtual ControlMessage* clone() const { return nullptr; }
};

}  // namespace messaging
