#pragma once

#include <cstdint>

// Type bytes of the SBP data encoding, shared by the serializer and the deserializer.
namespace zelcdbsdk {

constexpr uint8_t kSBPTypeEnd = 0x81;
constexpr uint8_t kSBPTypeBoolean = 0x82;
constexpr uint8_t kSBPTypeByte = 0x83;
constexpr uint8_t kSBPTypeShort = 0x84;
constexpr uint8_t kSBPTypeInt = 0x85;
constexpr uint8_t kSBPTypeLong = 0x86;
constexpr uint8_t kSBPTypeFloat = 0x87;
constexpr uint8_t kSBPTypeDouble = 0x88;
constexpr uint8_t kSBPTypeBytes = 0x90;
constexpr uint8_t kSBPTypeString = 0x91;
constexpr uint8_t kSBPTypeScalarArray = 0xA0;
constexpr uint8_t kSBPTypeStructure = 0xA1;
constexpr uint8_t kSBPTypeStructureArray = 0xA2;

// Whether a scalar array may hold elements of this type. The 8-bit integer is refused on
// purpose (peers do the same, so an array of bytes never reaches them): keep the 0 entry.
inline bool isScalarArrayElementType(uint8_t type) {
    static constexpr uint8_t kAllowed[7] = {1, 0, 1, 1, 1, 1, 1};
    unsigned index = static_cast<unsigned>(type) - kSBPTypeBoolean;
    return index < 7 && kAllowed[index] != 0;
}

// Payload bytes of a fixed-size scalar type (boolean to double); 0 for any other type.
inline uint32_t sbpScalarSize(uint8_t type) {
    static constexpr uint8_t kSizes[7] = {1, 1, 2, 4, 8, 4, 8};
    unsigned index = static_cast<unsigned>(type) - kSBPTypeBoolean;
    return index < 7 ? kSizes[index] : 0;
}

// Big-endian stores into room the caller has reserved; each returns the position after.
inline uint8_t* sbpPutU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
    return p + 2;
}

inline uint8_t* sbpPutU32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
    return p + 4;
}

inline uint8_t* sbpPutU64(uint8_t* p, uint64_t v) {
    sbpPutU32(p, static_cast<uint32_t>(v >> 32));
    return sbpPutU32(p + 4, static_cast<uint32_t>(v));
}

}  // namespace zelcdbsdk
