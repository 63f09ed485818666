#pragma once

#include <cstdint>
#include <vector>

#include "rdr/MemOutStream.h"
#include "zelcdbsdk.h"

// One open container of a serializer: a structure, a scalar array, an array of structures
// or the top-level value list.
struct SerializerStackEntry {
    rdr::MemOutStream* stream;
    uint32_t containerType;  // 0 for a value list, else 0xA0, 0xA1 or 0xA2
    uint32_t elementType;    // the type every child must have, 0 for any
    uint32_t countPosition;  // byte offset of the container's count field
    uint32_t count;          // children written so far
};

// Builds one SBP data payload from a sequence of add/begin/end calls (the object behind the
// serializer handle). Used by one thread at a time, for one payload, then destroyed.
//
// The add and begin methods expect the caller (the table entry) to have refused a complete
// serializer already. They throw zelcdbsdk::ErrorException for misplaced values (103, 104)
// and bad arguments (2), before anything of that value is written; std::bad_alloc when the
// buffer cannot grow, and ErrorException(2) for invalid UTF-8 text, both with the value
// partly written.
struct ZELSBPSerializer {
public:
    // Throws std::bad_alloc.
    ZELSBPSerializer();
    // Closes whatever is still open, patching each count.
    ~ZELSBPSerializer();
    ZELSBPSerializer(const ZELSBPSerializer&) = delete;
    ZELSBPSerializer& operator=(const ZELSBPSerializer&) = delete;

    // Something has been written and nothing is open.
    bool complete() const { return stack_.empty() && buffer_.written() > 0; }
    bool anythingOpen() const { return !stack_.empty(); }

    // The encoding so far; owned by the serializer, valid until the next write.
    const uint8_t* data() const { return buffer_.data(); }
    uint32_t length() const { return static_cast<uint32_t>(buffer_.written()); }

    void addBoolean(uint32_t uid, bool value);
    void addByte(uint32_t uid, int8_t value);
    void addShort(uint32_t uid, int16_t value);
    void addInt(uint32_t uid, int32_t value);
    void addLong(uint32_t uid, int64_t value);
    void addFloat(uint32_t uid, float value);
    void addDouble(uint32_t uid, double value);
    // data may be null only when length is 0 (checked by the caller).
    void addBytes(uint32_t uid, const uint8_t* data, uint32_t length);
    // length is the UTF-8 byte count; text may be null only when length is 0.
    void addString(uint32_t uid, const char* text, uint32_t length);

    // Only when nothing is open (else 104).
    void beginValueList();
    void beginStructure(uint32_t uid);
    // elementType 0x82 or 0x84..0x88 for a scalar array, 0xA1 for an array of structures;
    // anything else is 2.
    void beginArray(uint32_t uid, uint8_t elementType);
    // Closes the innermost container; the caller has checked that one is open.
    void end();

private:
    // The growing output block. Values reserve their whole encoding at once and write it
    // through a raw pointer, so the common case is one capacity test per value.
    class Buffer : public rdr::MemOutStream {
    public:
        static constexpr size_t kInitialCapacity = 1024;
        Buffer() : rdr::MemOutStream(kInitialCapacity, 0) {}

        size_t written() const { return static_cast<size_t>(ptr_ - start_); }
        // Room for n more bytes (grows by doubling); returns where they go.
        uint8_t* reserve(size_t n) {
            if (static_cast<size_t>(end_ - ptr_) < n) overrun(n, 1);
            return ptr_;
        }
        // Marks everything up to p as written.
        void commit(uint8_t* p) { ptr_ = p; }
        void patchU32(uint32_t position, uint32_t value);
    };

    // Checks where a value of this type may go, counts it in its container and returns the
    // write position after its header (UID and type, type only, or nothing). payloadBytes is
    // reserved beyond the header.
    uint8_t* writeHeader(uint32_t uid, uint8_t type, size_t payloadBytes);
    void push(uint32_t containerType, uint32_t elementType, uint8_t* countField);
    void pop();

    Buffer buffer_;
    std::vector<SerializerStackEntry> stack_;
};
