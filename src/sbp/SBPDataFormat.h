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

}  // namespace zelcdbsdk
