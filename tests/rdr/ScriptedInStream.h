#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "rdr/BufferedInStream.h"

namespace rdrtest {

// A BufferedInStream over a script of chunks: each readData call hands out (part of) the
// next chunk, an empty chunk is one "nothing available now" answer, and an exhausted script
// answers nothing forever, or calls onDry (which may throw, as a failing source would).
// Tracks the calls so tests can check when refills happen.
class ScriptedInStream : public rdr::BufferedInStream {
public:
    explicit ScriptedInStream(size_t bufferSize = 0) : rdr::BufferedInStream(bufferSize) {}

    void add(const std::vector<uint8_t>& chunk) { chunks_.push_back(chunk); }
    void add(const std::string& chunk) { chunks_.emplace_back(chunk.begin(), chunk.end()); }
    void addNothing() { chunks_.emplace_back(); }

    std::function<void()> onDry;
    int readCalls = 0;
    std::vector<size_t> offered;  // maxBytes of each call

    size_t bufferOffset() const { return offset_; }

protected:
    size_t readData(void* dest, size_t maxBytes) override {
        ++readCalls;
        offered.push_back(maxBytes);
        if (chunks_.empty()) {
            if (onDry) onDry();
            return 0;
        }
        std::vector<uint8_t>& chunk = chunks_.front();
        size_t n = std::min(maxBytes, chunk.size());
        if (n > 0) std::memcpy(dest, chunk.data(), n);
        chunk.erase(chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(n));
        if (chunk.empty()) chunks_.pop_front();
        return n;
    }

private:
    std::deque<std::vector<uint8_t>> chunks_;
};

}  // namespace rdrtest
