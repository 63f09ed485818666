#pragma once

namespace messaging {

class Condition;
class Mutex;

// Creates the platform's mutexes and conditions. The caller owns what it gets; the objects
// throw std::bad_alloc when they cannot be allocated.
class MutexFactory {
public:
    virtual ~MutexFactory() = default;
    virtual Mutex* createMutex() = 0;
    virtual Condition* createCondition() = 0;
};

}  // namespace messaging
