#pragma once

namespace messaging {

class Mutex;

// A condition variable for a Mutex of the same factory.
class Condition {
public:
    virtual ~Condition() = default;
    // Wakes one waiter.
    virtual void signal() = 0;
    // Atomically releases `mutex` (held by the caller) and waits; holds it again on return.
    // Wake-ups may be spurious: wait in a loop on the guarded state.
    virtual void wait(Mutex& mutex) = 0;
};

}  // namespace messaging
