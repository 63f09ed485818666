#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "rdr/MemOutStream.h"
#include "sbp/SBPDataFormat.h"
#include "sbp/SBPFloatBits.h"
#include "zelcdbsdk.h"

// One open container of a serializer: a structure, a scalar array, an array of structures
// or the top-level value list.
struct SerializerStackEntry {
    uint8_t containerType;   // 0 for a value list, else 0xA0, 0xA1 or 0xA2
    uint8_t elementType;     // the type every child must have, 0 for any
    uint8_t mode;            // what the container takes without checks (see mode_)
    uint32_t countPosition;  // byte offset of the container's count field
    uint32_t count;          // children written so far, saved here while an inner one is open
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
    // buffer. Writes the value and returns true, deciding from mode_ alone (no stack access).
    // Returns false having done nothing in every other case (top level, a misplaced value, a
    // full buffer), which the checked add above then handles. Never throws, never allocates.
    template <typename T>
    bool tryAdd(uint32_t uid, T value) noexcept {
        constexpr uint8_t type = typeOf(T());
        uint8_t* p = buffer_.ptr();
        if (mode_ == type) {
            // A scalar array of this type: a bare payload, counted from the bytes at end().
            if (uid != 0 || buffer_.room() < sizeof(T)) return false;
            buffer_.commit(putPayload(p, value));
            return true;
        }
        if (mode_ != kModeFullHeaders || buffer_.room() < 5 + sizeof(T)) return false;
        ++count_;
        p = zelcdbsdk::sbpPutU32(p, uid);
        *p++ = type;
        buffer_.commit(putPayload(p, value));
        return true;
    }

    // The common case of text: a short ASCII string inside a structure or value list, with
    // room in the buffer. Writes it and returns true; returns false having committed nothing
    // in every other case (non-ASCII text included), and the checked addString then starts
    // over. text is not null. Never throws, never allocates.
    bool tryAddAsciiString(uint32_t uid, const char* text, uint32_t length) noexcept {
        constexpr uint32_t kShortText = 256;
        if (mode_ != kModeFullHeaders || length > kShortText) return false;
        uint8_t* p = buffer_.ptr();
        if (buffer_.room() < 9 + 2 * static_cast<size_t>(length)) return false;
        const uint8_t* in = reinterpret_cast<const uint8_t*>(text);
        uint8_t* out = p + 9;
        uint32_t i = 0;
        for (; length - i >= 8; i += 8) {
            if (!widenAscii8(in + i, out + 2 * i)) return false;
        }
        if (i < length && length >= 8) {
            // The last block overlaps the one before, writing the same units again.
            if (!widenAscii8(in + length - 8, out + 2 * (length - 8))) return false;
        } else {
            for (; i < length; ++i) {
                if (in[i] >= 0x80) return false;
                out[2 * i] = 0;
                out[2 * i + 1] = in[i];
            }
        }
        p = zelcdbsdk::sbpPutU32(p, uid);
        *p++ = zelcdbsdk::kSBPTypeString;
        zelcdbsdk::sbpPutU32(p, length);
        ++count_;
        buffer_.commit(out + 2 * static_cast<size_t>(length));
        return true;
    }

    // The common case of a structure: a member of a structure or value list, or an element
    // of an array of structures, with room in the buffer and on the stack. Returns false
    // having done nothing otherwise. Never throws, never allocates.
    bool tryBeginStructure(uint32_t uid) noexcept {
        uint8_t* p = buffer_.ptr();
        if (buffer_.room() < 9 || stack_.size() == stack_.capacity()) return false;
        if (mode_ == kModeFullHeaders) {
            p = zelcdbsdk::sbpPutU32(p, uid);
        } else if (mode_ != kModeStructures || uid != 0) {
            return false;
        }
        *p++ = zelcdbsdk::kSBPTypeStructure;
        ++count_;
        pushOpened(zelcdbsdk::kSBPTypeStructure, 0, p);
        return true;
    }

    // Closes the innermost container when one is open and its end byte, if any, fits.
    // Returns false having done nothing otherwise. Never throws, never allocates.
    bool tryEnd() noexcept {
        if (stack_.empty() || buffer_.room() < 1) return false;
        uint8_t type = stack_.back().containerType;
        if (type == zelcdbsdk::kSBPTypeStructure || type == zelcdbsdk::kSBPTypeStructureArray) {
            uint8_t* p = buffer_.ptr();
            *p = zelcdbsdk::kSBPTypeEnd;
            buffer_.commit(p + 1);
        }
        pop();
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
        void patchU32(uint32_t position, uint32_t value) {
            zelcdbsdk::sbpPutU32(start_ + position, value);
        }
    };

    // Checks where a value of this type may go, counts it in its container and returns the
    // write position after its header (UID and type, type only, or nothing). payloadBytes is
    // reserved beyond the header. The checks come before anything is written or counted.
    uint8_t* writeHeader(uint32_t uid, uint8_t type, size_t payloadBytes) {
        if (stack_.empty()) return writeFullHeader(uid, type, payloadBytes);
        const SerializerStackEntry& top = stack_.back();
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
                // Not counted: end() derives the count from the bytes written.
                return buffer_.reserve(payloadBytes);
            }
            p = buffer_.reserve(1 + payloadBytes);
            *p++ = type;
        }
        ++count_;
        return p;
    }
    uint8_t* writeFullHeader(uint32_t uid, uint8_t type, size_t payloadBytes) {
        uint8_t* p = zelcdbsdk::sbpPutU32(buffer_.reserve(5 + payloadBytes), uid);
        *p++ = type;
        return p;
    }
    [[noreturn]] static void refuse(ZELCDBError code);

    // Writes eight ASCII bytes as eight big-endian 16-bit units; false, having written
    // nothing, when any of them is not ASCII.
    static bool widenAscii8(const uint8_t* in, uint8_t* out) {
#if defined(__SSE2__)
        __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in));
        if (_mm_movemask_epi8(bytes) != 0) return false;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                         _mm_unpacklo_epi8(_mm_setzero_si128(), bytes));
#else
        uint64_t word;
        std::memcpy(&word, in, sizeof word);
        if ((word & 0x8080808080808080ull) != 0) return false;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        // Spreads each half's four bytes to every other byte, one position up.
        uint64_t halves[2] = {word & 0xFFFFFFFFu, word >> 32};
        for (uint64_t& h : halves) {
            h = (h | h << 16) & 0x0000FFFF0000FFFFull;
            h = ((h | h << 8) & 0x00FF00FF00FF00FFull) << 8;
        }
        std::memcpy(out, halves, sizeof halves);
#else
        for (int k = 0; k < 8; ++k) {
            out[2 * k] = 0;
            out[2 * k + 1] = in[k];
        }
#endif
#endif
        return true;
    }

    static constexpr uint8_t typeOf(bool) {
        return zelcdbsdk::kSBPTypeBoolean;
    }
    static constexpr uint8_t typeOf(int8_t) {
        return zelcdbsdk::kSBPTypeByte;
    }
    static constexpr uint8_t typeOf(int16_t) {
        return zelcdbsdk::kSBPTypeShort;
    }
    static constexpr uint8_t typeOf(int32_t) {
        return zelcdbsdk::kSBPTypeInt;
    }
    static constexpr uint8_t typeOf(int64_t) {
        return zelcdbsdk::kSBPTypeLong;
    }
    static constexpr uint8_t typeOf(float) {
        return zelcdbsdk::kSBPTypeFloat;
    }
    static constexpr uint8_t typeOf(double) {
        return zelcdbsdk::kSBPTypeDouble;
    }
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
    // Opens a container whose count field starts at countField, within reserved room (its
    // header is written and counted in the parent already). The stack must have room.
    void pushOpened(uint8_t containerType, uint8_t elementType, uint8_t* countField) {
        uint32_t position = static_cast<uint32_t>(countField - buffer_.data());
        std::memset(countField, 0, 4);
        buffer_.commit(countField + 4);
        if (!stack_.empty()) stack_.back().count = count_;
        uint8_t mode = containerType == zelcdbsdk::kSBPTypeScalarArray      ? elementType
                       : containerType == zelcdbsdk::kSBPTypeStructureArray ? kModeStructures
                                                                            : kModeFullHeaders;
        // Filled in place: building the record on the stack and copying it in costs a
        // store-forwarding stall per container.
        stack_.emplace_back();
        SerializerStackEntry& entry = stack_.back();
        entry.containerType = containerType;
        entry.elementType = elementType;
        entry.mode = mode;
        entry.countPosition = position;
        entry.count = 0;
        count_ = 0;
        mode_ = mode;
    }
    // pushOpened() after making room on the stack; throws std::bad_alloc.
    void push(uint8_t containerType, uint8_t elementType, uint8_t* countField);
    // Patches the innermost container's count and closes it.
    void pop() {
        const SerializerStackEntry& top = stack_.back();
        uint32_t count = count_;
        if (top.containerType == zelcdbsdk::kSBPTypeScalarArray) {
            // Elements are fixed-size, nothing else follows the count field, and an element
            // is written whole or not at all: the bytes give the count without a counter.
            size_t bytes = buffer_.written() - top.countPosition - 4;
            count = static_cast<uint32_t>(bytes / zelcdbsdk::sbpScalarSize(top.elementType));
        }
        buffer_.patchU32(top.countPosition, count);
        stack_.pop_back();
        if (stack_.empty()) {
            count_ = 0;
            mode_ = kModeNone;
        } else {
            count_ = stack_.back().count;
            mode_ = stack_.back().mode;
        }
    }

    // What the innermost open container takes without further checks: kModeNone (nothing
    // open), kModeFullHeaders (a structure or a value list: any scalar with UID and type),
    // kModeStructures (an array of structures: structures without UID), or the element type
    // of a scalar array (bare payloads).
    static constexpr uint8_t kModeNone = 0;
    static constexpr uint8_t kModeFullHeaders = 1;
    static constexpr uint8_t kModeStructures = 2;

    // The fast paths read ptr_ and end_ (at the start of buffer_), mode_ and count_: all
    // within the object's first 64 bytes.
    Buffer buffer_;
    uint8_t mode_ = kModeNone;
    // Children of the innermost open container; a scalar array's count comes from its bytes.
    uint32_t count_ = 0;
    std::vector<SerializerStackEntry> stack_;
};
