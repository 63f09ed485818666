#pragma once

#include "plat/Exception.h"
#include "rdr/OutStream.h"

namespace rdr {

// Collects output in an owned buffer that grows by doubling up to a maximum, and hands it to
// a sink (writeData) only when flushBuffer() is called.
class FullyBufferedOutStream : public OutStream {
public:
    static constexpr size_t kDefaultInitialSize = 16384;
    static constexpr size_t kDefaultMaxSize = 0x400000;  // 4 MiB

    // "Maximum buffer size <maxSize> reached": not even one more item fits.
    class MaxBufferSizeReached : public plat::ExceptionFmt {
    public:
        explicit MaxBufferSizeReached(size_t maxSize)
            : plat::ExceptionFmt("Maximum buffer size %zu reached", maxSize) {}
    };

    // 0 selects the defaults above. Throws std::bad_alloc.
    explicit FullyBufferedOutStream(size_t initialSize = 0, size_t maxSize = 0);
    ~FullyBufferedOutStream() override;

    size_t length() override;
    size_t spaceAvailable() override;
    // Grows for all nItems, else for one item (returning 1), else throws MaxBufferSizeReached.
    size_t overrun(size_t itemSize, size_t nItems) override;

    // Hands the unflushed bytes to writeData until it takes nothing; when all are taken the
    // buffer starts again from its beginning. Throws what writeData throws.
    void flushBuffer();
    bool hasUnflushedData() const { return flushedPtr_ < ptr_; }

    size_t capacity() const { return capacity_; }

protected:
    // Passes up to length bytes to the sink and returns how many it took (0: none now).
    virtual size_t writeData(const void* data, size_t length) = 0;

    uint8_t* flushedPtr_;
    size_t capacity_;
    size_t maxSize_;
    size_t offset_ = 0;  // bytes handed to the sink so far
    uint8_t* buffer_;

private:
    bool grow(size_t bytes);
};

}  // namespace rdr
