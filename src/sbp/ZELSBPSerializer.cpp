#include "sbp/ZELSBPSerializer.h"

#include <cstring>

#include "sdk/ErrorException.h"

using zelcdbsdk::ErrorException;

namespace {

// Every count field starts as zeros and gets its value when the container ends.
constexpr size_t kCountBytes = 4;

// Leading one bits of a UTF-8 lead byte.
inline unsigned leadingOnes(uint8_t byte) {
    unsigned n = 0;
    while (n < 8 && (byte & (0x80u >> n)) != 0) ++n;
    return n;
}

}  // namespace

ZELSBPSerializer::ZELSBPSerializer() {
    stack_.reserve(8);
}

ZELSBPSerializer::~ZELSBPSerializer() {
    while (!stack_.empty()) pop();
}

void ZELSBPSerializer::refuse(ZELCDBError code) {
    throw ErrorException(code);
}

void ZELSBPSerializer::push(uint8_t containerType, uint8_t elementType, uint8_t* countField) {
    if (stack_.size() == stack_.capacity()) {
        // The count field (zero so far) is committed before the stack grows, so that a
        // failure to grow leaves the same bytes as an open that had room on the stack.
        std::memset(countField, 0, kCountBytes);
        buffer_.commit(countField + kCountBytes);
        stack_.reserve(2 * stack_.size());
    }
    pushOpened(containerType, elementType, countField);
}

void ZELSBPSerializer::addBytes(uint32_t uid, const uint8_t* data, uint32_t length) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeBytes, kCountBytes);
    buffer_.commit(zelcdbsdk::sbpPutU32(p, length));
    if (length > 0) buffer_.writeBytes(data, length);
}

void ZELSBPSerializer::addString(uint32_t uid, const char* text, uint32_t length) {
    uint8_t* p = writeHeader(uid, zelcdbsdk::kSBPTypeString, kCountBytes);
    // The length field carries the UTF-8 byte count while the payload carries one 16-bit
    // unit per character. Peers write and read it this way, so only ASCII text round-trips:
    // keep it.
    buffer_.commit(zelcdbsdk::sbpPutU32(p, length));

    const uint8_t* in = reinterpret_cast<const uint8_t*>(text);
    uint32_t i = 0;
    while (i < length) {
        // Each character takes at least one input byte, so a chunk of k bytes yields at most
        // k units: one capacity test per chunk.
        constexpr uint32_t kChunk = 256;
        uint32_t chunkEnd = length - i > kChunk ? i + kChunk : length;
        uint8_t* out = buffer_.reserve(2 * static_cast<size_t>(chunkEnd - i));
        while (i < chunkEnd) {
            // Runs of ASCII, the usual text, go eight bytes at a time.
            while (chunkEnd - i >= 8 && widenAscii8(in + i, out)) {
                out += 16;
                i += 8;
            }
            if (i == chunkEnd) break;
            uint8_t lead = in[i];
            if (lead < 0x80) {
                out = zelcdbsdk::sbpPutU16(out, lead);
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
            out = zelcdbsdk::sbpPutU16(out, static_cast<uint16_t>(value));
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
