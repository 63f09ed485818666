#include "plat/Utf8.h"

#include <cstring>
#include <new>

#include "plat/Exception.h"

namespace plat {

char* encodeUtf8(int32_t codePoint, char* out) {
    if (codePoint < 0x80) {
        *out++ = static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        *out++ = static_cast<char>(0xC0 | codePoint >> 6);
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        *out++ = static_cast<char>(0xE0 | codePoint >> 12);
        *out++ = static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint >= 0x110000) {
        throw Exception("Unicode out of range");
    } else {
        *out++ = static_cast<char>(0xF0 | codePoint >> 18);
        *out++ = static_cast<char>(0x80 | (codePoint >> 12 & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return out;
}

OwnedText widenToUtf8(const char* begin, const char* end) {
    size_t length = 0;
    if (end == nullptr) {
        length = std::strlen(begin);
    } else {
        while (begin + length < end && begin[length] != '\0') ++length;
    }
    // Room for a typical text with a few accented letters; grown when it runs short.
    size_t capacity = length + length / 2 + 1;
    std::unique_ptr<char[]> buffer(new char[capacity]);
    size_t used = 0;
    for (size_t i = 0; i < length; ++i) {
        if (capacity - used < 5) {
            size_t grown = capacity * 2;
            std::unique_ptr<char[]> bigger(new char[grown]);
            std::memcpy(bigger.get(), buffer.get(), used);
            buffer = std::move(bigger);
            capacity = grown;
        }
        char* out = buffer.get() + used;
        used = static_cast<size_t>(encodeUtf8(static_cast<unsigned char>(begin[i]), out) -
                                   buffer.get());
    }
    buffer[used] = '\0';
    return OwnedText{std::move(buffer), used};
}

namespace {

// Decodes the sequence at p and advances p past it; -1 for a malformed sequence. Never
// reads past the NUL: a NUL is not a continuation byte.
int32_t decodeSequence(const unsigned char*& p, int& sequenceLength) {
    unsigned lead = *p;
    int n = 0;
    while (n < 8 && (lead & (0x80u >> n))) ++n;
    if (n == 0) {
        ++p;
        sequenceLength = 1;
        return static_cast<int32_t>(lead);
    }
    if (n < 2 || n > 4) return -1;
    int32_t codePoint = static_cast<int32_t>(lead & (0x7Fu >> n));
    for (int i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return -1;
        codePoint = codePoint << 6 | (p[i] & 0x3F);
    }
    p += n;
    sequenceLength = n;
    return codePoint;
}

// Whether the sequence had the fewest bytes its code point needs. The four-byte range
// stops at U+10FFFE (U+10FFFF never gets here: the broad refusal catches it), so every value
// beyond it takes the re-encoding path and meets the encoder's range check.
bool isShortest(int32_t codePoint, int sequenceLength) {
    switch (sequenceLength) {
        case 1:
            return true;
        case 2:
            return codePoint >= 0x80;
        case 3:
            return codePoint >= 0x800;
        default:
            return codePoint >= 0x10000 && codePoint <= 0x10FFFE;
    }
}

}  // namespace

bool checkAndNormalizeUtf8(char* text) {
    const unsigned char* read = reinterpret_cast<const unsigned char*>(text);
    char* write = nullptr;  // set from the first over-long sequence on
    while (*read != '\0') {
        int sequenceLength = 0;
        int32_t codePoint = decodeSequence(read, sequenceLength);
        // Deliberately broader than the surrogate range: it also refuses U+F800..U+FFFF
        // (U+FFFD among them) and U+1D800..U+1DFFF. Kept for compatibility with peers that
        // draw the same line; do not narrow it to the surrogates.
        if (codePoint == -1 || (codePoint & 0xD800) == 0xD800) return false;
        if (write == nullptr && !isShortest(codePoint, sequenceLength)) {
            write = text + (reinterpret_cast<const char*>(read) - text) - sequenceLength;
        }
        if (write != nullptr) write = encodeUtf8(codePoint, write);
    }
    if (write != nullptr) *write = '\0';
    return true;
}

}  // namespace plat
