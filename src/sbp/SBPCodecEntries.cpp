// The C entries of the SBP data serializer and deserializer. Each runs through the error
// frame; the codec has no endpoint, so its log lines go to the calling thread's current
// logger, if any.
#include "sbp/SBPCodecEntries.h"

#include <cstring>
#include <new>

#include "plat/Logger.h"
#include "sbp/ZELSBPDeserializer.h"
#include "sbp/ZELSBPSerializer.h"
#include "sdk/ErrorFrame.h"

namespace zelcdbsdk {

namespace {

const plat::LoggerRef kSerializerLog{"ZELSBPSerializer", nullptr};
const plat::LoggerRef kDeserializerLog{"ZELSBPDeserializer", nullptr};

// The common frame of every add and begin entry: a null handle, then a complete serializer,
// are refused before the entry's own checks.
template <typename Body>
ZELCDBError serializerAdd(ZELSBPSerializer* serializer, Body&& body) {
    return runGuarded(kSerializerLog, [&]() -> ZELCDBError {
        if (serializer == nullptr) return ZELCDBErrorInvalidParameter;
        if (serializer->complete()) return ZELCDBErrorSBPSerializeComplete;
        return body(*serializer);
    });
}

ZELCDBError serializerCreate(ZELSBPSerializer** serializer) {
    return runGuarded(kSerializerLog, [&]() -> ZELCDBError {
        if (serializer == nullptr) return ZELCDBErrorInvalidParameter;
        *serializer = nullptr;
        ZELSBPSerializer* created = new (std::nothrow) ZELSBPSerializer();
        if (created == nullptr) return ZELCDBErrorOutOfMemory;
        *serializer = created;
        return ZELCDBErrorNone;
    });
}

ZELCDBError serializerDestroy(ZELSBPSerializer* serializer) {
    return runGuarded(kSerializerLog, [&]() -> ZELCDBError {
        if (serializer == nullptr) return ZELCDBErrorInvalidParameter;
        delete serializer;
        return ZELCDBErrorNone;
    });
}

ZELCDBError serializerGetData(ZELSBPSerializer* serializer, const uint8_t** data,
                              uint32_t* length) {
    return runGuarded(kSerializerLog, [&]() -> ZELCDBError {
        if (data != nullptr) *data = nullptr;
        if (length != nullptr) *length = 0;
        if (serializer == nullptr || data == nullptr || length == nullptr) {
            return ZELCDBErrorInvalidParameter;
        }
        if (!serializer->complete()) return ZELCDBErrorSBPSerializeIncomplete;
        *data = serializer->data();
        *length = serializer->length();
        return ZELCDBErrorNone;
    });
}

// The checked path of a scalar add, kept out of line so that the common case below stays
// a leaf function without a stack frame.
template <typename T>
__attribute__((noinline, cold)) ZELCDBError addScalarChecked(ZELSBPSerializer* serializer,
                                                             uint32_t uid, T value) noexcept {
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        s.add(uid, value);
        return ZELCDBErrorNone;
    });
}

// A scalar add: the fast path cannot fail or throw, so it needs nothing from the frame;
// anything it does not cover (top level, errors, a full buffer) takes the checked path.
template <typename T>
ZELCDBError addScalar(ZELSBPSerializer* serializer, uint32_t uid, T value) noexcept {
    if (__builtin_expect(serializer != nullptr && serializer->tryAdd(uid, value), 1)) {
        return ZELCDBErrorNone;
    }
    return addScalarChecked(serializer, uid, value);
}

ZELCDBError serializerAddBoolean(ZELSBPSerializer* serializer, uint32_t uid, int32_t value) {
    return addScalar(serializer, uid, value != 0);
}

ZELCDBError serializerAddByte(ZELSBPSerializer* serializer, uint32_t uid, int8_t value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddShort(ZELSBPSerializer* serializer, uint32_t uid, int16_t value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddInt(ZELSBPSerializer* serializer, uint32_t uid, int32_t value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddLong(ZELSBPSerializer* serializer, uint32_t uid, int64_t value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddFloat(ZELSBPSerializer* serializer, uint32_t uid, float value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddDouble(ZELSBPSerializer* serializer, uint32_t uid, double value) {
    return addScalar(serializer, uid, value);
}

ZELCDBError serializerAddBytes(ZELSBPSerializer* serializer, uint32_t uid, const uint8_t* data,
                               uint32_t length) {
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        if (data == nullptr && length != 0) return ZELCDBErrorInvalidParameter;
        s.addBytes(uid, data, length);
        return ZELCDBErrorNone;
    });
}

__attribute__((noinline)) ZELCDBError addStringChecked(ZELSBPSerializer* serializer, uint32_t uid,
                                                       const char* utf8, uint32_t length) {
    if (serializer != nullptr && utf8 != nullptr && length == ZELSBP_NUL_TERMINATED &&
        serializer->tryAddAsciiString(uid, utf8, static_cast<uint32_t>(std::strlen(utf8)))) {
        return ZELCDBErrorNone;
    }
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        if (utf8 == nullptr && length != 0) return ZELCDBErrorInvalidParameter;
        if (length == ZELSBP_NUL_TERMINATED) length = static_cast<uint32_t>(std::strlen(utf8));
        s.addString(uid, utf8, length);
        return ZELCDBErrorNone;
    });
}

// Short ASCII text in a structure takes the fast path, which cannot fail or throw. Text
// to be measured goes the checked way first, keeping this entry free of calls.
ZELCDBError serializerAddString(ZELSBPSerializer* serializer, uint32_t uid, const char* utf8,
                                uint32_t length) {
    if (serializer != nullptr && utf8 != nullptr && length != ZELSBP_NUL_TERMINATED &&
        serializer->tryAddAsciiString(uid, utf8, length)) {
        return ZELCDBErrorNone;
    }
    return addStringChecked(serializer, uid, utf8, length);
}

ZELCDBError serializerBeginValueList(ZELSBPSerializer* serializer) {
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        s.beginValueList();
        return ZELCDBErrorNone;
    });
}

__attribute__((noinline)) ZELCDBError beginStructureChecked(ZELSBPSerializer* serializer,
                                                            uint32_t uid) {
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        s.beginStructure(uid);
        return ZELCDBErrorNone;
    });
}

ZELCDBError serializerBeginStructure(ZELSBPSerializer* serializer, uint32_t uid) {
    if (serializer != nullptr && serializer->tryBeginStructure(uid)) return ZELCDBErrorNone;
    return beginStructureChecked(serializer, uid);
}

ZELCDBError serializerBeginArray(ZELSBPSerializer* serializer, uint32_t uid, uint8_t elementType) {
    return serializerAdd(serializer, [&](ZELSBPSerializer& s) {
        s.beginArray(uid, elementType);
        return ZELCDBErrorNone;
    });
}

__attribute__((noinline)) ZELCDBError endChecked(ZELSBPSerializer* serializer) {
    return runGuarded(kSerializerLog, [&]() -> ZELCDBError {
        if (serializer == nullptr) return ZELCDBErrorInvalidParameter;
        if (!serializer->anythingOpen()) return ZELCDBErrorSBPSerializeUnexpectedEnd;
        // Every failure here, running out of memory included, is Failed rather than
        // OutOfMemory: existing applications expect that code from End, so keep it.
        try {
            serializer->end();
        } catch (...) {
            throw ErrorException(ZELCDBErrorFailed);
        }
        return ZELCDBErrorNone;
    });
}

ZELCDBError serializerEnd(ZELSBPSerializer* serializer) {
    if (serializer != nullptr && serializer->tryEnd()) return ZELCDBErrorNone;
    return endChecked(serializer);
}

ZELCDBError deserializerCreate(ZELSBPDeserializer** deserializer, void* context,
                               const ZELSBPDeserializerCallbacks* callbacks,
                               uint32_t callbacksSize) {
    return runGuarded(kDeserializerLog, [&]() -> ZELCDBError {
        if (deserializer == nullptr) return ZELCDBErrorInvalidParameter;
        *deserializer = new (std::nothrow) ZELSBPDeserializer(context, callbacks, callbacksSize);
        return *deserializer == nullptr ? ZELCDBErrorOutOfMemory : ZELCDBErrorNone;
    });
}

ZELCDBError deserializerDestroy(ZELSBPDeserializer* deserializer) {
    return runGuarded(kDeserializerLog, [&]() -> ZELCDBError {
        if (deserializer == nullptr) return ZELCDBErrorInvalidParameter;
        delete deserializer;
        return ZELCDBErrorNone;
    });
}

// Returns a word, not a code, and cannot fail: no frame needed.
void* deserializerGetContext(ZELSBPDeserializer* deserializer) {
    return deserializer == nullptr ? nullptr : deserializer->context();
}

ZELCDBError deserialize(ZELSBPDeserializer* deserializer, void* userData, const uint8_t* data,
                        uint32_t length, bool valueList) {
    return runGuarded(kDeserializerLog, [&]() -> ZELCDBError {
        if (deserializer == nullptr) return ZELCDBErrorInvalidParameter;
        if (length == 0) return ZELCDBErrorSBPDeserializeInputTruncated;
        if (data == nullptr) return ZELCDBErrorInvalidParameter;
        deserializer->deserialize(userData, data, length, valueList);
        return ZELCDBErrorNone;
    });
}

ZELCDBError deserializerDeserialize(ZELSBPDeserializer* deserializer, void* userData,
                                    const uint8_t* data, uint32_t length) {
    return deserialize(deserializer, userData, data, length, false);
}

ZELCDBError deserializerDeserializeValueList(ZELSBPDeserializer* deserializer, void* userData,
                                             const uint8_t* data, uint32_t length) {
    return deserialize(deserializer, userData, data, length, true);
}

}  // namespace

void fillSBPCodecEntries(ZELCDBSDK& table) {
    table.serializerCreate = &serializerCreate;
    table.serializerDestroy = &serializerDestroy;
    table.serializerGetData = &serializerGetData;
    table.serializerAddBoolean = &serializerAddBoolean;
    table.serializerAddByte = &serializerAddByte;
    table.serializerAddShort = &serializerAddShort;
    table.serializerAddInt = &serializerAddInt;
    table.serializerAddLong = &serializerAddLong;
    table.serializerAddFloat = &serializerAddFloat;
    table.serializerAddDouble = &serializerAddDouble;
    table.serializerAddBytes = &serializerAddBytes;
    table.serializerAddString = &serializerAddString;
    table.serializerBeginValueList = &serializerBeginValueList;
    table.serializerBeginStructure = &serializerBeginStructure;
    table.serializerBeginArray = &serializerBeginArray;
    table.serializerEnd = &serializerEnd;
    table.deserializerCreate = &deserializerCreate;
    table.deserializerDestroy = &deserializerDestroy;
    table.deserializerGetContext = &deserializerGetContext;
    table.deserializerDeserialize = &deserializerDeserialize;
    table.deserializerDeserializeValueList = &deserializerDeserializeValueList;
}

}  // namespace zelcdbsdk
