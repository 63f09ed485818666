#pragma once

#include <cstddef>
#include <cstdint>

namespace rdr {

// Base of every output byte stream. Small writes compare the buffer pointers inline; the
// virtual overrun() runs only when the buffer is full. Multi-byte integers are written
// big-endian. A stream is used by one thread at a time.
class OutStream {
public:
    virtual ~OutStream();

    // Copies length bytes, calling overrun() whenever the buffer is full. Throws whatever
    // overrun() throws (OutStreamFull, MaxBufferSizeReached, std::bad_alloc); bytes that fit
    // before the failure stay written.
    virtual void writeBytes(const void* data, size_t length);

    // Bytes written so far.
    virtual size_t length() = 0;

    // Does nothing here or in any stream of the library; owners flush explicitly.
    virtual void flush();

    virtual size_t spaceAvailable() = 0;

    // Makes room for at least one item of itemSize bytes after ptr, or throws. Returns how
    // many items of itemSize now fit (at least 1, at most nItems).
    virtual size_t overrun(size_t itemSize, size_t nItems) = 0;

    void writeU8(uint8_t value) {
        if (ptr_ >= end_) overrun(1, 1);
        *ptr_++ = value;
    }
    void writeU16(uint16_t value) {
        if (end_ - ptr_ < 2) overrun(2, 1);
        ptr_[0] = static_cast<uint8_t>(value >> 8);
        ptr_[1] = static_cast<uint8_t>(value);
        ptr_ += 2;
    }
    void writeU32(uint32_t value) {
        if (end_ - ptr_ < 4) overrun(4, 1);
        ptr_[0] = static_cast<uint8_t>(value >> 24);
        ptr_[1] = static_cast<uint8_t>(value >> 16);
        ptr_[2] = static_cast<uint8_t>(value >> 8);
        ptr_[3] = static_cast<uint8_t>(value);
        ptr_ += 4;
    }

    // Next free byte. Owners keep pointers/offsets into what they wrote to patch lengths in
    // afterwards; such pointers are valid only until the next write that may regrow.
    uint8_t* ptr() const { return ptr_; }

protected:
    OutStream() = default;
    OutStream(const OutStream&) = delete;
    OutStream& operator=(const OutStream&) = delete;

    uint8_t* ptr_ = nullptr;
    uint8_t* end_ = nullptr;
};

}  // namespace rdr
