#pragma once

#include "rdr/InStream.h"

namespace rdr {

// Reads from a source (readData) through an owned buffer. A refill first drops the bytes
// before the checkpoint and keeps the rest at the buffer's start, so a rewind to the
// checkpoint still works after any number of refills as long as the message fits the buffer.
class BufferedInStream : public InStream {
public:
    static constexpr size_t kDefaultBufferSize = 16800;

    // bufferSize 0 means kDefaultBufferSize. Throws std::bad_alloc.
    explicit BufferedInStream(size_t bufferSize = 0);
    ~BufferedInStream() override;

    uint32_t pos() override;
    bool fillBuffer(size_t nBytes) override;

    size_t bufferSize() const { return bufferSize_; }

protected:
    // Reads up to maxBytes (never 0) into dest and returns how many; 0 means nothing is
    // available now. May throw; the exception reaches the reader unchanged.
    virtual size_t readData(void* dest, size_t maxBytes) = 0;

    uint32_t bufferSize_;
    uint32_t offset_ = 0;  // stream position of buffer_[0]
    uint8_t* buffer_;
};

}  // namespace rdr
