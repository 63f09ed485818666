#pragma once

#include "plat/Exception.h"
#include "rdr/OutStream.h"

namespace rdr {

// Collects output in an owned buffer that grows by doubling up to a maximum, and hands it to
// a sink (writeData) only when flushBuffer() is called. Every byte reaches the sink exactly
// once, in order, however the sink splits what it takes.
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

    // Bytes written so far, whether already handed to the sink or not.
    size_t length() override;
    // Room for more bytes without growing the buffer: the free tail plus the bytes the sink
    // has already taken, which overrun() reclaims before it grows.
    size_t spaceAvailable() override;
    // Makes room by dropping the bytes the sink has taken (the unsent ones move to the front
    // of the buffer), and grows only when that is not enough: for all nItems, else for one
    // item (returning 1), else throws MaxBufferSizeReached. Either way pointers into the
    // buffer obtained before the call are no longer valid.
    size_t overrun(size_t itemSize, size_t nItems) override;

    // Hands the unflushed bytes to writeData until it takes nothing; when all are taken the
    // buffer starts again from its beginning. Throws what writeData throws.
    void flushBuffer();
    bool hasUnflushedData() const { return flushedPtr_ < ptr_; }

    size_t capacity() const { return capacity_; }

protected:
    // Passes up to length bytes to the sink and returns how many it took (0: none now).
    virtual size_t writeData(const void* data, size_t length) = 0;

    uint8_t* flushedPtr_;  // first byte not yet handed to the sink
    size_t capacity_;
    size_t maxSize_;
    size_t offset_ = 0;  // bytes handed to the sink so far
    uint8_t* buffer_;

private:
    // Drops the bytes before flushedPtr_, moving the unsent ones to the front.
    void discardFlushed();
    bool grow(size_t bytes);
};

}  // namespace rdr
