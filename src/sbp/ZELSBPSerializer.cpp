#include "sbp/ZELSBPSerializer.h"

#include <cstring>

#include "sbp/SBPDataFormat.h"
#include "sbp/SBPFloatBits.h"
#include "sdk/ErrorException.h"

using zelcdbsdk::ErrorException;

namespace {

// Every count field starts as zeros and gets its value when the container ends.
constexpr size_t kCountBytes = 4;
constexpr size_t kFullHeaderBytes = 5;

inline uint8_t* putU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
    return p + 2;
}

inline uint8_t* putU32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
    return p + 4;
}

inline uint8_t* putU64(uint8_t* p, uint64_t v) {
    putU32(p, static_cast<uint32_t>(v >> 32));
    return putU32(p + 4, static_cast<uint32_t>(v));
}

// Leading one bits of a UTF-8 lead byte.
inline unsigned leadingOnes(uint8_t byte) {
    unsigned n = 0;
    while (n < 8 && (byte & (0x80u >> n)) != 0) ++n;
    return n;
}

}  // namespace

void ZELSBPSerializer::Buffer::patchU32(uint32_t position, uint32_t value) {
    putU32(start_ + position, value);
}

ZELSBPSerializer::ZELSBPSerializer() {
    stack_.reserve(8);
}

ZELSBPSerializer::~ZELSBPSerializer() {
    while (!stack_.empty()) pop();
}

uint8_t* ZELSBPSerializer::writeHeader(uint32_t uid, uint8_t type, size_t payloadBytes) {
    if (stack_.empty()) {
        uint8_t* p = buffer_.reserve(kFullHeaderBytes + payloadBytes);
        p = putU32(p, uid);
        *p++ = type;
        return p;
    }
    SerializerStackEntry& top = stack_.back();
    if (top.elementType != 0 && top.elementType != type) {
        throw ErrorException(ZELCDBErrorSBPSerializeUnexpectedType);
    }
    uint8_t* p;
    if (top.containerType == zelcdbsdk::kSBPTypeStructure || top.containerType == 0) {
        p = buffer_.reserve(kFullHeaderBytes + payloadBytes);
        p = putU32(p, uid);
        *p++ = type;
    } else {
        if (uid != 0) throw ErrorException(ZELCDBErrorSBPSerializeUnexpectedUID);
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

void ZELSBPSerializer::push(uint32_t containerType, uint32_t elementType, uint8_t* countField) {
    uint32_t position = static_cast<uint32_t>(countField - buffer_.data());
    std::memset(countField, 0, kCountBytes);
    buffer_.commit(countField + kCountBytes);
    stack_.push_back(SerializerStackEntry{&buffer_, containerType, elementType, position, 0});
}

void ZELSBPSerializer::pop() {
    const SerializerStackEntry& top = stack_.back();
    static_cast<Buffer*>(top.stream)->patchU32(top.countPosition, top.count);
    stack_.pop_back();
}

void ZELSBPSerializer::addBoolean(uint32_t uid, bool value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeBoolean, 1);
    *p++ = value ? 1 : 0;
    buffer_.commit(p);
}

void ZELSBPSerializer::addByte(uint32_t uid, int8_t value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeByte, 1);
    *p++ = static_cast<uint8_t>(value);
    buffer_.commit(p);
}

void ZELSBPSerializer::addShort(uint32_t uid, int16_t value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeShort, 2);
    buffer_.commit(putU16(p, static_cast<uint16_t>(value)));
}

void ZELSBPSerializer::addInt(uint32_t uid, int32_t value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeInt, 4);
    buffer_.commit(putU32(p, static_cast<uint32_t>(value)));
}

void ZELSBPSerializer::addLong(uint32_t uid, int64_t value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeLong, 8);
    buffer_.commit(putU64(p, static_cast<uint64_t>(value)));
}

void ZELSBPSerializer::addFloat(uint32_t uid, float value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeFloat, 4);
    buffer_.commit(putU32(p, zelcdbsdk::sbpFloatBits(value)));
}

void ZELSBPSerializer::addDouble(uint32_t uid, double value) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeDouble, 8);
    buffer_.commit(putU64(p, zelcdbsdk::sbpFloatBits(value)));
}

void ZELSBPSerializer::addBytes(uint32_t uid, const uint8_t* data, uint32_t length) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeBytes, kCountBytes);
    buffer_.commit(putU32(p, length));
    if (length > 0) buffer_.writeBytes(data, length);
}

void ZELSBPSerializer::addString(uint32_t uid, const char* text, uint32_t length) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeString, kCountBytes);
    // The length field carries the UTF-8 byte count while the payload carries one 16-bit
    // unit per character. Peers write and read it this way, so only ASCII text round-trips:
    // keep it.
    buffer_.commit(putU32(p, length));

    const uint8_t* in = reinterpret_cast<const uint8_t*>(text);
    uint32_t i = 0;
    while (i < length) {
        // Each character takes at least one input byte, so a chunk of k bytes yields at most
        // k units: one capacity test per chunk.
        constexpr uint32_t kChunk = 256;
        uint32_t chunkEnd = length - i > kChunk ? i + kChunk : length;
        uint8_t* out = buffer_.reserve(2 * static_cast<size_t>(chunkEnd - i));
        while (i < chunkEnd) {
            uint8_t lead = in[i];
            if (lead < 0x80) {
                out = putU16(out, lead);
                ++i;
                continue;
            }
            unsigned n = leadingOnes(lead);
            // Overlong forms and surrogates pass, as peers let them pass.
            bool valid = n >= 2 && n <= 4 && length - i >= n;
            uint32_t value = lead & (0x7Fu >> n);
            for (unsigned k = 1; valid && k < n; ++k) {
                uint8_t next = in[i + k];
                valid = (next & 0xC0) == 0x80;
                value = value << 6 | (next & 0x3F);
            }
            if (!valid || value > 0xFFFF) {
                // What is converted so far stays: the caller must drop this serializer.
                buffer_.commit(out);
                throw ErrorException(ZELCDBErrorInvalidParameter);
            }
            out = putU16(out, static_cast<uint16_t>(value));
            i += n;
        }
        buffer_.commit(out);
    }
}

void ZELSBPSerializer::beginValueList() {
    if (!stack_.empty()) throw ErrorException(ZELCDBErrorSBPSerializeUnexpectedType);
    // A value list has no header of its own: just the count, then full values.
    push(0, 0, buffer_.reserve(kCountBytes));
}

void ZELSBPSerializer::beginStructure(uint32_t uid) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeStructure, kCountBytes);
    push(zelcdbsdk::kSBPTypeStructure, 0, p);
}

void ZELSBPSerializer::beginArray(uint32_t uid, uint8_t elementType) {
    if (elementType == zelcdbsdk::kSBPTypeStructure) {
        uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeStructureArray, kCountBytes);
        push(zelcdbsdk::kSBPTypeStructureArray, zelcdbsdk::kSBPTypeStructure, p);
        return;
    }
    if (!zelcdbsdk::isScalarArrayElementType(elementType)) {
        throw ErrorException(ZELCDBErrorInvalidParameter);
    }
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeScalarArray, 1 + kCountBytes);
    *p++ = elementType;
    push(zelcdbsdk::kSBPTypeScalarArray, elementType, p);
}

void ZELSBPSerializer::end() {
    uint32_t type = stack_.back().containerType;
    if (type == zelcdbsdk::kSBPTypeStructure || type == zelcdbsdk::kSBPTypeStructureArray) {
        buffer_.writeU8(zelcdbsdk::kSBPTypeEnd);
    }
    pop();
}
