#pragma once

// Lines of text added from any thread, with waits for them bounded by one patience shared by
// every test: long enough for a loaded machine or qemu, and only ever spent on a failure.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace zeltest {

constexpr auto kPatience = std::chrono::seconds(10);

class LineRecorder {
public:
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // How many lines equal line, or start with it when it ends in '*'.
    int count(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(line);
    }
    bool waitFor(const std::string& line, int times = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return countLocked(line) >= times; });
    }

private:
    int countLocked(const std::string& line) const {
        bool prefix = !line.empty() && line.back() == '*';
        size_t n = line.size() - prefix;
        int found = 0;
        for (const auto& l : lines_) found += prefix ? l.compare(0, n, line, 0, n) == 0 : l == line;
        return found;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

}  // namespace zeltest
