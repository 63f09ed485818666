#include "rdr/FullyBufferedOutStream.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace rdr {

FullyBufferedOutStream::FullyBufferedOutStream(size_t initialSize, size_t maxSize)
    : capacity_(initialSize ? initialSize : kDefaultInitialSize),
      maxSize_(maxSize ? maxSize : kDefaultMaxSize),
      buffer_(new uint8_t[capacity_]) {
    ptr_ = flushedPtr_ = buffer_;
    end_ = buffer_ + capacity_;
}

FullyBufferedOutStream::~FullyBufferedOutStream() {
    delete[] buffer_;
}

size_t FullyBufferedOutStream::length() {
    return offset_ + static_cast<size_t>(ptr_ - flushedPtr_);
}

size_t FullyBufferedOutStream::spaceAvailable() {
    return static_cast<size_t>(end_ - ptr_) + static_cast<size_t>(flushedPtr_ - buffer_);
}

size_t FullyBufferedOutStream::overrun(size_t itemSize, size_t nItems) {
    // After a partial flush the bytes the sink took still sit in front of flushedPtr_.
    // Copying them into a grown block and handing them over again would put them into the
    // peer's stream twice, which no peer can make sense of; so their room is reclaimed
    // first, and the buffer grows only for what the unsent bytes and the new item need.
    discardFlushed();
    size_t all = itemSize != 0 && nItems > SIZE_MAX / itemSize ? SIZE_MAX : itemSize * nItems;
    if (grow(all)) return nItems;
    if (grow(itemSize)) return 1;
    throw MaxBufferSizeReached(maxSize_);
}

void FullyBufferedOutStream::discardFlushed() {
    if (flushedPtr_ == buffer_) return;
    size_t unsent = static_cast<size_t>(ptr_ - flushedPtr_);
    if (unsent > 0) std::memmove(buffer_, flushedPtr_, unsent);
    flushedPtr_ = buffer_;
    ptr_ = buffer_ + unsent;
}

bool FullyBufferedOutStream::grow(size_t bytes) {
    size_t used = static_cast<size_t>(ptr_ - buffer_);
    if (bytes <= capacity_ - used) return true;
    if (used > maxSize_ || bytes > maxSize_ - used) return false;
    size_t needed = used + bytes;
    size_t newCapacity = capacity_;
    while (newCapacity < needed && newCapacity <= maxSize_ / 2) newCapacity *= 2;
    if (newCapacity < needed || newCapacity > maxSize_) newCapacity = maxSize_;

    uint8_t* block = new (std::nothrow) uint8_t[newCapacity];
    if (!block) return false;
    if (used > 0) std::memcpy(block, buffer_, used);
    size_t unflushedAt = static_cast<size_t>(flushedPtr_ - buffer_);
    delete[] buffer_;
    buffer_ = block;
    flushedPtr_ = buffer_ + unflushedAt;
    capacity_ = newCapacity;
    ptr_ = buffer_ + used;
    end_ = buffer_ + capacity_;
    return true;
}

void FullyBufferedOutStream::flushBuffer() {
    while (flushedPtr_ < ptr_) {
        size_t pending = static_cast<size_t>(ptr_ - flushedPtr_);
        size_t taken = writeData(flushedPtr_, pending);
        if (taken < 1) break;
        if (taken > pending) taken = pending;
        flushedPtr_ += taken;
        offset_ += taken;
    }
    if (flushedPtr_ == ptr_) ptr_ = flushedPtr_ = buffer_;
}

}  // namespace rdr
