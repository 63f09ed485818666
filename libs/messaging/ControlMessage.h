#pragma once

#include <cstddef>

namespace messaging {

// A unit of work handed to the servicing thread of a ControlMessageQueue. The poster builds
// one on its own stack; when it has to be queued, the queue asks for a copy in storage it
// keeps (copySize() bytes, aligned for any type) and performs the copy later on the
// servicing thread, then destroys it in place and keeps the storage for the next message.
class ControlMessage {
public:
    virtual ~ControlMessage() = default;

    // Performs the message. The result reaches a synchronous poster; asynchronous posting
    // drops it.
    virtual int action() = 0;

    // Bytes a queued copy needs: the object and deep copies of everything it refers to (the
    // caller's buffers are gone by the time the copy is performed). 0 when the message
    // cannot be queued.
    virtual size_t copySize() const { return 0; }
    // Builds that copy in storage of at least copySize() bytes and returns it; the queue
    // destroys it with its destructor, never with delete.
    virtual ControlMessage* copyInto(void* storage) const {
        (void)storage;
        return nullptr;
    }
};

}  // namespace messaging
