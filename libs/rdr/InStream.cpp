#include "rdr/InStream.h"

#include <cstring>
#include <memory>

#include "plat/Assert.h"
#include "plat/Exception.h"
#include "rdr/Exceptions.h"

namespace rdr {

namespace {
// These assertion texts and line numbers are fixed: applications match them in their logs.
// Do not tidy them into PLAT_ASSERT.
constexpr int kSetPtrAssertLine = 53;
constexpr int kGetItemsAssertLine = 71;
constexpr int kGetItemsNoWaitAssertLine = 89;
}  // namespace

InStream::~InStream() = default;

uint32_t InStream::setCheckpoint() {
    checkpointPtr_ = ptr_;
    checkpointPos_ = pos();
    return checkpointPos_;
}

void InStream::rewind() {
    if (!rewindable_) throw plat::Exception("Attempt to rewind a non-rewindable stream");
    ptr_ = checkpointPtr_;
}

void InStream::reposition(uint32_t pos) {
    if (pos < checkpointPos_) throw plat::Exception("Can't reposition before checkpoint");
    rewind();
    skip(pos - checkpointPos_);
}

int InStream::overrun(bool wait, size_t nBytes) {
    if (!rewindable_) setCheckpoint();
    bool filled;
    try {
        filled = fillBuffer(nBytes);
    } catch (const BlockException&) {
        filled = false;
    }
    if (!filled) {
        if (rewindable_) rewind();
        if (!wait) return 0;
        throw BlockException();
    }
    if (ptr_ == end_) throw plat::Exception("InStream overrun: buffer size exceeded");
    return 1;
}

// Copies n bytes that straddle refills into dest. Returns false (stream rewound) when the
// source runs dry and wait is not set.
static bool copyAcrossRefills(InStream& in, uint8_t* dest, size_t n, bool wait) {
    while (n > 0) {
        if (in.available() == 0 && !in.overrun(wait, 1)) return false;
        size_t chunk = in.available() < n ? in.available() : n;
        std::memcpy(dest, in.ptr(), chunk);
        in.skip(chunk);
        dest += chunk;
        n -= chunk;
    }
    return true;
}

const uint8_t* InStream::getBytesSlow(void* scratch, size_t n) {
    overrun(true, n);
    if (n <= available()) {
        const uint8_t* p = ptr_;
        ptr_ += n;
        return p;
    }
    copyAcrossRefills(*this, static_cast<uint8_t*>(scratch), n, true);
    return static_cast<const uint8_t*>(scratch);
}

void InStream::skipSlow(size_t n) {
    while (n > 0) {
        if (ptr_ == end_) overrun(true, 1);
        size_t step = available() < n ? available() : n;
        ptr_ += step;
        n -= step;
    }
}

char* InStream::readString(uint32_t maxLength) {
    uint32_t length = readU32();
    // The second test only matters where size_t is 32 bits wide.
    if (length > maxLength || static_cast<size_t>(length) + 1 == 0) {
        throw StringTooLongException();
    }
    std::unique_ptr<char[]> text(new char[static_cast<size_t>(length) + 1]);
    if (length > 0) {
        const uint8_t* bytes = getBytes(text.get(), length);
        if (bytes != reinterpret_cast<const uint8_t*>(text.get())) {
            std::memcpy(text.get(), bytes, length);
        }
    }
    text[length] = '\0';
    return text.release();
}

void InStream::setPtr(const uint8_t* p) {
    if (!(p >= ptr_ && p <= end_)) {
        plat::assertionFailed("p >= ptr && p <= end", __FILE__, kSetPtrAssertLine);
    }
    ptr_ = p;
}

const uint8_t* InStream::getItems(void* scratch, size_t itemSize, size_t* nItems) {
    if (!(*nItems > 0)) plat::assertionFailed("*nItems > 0", __FILE__, kGetItemsAssertLine);
    return itemsAfterRefill(scratch, itemSize, nItems, true);
}

const uint8_t* InStream::getItemsNoWait(void* scratch, size_t itemSize, size_t* nItems) {
    if (!(*nItems > 0)) plat::assertionFailed("*nItems > 0", __FILE__, kGetItemsNoWaitAssertLine);
    return itemsAfterRefill(scratch, itemSize, nItems, false);
}

const uint8_t* InStream::itemsAfterRefill(void* scratch, size_t itemSize, size_t* nItems,
                                          bool wait) {
    PLAT_ASSERT(itemSize > 0);
    size_t whole = available() / itemSize;
    if (whole == 0) {
        if (!overrun(wait, itemSize)) return nullptr;
        whole = available() / itemSize;
        if (whole == 0) {
            if (!copyAcrossRefills(*this, static_cast<uint8_t*>(scratch), itemSize, wait)) {
                return nullptr;
            }
            *nItems = 1;
            return static_cast<const uint8_t*>(scratch);
        }
    }
    if (whole < *nItems) *nItems = whole;
    const uint8_t* p = ptr_;
    ptr_ += *nItems * itemSize;
    return p;
}

}  // namespace rdr
