#include "sbp/ZELSBPDeserializer.h"

#include <cstring>
#include <new>
#include <utility>

#include "plat/Utf8.h"
#include "rdr/Exceptions.h"
#include "rdr/MemInStream.h"
#include "sbp/SBPDataFormat.h"
#include "sbp/SBPFloatBits.h"
#include "sdk/ErrorException.h"

using zelcdbsdk::ErrorException;

// One call's walk over one input buffer.
class ZELSBPDeserializer::Walk {
public:
    Walk(ZELSBPDeserializer& owner, void* userData, const uint8_t* data, uint32_t length)
        : owner_(owner),
          callbacks_(owner.callbacks_),
          userData_(userData),
          start_(data),
          in_(data, length),
          stack_(std::move(owner.spareStack_)),
          text_(std::move(owner.spareText_)) {
        stack_.clear();
    }
    // Hands the buffers back for the next walk; a nested walk's are simply dropped.
    ~Walk() {
        owner_.spareStack_ = std::move(stack_);
        owner_.spareText_ = std::move(text_);
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    void run(bool valueList);

private:
    // A callback the value needs. A missing one is reported as soon as the type is known,
    // before any of the value's payload is read, so a short input still gives 200.
    template <typename Fn>
    static Fn need(Fn callback) {
        if (callback == nullptr)
            throw ErrorException(ZELCDBErrorSBPDeserializeCallbackNotImplemented);
        return callback;
    }

    // Reads and reports one value whose header is known. Returns true when it opened a
    // container (pushed on the stack), false for a scalar.
    bool value(uint32_t uid, uint8_t type);
    void string(uint32_t uid);
    void push(uint32_t uid, uint8_t type, uint8_t elementType, uint32_t expected);
    void closeFinished(bool pushed);

    ZELSBPDeserializer* handle() { return &owner_; }

    ZELSBPDeserializer& owner_;
    const ZELSBPDeserializerCallbacks& callbacks_;
    void* userData_;
    const uint8_t* start_;
    rdr::MemInStream in_;
    std::vector<StackRecord> stack_;
    std::vector<char> text_;
};

void ZELSBPDeserializer::Walk::run(bool valueList) {
    if (valueList) {
        // The list's count only tells an empty list from a non-empty one: after a non-zero
        // count, values are read until the input ends. Peers count on that; keep it.
        if (in_.readU32() == 0) return;
    }
    // Input that ends between two values ends the walk without error, even inside an open
    // container: peers accept such payloads, so this is no truncation.
    while (in_.available() != 0) {
        uint32_t uid;
        uint8_t type;
        if (stack_.empty()) {
            // Trailing bytes are an error only for a single value; a value list simply goes on.
            if (!valueList && in_.ptr() != start_) {
                throw ErrorException(ZELCDBErrorSBPDeserializeInputTooLong);
            }
            uid = in_.readU32();
            type = in_.readU8();
        } else {
            const StackRecord& top = stack_.back();
            if (top.type == zelcdbsdk::kSBPTypeStructure) {
                uid = in_.readU32();
                type = in_.readU8();
            } else if (top.type == zelcdbsdk::kSBPTypeStructureArray) {
                if (in_.readU8() != zelcdbsdk::kSBPTypeStructure) {
                    throw ErrorException(ZELCDBErrorSBPDeserializeInputMalformed);
                }
                uid = 0;
                type = zelcdbsdk::kSBPTypeStructure;
            } else {
                uid = 0;
                type = top.elementType;
            }
        }
        closeFinished(value(uid, type));
    }
}

bool ZELSBPDeserializer::Walk::value(uint32_t uid, uint8_t type) {
    ZELSBPDeserializer* d = handle();
    void* context = owner_.context_;
    switch (type) {
        case zelcdbsdk::kSBPTypeBoolean: {
            auto fn = need(callbacks_.booleanCallback);
            fn(d, context, userData_, uid, in_.readU8() != 0 ? 1 : 0);
            return false;
        }
        case zelcdbsdk::kSBPTypeByte: {
            auto fn = need(callbacks_.byteCallback);
            fn(d, context, userData_, uid, static_cast<int8_t>(in_.readU8()));
            return false;
        }
        case zelcdbsdk::kSBPTypeShort: {
            auto fn = need(callbacks_.shortCallback);
            fn(d, context, userData_, uid, static_cast<int16_t>(in_.readU16()));
            return false;
        }
        case zelcdbsdk::kSBPTypeInt: {
            auto fn = need(callbacks_.intCallback);
            fn(d, context, userData_, uid, static_cast<int32_t>(in_.readU32()));
            return false;
        }
        case zelcdbsdk::kSBPTypeLong: {
            auto fn = need(callbacks_.longCallback);
            uint64_t high = in_.readU32();
            uint64_t value = high << 32 | in_.readU32();
            fn(d, context, userData_, uid, static_cast<int64_t>(value));
            return false;
        }
        case zelcdbsdk::kSBPTypeFloat: {
            auto fn = need(callbacks_.floatCallback);
            fn(d, context, userData_, uid, zelcdbsdk::sbpFloatFromBits<float>(in_.readU32()));
            return false;
        }
        case zelcdbsdk::kSBPTypeDouble: {
            auto fn = need(callbacks_.doubleCallback);
            uint64_t high = in_.readU32();
            uint64_t bits = high << 32 | in_.readU32();
            fn(d, context, userData_, uid, zelcdbsdk::sbpFloatFromBits<double>(bits));
            return false;
        }
        case zelcdbsdk::kSBPTypeBytes: {
            auto fn = need(callbacks_.bytesCallback);
            uint32_t length = in_.readU32();
            if (length > in_.available()) {
                throw ErrorException(ZELCDBErrorSBPDeserializeInputTruncated);
            }
            fn(d, context, userData_, uid, in_.ptr(), length);
            in_.skip(length);
            return false;
        }
        case zelcdbsdk::kSBPTypeString:
            string(uid);
            return false;
        case zelcdbsdk::kSBPTypeScalarArray: {
            auto begin = need(callbacks_.arrayBeginCallback);
            need(callbacks_.endCallback);
            uint8_t elementType = in_.readU8();
            uint32_t count = in_.readU32();
            // The same table as the writer's, 8-bit integers refused.
            if (!zelcdbsdk::isScalarArrayElementType(elementType)) {
                throw ErrorException(ZELCDBErrorSBPDeserializeInputMalformed);
            }
            begin(d, context, userData_, uid, elementType);
            push(uid, type, elementType, count);
            return true;
        }
        case zelcdbsdk::kSBPTypeStructure: {
            auto begin = need(callbacks_.structureBeginCallback);
            need(callbacks_.endCallback);
            uint32_t count = in_.readU32();
            begin(d, context, userData_, uid, count);
            push(uid, type, 0, count);
            return true;
        }
        case zelcdbsdk::kSBPTypeStructureArray: {
            auto begin = need(callbacks_.arrayBeginCallback);
            need(callbacks_.endCallback);
            uint32_t count = in_.readU32();
            begin(d, context, userData_, uid, zelcdbsdk::kSBPTypeStructure);
            push(uid, type, zelcdbsdk::kSBPTypeStructure, count);
            return true;
        }
        default:
            throw ErrorException(ZELCDBErrorSBPDeserializeInputMalformed);
    }
}

void ZELSBPDeserializer::Walk::string(uint32_t uid) {
    auto fn = need(callbacks_.stringCallback);
    // The field counts 16-bit units here, while the writer puts the UTF-8 byte count in it;
    // peers read it the same way, so non-ASCII text does not round-trip. Keep both.
    uint32_t units = in_.readU32();
    // Refuse what the input cannot hold before sizing a buffer for it.
    if (units > in_.available() / 2) throw ErrorException(ZELCDBErrorSBPDeserializeInputTruncated);
    size_t needed = static_cast<size_t>(units) * 4 + 1;
    if (text_.size() < needed) text_.resize(needed);

    const uint8_t* p = in_.ptr();
    char* out = text_.data();
    for (uint32_t i = 0; i < units; ++i, p += 2) {
        int32_t unit = p[0] << 8 | p[1];
        if (unit < 0x80) {
            *out++ = static_cast<char>(unit);
        } else {
            out = plat::encodeUtf8(unit, out);
        }
    }
    *out = '\0';
    in_.skip(static_cast<size_t>(units) * 2);
    fn(handle(), owner_.context_, userData_, uid, text_.data());
}

void ZELSBPDeserializer::Walk::push(uint32_t uid, uint8_t type, uint8_t elementType,
                                    uint32_t expected) {
    stack_.push_back(StackRecord{uid, type, elementType, expected, 0});
}

void ZELSBPDeserializer::Walk::closeFinished(bool pushed) {
    while (!stack_.empty()) {
        StackRecord& top = stack_.back();
        if (!pushed) {
            if (++top.completed < top.expected) return;
        } else if (top.expected != 0) {
            return;
        }
        // An empty container closes at once and, unlike a finished non-empty one, is not
        // counted as a child of its parent, which then waits for one child more than it
        // holds. Peers walk data this way; do not mend it.
        if (top.type != zelcdbsdk::kSBPTypeScalarArray && in_.readU8() != zelcdbsdk::kSBPTypeEnd) {
            throw ErrorException(ZELCDBErrorSBPDeserializeInputMalformed);
        }
        uint32_t uid = top.uid;
        stack_.pop_back();
        need(callbacks_.endCallback)(handle(), owner_.context_, userData_, uid);
    }
}

ZELSBPDeserializer::ZELSBPDeserializer(void* context, const ZELSBPDeserializerCallbacks* callbacks,
                                       uint32_t callbacksSize)
    : context_(context), callbacks_() {
    if (callbacks != nullptr) {
        size_t size = callbacksSize < sizeof callbacks_ ? callbacksSize : sizeof callbacks_;
        std::memcpy(&callbacks_, callbacks, size);
    }
}

void ZELSBPDeserializer::deserialize(void* userData, const uint8_t* data, uint32_t length,
                                     bool valueList) {
    Walk walk(*this, userData, data, length);
    try {
        walk.run(valueList);
    } catch (const rdr::EndOfStream&) {
        throw ErrorException(ZELCDBErrorSBPDeserializeInputTruncated);
    }
}
