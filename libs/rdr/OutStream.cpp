#include "rdr/OutStream.h"

#include <cstring>

namespace rdr {

OutStream::~OutStream() = default;

void OutStream::flush() {}

void OutStream::writeBytes(const void* data, size_t length) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    while (length > 0) {
        if (ptr_ >= end_) overrun(1, length);
        size_t room = static_cast<size_t>(end_ - ptr_);
        size_t chunk = length < room ? length : room;
        std::memcpy(ptr_, bytes, chunk);
        ptr_ += chunk;
        bytes += chunk;
        length -= chunk;
    }
}

}  // namespace rdr
