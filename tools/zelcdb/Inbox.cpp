#include "Inbox.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace zelcdb {

void Inbox::post(Event event) {
    // Notified under the lock: once the main thread has the event it may be on its way out
    // of the process, and the condition must not be touched after that.
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_one();
}

std::optional<Event> Inbox::wait(std::optional<Clock::time_point> deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto ready = [this] { return !events_.empty(); };
    if (deadline) {
        if (!changed_.wait_until(lock, *deadline, ready)) return std::nullopt;
    } else {
        changed_.wait(lock, ready);
    }
    Event event = std::move(events_.front());
    events_.pop_front();
    return event;
}

Inbox& inbox() {
    // Never destroyed: the signal thread, and an endpoint thread left to finish its ByeBye,
    // may still post while the process ends.
    static Inbox* instance = new Inbox;
    return *instance;
}

void watchInterrupts() {
    static sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([] {
        int received = 0;
        for (int count = 0;; ++count) {
            if (sigwait(&signals, &received) != 0) continue;
            if (count == 0) {
                inbox().post(Event(EventKind::Interrupt));
            } else {
                static const char text[] = "zelcdb: interrupted again, leaving at once\n";
                ssize_t ignored = write(STDERR_FILENO, text, sizeof text - 1);
                (void)ignored;
                _exit(130);
            }
        }
    }).detach();
}

}  // namespace zelcdb
