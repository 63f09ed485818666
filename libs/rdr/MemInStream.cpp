#include "rdr/MemInStream.h"

#include "rdr/Exceptions.h"

namespace rdr {

MemInStream::MemInStream(const void* data, size_t length, bool ownsData)
    : start_(static_cast<const uint8_t*>(data)), ownsData_(ownsData) {
    ptr_ = checkpointPtr_ = start_;
    end_ = start_ + length;
}

MemInStream::~MemInStream() {
    if (ownsData_) delete[] start_;
}

uint32_t MemInStream::pos() {
    return static_cast<uint32_t>(ptr_ - start_);
}

bool MemInStream::fillBuffer(size_t) {
    throw EndOfStream();
}

}  // namespace rdr
