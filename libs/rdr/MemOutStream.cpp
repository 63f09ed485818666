#include "rdr/MemOutStream.h"

#include <cstdint>
#include <cstring>

#include "rdr/Exceptions.h"

namespace rdr {

namespace {
size_t saturatingMul(size_t a, size_t b) {
    return b != 0 && a > SIZE_MAX / b ? SIZE_MAX : a * b;
}
size_t saturatingAdd(size_t a, size_t b) {
    return a > SIZE_MAX - b ? SIZE_MAX : a + b;
}
}  // namespace

MemOutStream::MemOutStream(size_t initialCapacity, size_t maxSize)
    : capacity_(maxSize != 0 && initialCapacity > maxSize ? maxSize : initialCapacity),
      maxSize_(maxSize) {
    if (capacity_ > 0) start_ = new uint8_t[capacity_];
    ptr_ = start_;
    end_ = start_ + capacity_;
}

MemOutStream::~MemOutStream() {
    delete[] start_;
}

size_t MemOutStream::spaceAvailable() {
    return 0x7fffffff;
}

size_t MemOutStream::overrun(size_t itemSize, size_t nItems) {
    size_t used = static_cast<size_t>(ptr_ - start_);
    if (maxSize_ != 0 && maxSize_ < saturatingAdd(used, itemSize)) throw OutStreamFull();
    size_t newCapacity = saturatingAdd(used, saturatingMul(itemSize, nItems));
    size_t doubled = saturatingMul(capacity_, 2);
    if (doubled > newCapacity) newCapacity = doubled;
    if (maxSize_ != 0 && newCapacity > maxSize_) newCapacity = maxSize_;

    uint8_t* block = new uint8_t[newCapacity];
    if (used > 0) std::memcpy(block, start_, used);
    delete[] start_;
    start_ = block;
    capacity_ = newCapacity;
    ptr_ = start_ + used;
    end_ = start_ + newCapacity;
    // Fewer than nItems fit only when the maximum cut the growth short.
    size_t fit = (newCapacity - used) / itemSize;
    return fit < nItems ? fit : nItems;
}

}  // namespace rdr
