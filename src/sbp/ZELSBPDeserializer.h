#pragma once

#include <cstdint>
#include <vector>

#include "zelcdbsdk.h"

// Walks SBP data and reports every value through the application's callbacks, in document
// order, on the calling thread (the object behind the deserializer handle). Copies nothing
// but strings, which it converts to UTF-8.
//
// A callback may call back into the same deserializer: each walk keeps its own nesting
// stack and text buffer, borrowing the deserializer's spare ones when they are free so that
// repeated walks allocate nothing.
struct ZELSBPDeserializer {
public:
    // Copies min(callbacksSize, sizeof table) bytes of callbacks (none when null); the rest
    // stay null. Does not allocate.
    ZELSBPDeserializer(void* context, const ZELSBPDeserializerCallbacks* callbacks,
                       uint32_t callbacksSize);
    ZELSBPDeserializer(const ZELSBPDeserializer&) = delete;
    ZELSBPDeserializer& operator=(const ZELSBPDeserializer&) = delete;

    void* context() const { return context_; }

    // Reads one top-level value (valueList false) or a value list (true) from data, which
    // stays the caller's and must hold length bytes. Throws zelcdbsdk::ErrorException with
    // 200 to 203 for what the input or the callback table lacks; std::bad_alloc when a
    // string's buffer cannot be had; plat::Exception for anything else. Callbacks made
    // before a failure stand.
    void deserialize(void* userData, const uint8_t* data, uint32_t length, bool valueList);

    // One open container of a walk.
    struct StackRecord {
        uint32_t uid;
        uint8_t type;         // 0xA0, 0xA1 or 0xA2
        uint8_t elementType;  // the 0xA0 element type, 0xA1 for 0xA2, 0 for a structure
        uint32_t expected;    // the count field read from the input
        uint32_t completed;   // children finished so far
    };

private:
    class Walk;

    void* context_;
    ZELSBPDeserializerCallbacks callbacks_;
    std::vector<StackRecord> spareStack_;
    std::vector<char> spareText_;
};
