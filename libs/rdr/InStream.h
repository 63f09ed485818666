#pragma once

#include <cstddef>
#include <cstdint>

namespace rdr {

// Base of every input byte stream. The buffer pointers are exposed so that small reads are a
// pointer compare and a copy; the virtual fillBuffer() runs only when the buffer runs dry.
//
// Reads are transactional: a reader calls setCheckpoint() at the start of a message, and when
// the bytes run out half way the stream rewinds to the checkpoint and throws BlockException,
// so the message is parsed again from its start once more bytes have arrived. A stream that
// is not rewindable moves its checkpoint to the read pointer at each refill instead, so that
// consumed bytes can be dropped.
//
// Positions are byte counts from the start of the stream, unsigned 32-bit (they wrap).
// All multi-byte integers are big-endian. A stream is used by one thread at a time.
class InStream {
public:
    virtual ~InStream();

    virtual uint32_t pos() = 0;

    // Remembers the current position as the place rewind() returns to; returns it.
    virtual uint32_t setCheckpoint();

    // Goes back to the checkpoint. Throws plat::Exception on a non-rewindable stream.
    virtual void rewind();

    // Moves to an absolute position at or after the checkpoint, refilling as needed. Throws
    // plat::Exception for a position before the checkpoint (or on a non-rewindable stream),
    // BlockException when the bytes up to pos are not there yet.
    virtual void reposition(uint32_t pos);

    // Makes at least min(nBytes, room left in the buffer) bytes available after ptr. Returns
    // false when no more can be had now; may throw (EndOfStream, source failures).
    virtual bool fillBuffer(size_t nBytes) = 0;

    // The refill step behind every read. Returns 1 when bytes are available; when none can be
    // had, rewinds (rewindable streams) and returns 0, or throws BlockException when wait is
    // set. Throws plat::Exception when the buffer is full and still holds nothing to read.
    int overrun(bool wait, size_t nBytes);

    // n consecutive bytes, ptr advanced past them: a pointer into the buffer when they are
    // contiguous there, otherwise scratch (n bytes, caller's) after copying them into it.
    const uint8_t* getBytes(void* scratch, size_t n) {
        if (n <= available()) {
            const uint8_t* p = ptr_;
            ptr_ += n;
            return p;
        }
        return getBytesSlow(scratch, n);
    }

    uint8_t readU8() {
        uint8_t scratch[1];
        return *getBytes(scratch, 1);
    }
    uint16_t readU16() {
        uint8_t scratch[2];
        const uint8_t* p = getBytes(scratch, 2);
        return static_cast<uint16_t>((p[0] << 8) | p[1]);
    }
    uint32_t readU32() {
        uint8_t scratch[4];
        const uint8_t* p = getBytes(scratch, 4);
        return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
               (static_cast<uint32_t>(p[2]) << 8) | p[3];
    }

    // Reads a big-endian 32-bit byte count and that many bytes. Returns a zero-terminated
    // copy that the caller frees with delete[]. A count above maxLength throws
    // StringTooLongException before any of the string's bytes are read.
    char* readString(uint32_t maxLength);

    // Moves ptr forward to p, which must lie in [ptr, end]; anything else is a broken
    // caller and ends the process through the hard assertion.
    void setPtr(const uint8_t* p);

    // As many whole items as are contiguous in the buffer, at least one and at most *nItems;
    // their count is stored back in *nItems. When not even one item is contiguous, one item
    // is copied into scratch (itemSize bytes), *nItems becomes 1 and scratch is returned.
    // *nItems must be above 0 on entry (hard assertion). getItems throws BlockException
    // where getItemsNoWait returns null.
    const uint8_t* getItems(void* scratch, size_t itemSize, size_t* nItems);
    const uint8_t* getItemsNoWait(void* scratch, size_t itemSize, size_t* nItems);

    // Direct buffer access for readers that take payloads in place.
    const uint8_t* ptr() const { return ptr_; }
    const uint8_t* end() const { return end_; }
    size_t available() const { return static_cast<size_t>(end_ - ptr_); }

    // Advances by n bytes, refilling (and waiting, i.e. throwing BlockException) as needed.
    void skip(size_t n) {
        if (n <= available()) {
            ptr_ += n;
            return;
        }
        skipSlow(n);
    }

    bool rewindable() const { return rewindable_; }
    void setRewindable(bool rewindable) { rewindable_ = rewindable; }

protected:
    InStream() = default;
    InStream(const InStream&) = delete;
    InStream& operator=(const InStream&) = delete;

    const uint8_t* ptr_ = nullptr;
    const uint8_t* end_ = nullptr;
    const uint8_t* checkpointPtr_ = nullptr;
    uint32_t checkpointPos_ = 0;
    bool rewindable_ = true;

private:
    const uint8_t* getBytesSlow(void* scratch, size_t n);
    void skipSlow(size_t n);
    const uint8_t* itemsAfterRefill(void* scratch, size_t itemSize, size_t* nItems, bool wait);
};

}  // namespace rdr
