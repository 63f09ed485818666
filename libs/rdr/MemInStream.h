#pragma once

#include "rdr/InStream.h"

namespace rdr {

// Reads a block of memory. The block is borrowed unless ownsData is set, in which case it
// must come from new uint8_t[] and is freed with delete[] by the destructor. Running past
// the end throws EndOfStream: a memory stream never gets more data.
class MemInStream : public InStream {
public:
    MemInStream(const void* data, size_t length, bool ownsData = false);
    ~MemInStream() override;

    uint32_t pos() override;
    bool fillBuffer(size_t nBytes) override;

protected:
    const uint8_t* start_;
    bool ownsData_;
};

}  // namespace rdr
