#pragma once

#include <cstdint>

namespace plat {

// Appends the UTF-8 form of one code point at out (1 to 4 bytes) and returns the position
// after it. The caller guarantees 4 bytes of room. Surrogates are encoded like any other
// value and negative values take the one-byte branch, so callers that need strict output
// check the value themselves. Throws plat::Exception "Unicode out of range" from 0x110000 on.
char* encodeUtf8(int32_t codePoint, char* out);

}  // namespace plat
