#pragma once

#include "rdr/OutStream.h"

namespace rdr {

// Writes into a growing heap block. When full it grows to max(used + needed, 2 * capacity),
// clamped to maxSize when one is set; an item that would pass maxSize throws OutStreamFull.
class MemOutStream : public OutStream {
public:
    // 1 KiB holds a typical SBP payload without regrowing, and is cheap when a serializer
    // is made for a single value.
    static constexpr size_t kDefaultCapacity = 1024;

    // maxSize 0 means unbounded. An initialCapacity of 0 allocates on the first write.
    // Throws std::bad_alloc.
    explicit MemOutStream(size_t initialCapacity = kDefaultCapacity, size_t maxSize = 0);
    ~MemOutStream() override;

    size_t length() override { return static_cast<size_t>(ptr_ - start_); }
    size_t spaceAvailable() override;
    size_t overrun(size_t itemSize, size_t nItems) override;

    // The bytes written so far (length() of them); valid until the next write that regrows.
    const uint8_t* data() const { return start_; }
    size_t capacity() const { return capacity_; }
    // Forgets what was written, keeping the block.
    void clear() { ptr_ = start_; }

protected:
    uint8_t* start_ = nullptr;
    size_t capacity_;
    size_t maxSize_;
};

}  // namespace rdr
