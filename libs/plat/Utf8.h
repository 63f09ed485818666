#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace plat {

// Appends the UTF-8 form of one code point at out (1 to 4 bytes) and returns the position
// after it. The caller guarantees 4 bytes of room. Surrogates are encoded like any other
// value and negative values take the one-byte branch, so callers that need strict output
// check the value themselves. Throws plat::Exception "Unicode out of range" from 0x110000 on.
char* encodeUtf8(int32_t codePoint, char* out);

// A NUL-terminated text owned by its holder; length excludes the NUL.
struct OwnedText {
    std::unique_ptr<char[]> text;
    size_t length = 0;
};

// Widens 8-bit text (each byte is the code point 0..255) to UTF-8. Reads up to end or the
// first NUL, whichever comes first; with a null end, up to the NUL. Throws std::bad_alloc.
OwnedText widenToUtf8(const char* begin, const char* end = nullptr);

// Checks the NUL-terminated UTF-8 text and rewrites it in place to shortest form; returns
// true when every sequence is acceptable. The text is never lengthened. Until the first
// over-long sequence the bytes are left alone; from there on each code point is re-encoded
// at the write position, so an over-long NUL (C0 80) becomes a real NUL that ends the
// string (the rest is still checked). On a false result the text may be partly rewritten.
// Refused: stray continuation bytes, leads of 5 or more bits, truncated sequences, and
// every code point with (cp & 0xD800) == 0xD800. Throws plat::Exception "Unicode out of
// range" for a four-byte sequence from 0x110000 on.
bool checkAndNormalizeUtf8(char* text);

}  // namespace plat
