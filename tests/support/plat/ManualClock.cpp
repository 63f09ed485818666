#include "plat/ManualClock.h"

#include <algorithm>

namespace plat {

ManualClock::Listener::~Listener() = default;

void ManualClock::setTicks(int64_t ticks) {
    // One lock over the change and its notices keeps concurrent moves in order.
    std::lock_guard<std::mutex> lock(listenersMutex_);
    ticks_.store(ticks, std::memory_order_release);
    for (Listener* listener : listeners_) listener->timeChanged(*this);
}

void ManualClock::addListener(Listener* listener) {
    std::lock_guard<std::mutex> lock(listenersMutex_);
    listeners_.push_back(listener);
}

void ManualClock::removeListener(Listener* listener) {
    std::lock_guard<std::mutex> lock(listenersMutex_);
    listeners_.erase(std::remove(listeners_.begin(), listeners_.end(), listener), listeners_.end());
}

}  // namespace plat
