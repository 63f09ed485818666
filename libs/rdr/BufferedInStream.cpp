#include "rdr/BufferedInStream.h"

#include <cstring>

namespace rdr {

BufferedInStream::BufferedInStream(size_t bufferSize)
    : bufferSize_(static_cast<uint32_t>(bufferSize ? bufferSize : kDefaultBufferSize)),
      buffer_(new uint8_t[bufferSize_]) {
    ptr_ = end_ = checkpointPtr_ = buffer_;
}

BufferedInStream::~BufferedInStream() {
    delete[] buffer_;
}

uint32_t BufferedInStream::pos() {
    return static_cast<uint32_t>(ptr_ - buffer_) + offset_;
}

bool BufferedInStream::fillBuffer(size_t nBytes) {
    // Drop what lies before the checkpoint; what follows it may still be rewound to.
    if (checkpointPtr_ != buffer_) {
        size_t dropped = static_cast<size_t>(checkpointPtr_ - buffer_);
        size_t kept = static_cast<size_t>(end_ - checkpointPtr_);
        if (kept > 0) std::memmove(buffer_, checkpointPtr_, kept);
        offset_ += static_cast<uint32_t>(dropped);
        ptr_ -= dropped;
        end_ -= dropped;
        checkpointPtr_ = buffer_;
    }
    uint8_t* limit = buffer_ + bufferSize_;
    size_t room = static_cast<size_t>(limit - ptr_);
    size_t needed = nBytes < room ? nBytes : room;
    while (available() < needed) {
        uint8_t* end = buffer_ + (end_ - buffer_);
        size_t got = readData(end, static_cast<size_t>(limit - end));
        if (got == 0) return false;
        end_ += got;
    }
    return true;
}

}  // namespace rdr
