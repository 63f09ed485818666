#pragma once

#include <cstdint>
#include <vector>

#include "rdr/MemOutStream.h"
#include "sbp/SBPDataFormat.h"
#include "sbp/SBPFloatBits.h"
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

    // Adds a scalar; T picks the type: bool, int8_t, int16_t, int32_t, int64_t, float or
    // double. Inline: applications call it once per value, often thousands of times per
    // payload.
    template <typename T>
    void add(uint32_t uid, T value) {
        buffer_.commit(putPayload(writeHeader(uid, typeOf(value), sizeof(T)), value));
    }

    // The common case of a scalar: inside an open container that takes it, with room in the
    // buffer. Writes the value, counts it and returns true. Returns false having done nothing
    // in every other case (top level, a misplaced value, a full buffer), which the checked
    // add above then handles. Never throws, never allocates.
    template <typename T>
    bool tryAdd(uint32_t uid, T value) {
        const uint8_t type = typeOf(value);
        if (stack_.empty()) return false;
        SerializerStackEntry& top = stack_.back();
        if (top.elementType != 0 && top.elementType != type) return false;
        uint8_t* p = buffer_.ptr();
        if (buffer_.room() < 5 + sizeof(T)) return false;
        if (top.containerType == zelcdbsdk::kSBPTypeScalarArray) {
            if (uid != 0) return false;
        } else if (top.containerType == zelcdbsdk::kSBPTypeStructureArray) {
            if (uid != 0) return false;
            *p++ = type;
        } else {
            p = zelcdbsdk::sbpPutU32(p, uid);
            *p++ = type;
        }
        ++top.count;
        buffer_.commit(putPayload(p, value));
        return true;
    }

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
        size_t room() const { return static_cast<size_t>(end_ - ptr_); }
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
    // reserved beyond the header. The checks come before anything is written or counted.
    uint8_t* writeHeader(uint32_t uid, uint8_t type, size_t payloadBytes) {
        if (stack_.empty()) return writeFullHeader(uid, type, payloadBytes);
        SerializerStackEntry& top = stack_.back();
        if (top.elementType != 0 && top.elementType != type) {
            refuse(ZELCDBErrorSBPSerializeUnexpectedType);
        }
        uint8_t* p;
        if (top.containerType == zelcdbsdk::kSBPTypeStructure || top.containerType == 0) {
            p = writeFullHeader(uid, type, payloadBytes);
        } else {
            // Array elements carry no UID; scalar elements not even a type byte.
            if (uid != 0) refuse(ZELCDBErrorSBPSerializeUnexpectedUID);
            if (top.containerType == zelcdbsdk::kSBPTypeScalarArray) {
                p = buffer_.reserve(payloadBytes);
            } else {
                p = buffer_.reserve(1 + payloadBytes);
                *p++ = type;
            }
        }
        ++top.count;
        return p;
    }
    uint8_t* writeFullHeader(uint32_t uid, uint8_t type, size_t payloadBytes) {
        uint8_t* p = zelcdbsdk::sbpPutU32(buffer_.reserve(5 + payloadBytes), uid);
        *p++ = type;
        return p;
    }
    [[noreturn]] static void refuse(ZELCDBError code);

    static constexpr uint8_t typeOf(bool) { return zelcdbsdk::kSBPTypeBoolean; }
    static constexpr uint8_t typeOf(int8_t) { return zelcdbsdk::kSBPTypeByte; }
    static constexpr uint8_t typeOf(int16_t) { return zelcdbsdk::kSBPTypeShort; }
    static constexpr uint8_t typeOf(int32_t) { return zelcdbsdk::kSBPTypeInt; }
    static constexpr uint8_t typeOf(int64_t) { return zelcdbsdk::kSBPTypeLong; }
    static constexpr uint8_t typeOf(float) { return zelcdbsdk::kSBPTypeFloat; }
    static constexpr uint8_t typeOf(double) { return zelcdbsdk::kSBPTypeDouble; }
    static uint8_t* putPayload(uint8_t* p, bool v) {
        *p = v ? 1 : 0;
        return p + 1;
    }
    static uint8_t* putPayload(uint8_t* p, int8_t v) {
        *p = static_cast<uint8_t>(v);
        return p + 1;
    }
    static uint8_t* putPayload(uint8_t* p, int16_t v) {
        return zelcdbsdk::sbpPutU16(p, static_cast<uint16_t>(v));
    }
    static uint8_t* putPayload(uint8_t* p, int32_t v) {
        return zelcdbsdk::sbpPutU32(p, static_cast<uint32_t>(v));
    }
    static uint8_t* putPayload(uint8_t* p, int64_t v) {
        return zelcdbsdk::sbpPutU64(p, static_cast<uint64_t>(v));
    }
    static uint8_t* putPayload(uint8_t* p, float v) {
        return zelcdbsdk::sbpPutU32(p, zelcdbsdk::sbpFloatBits(v));
    }
    static uint8_t* putPayload(uint8_t* p, double v) {
        return zelcdbsdk::sbpPutU64(p, zelcdbsdk::sbpFloatBits(v));
    }
    void push(uint32_t containerType, uint32_t elementType, uint8_t* countField);
    void pop();

    Buffer buffer_;
    std::vector<SerializerStackEntry> stack_;
};
