#pragma once

#include <cstdint>

namespace plat {

// A 128-bit identifier in the byte order of its text form.
struct Uuid {
    uint8_t bytes[16];

    // Parses 32 hexadecimal digits (either case); "-" may stand anywhere and is skipped.
    // Anything else, more or fewer than 32 digits, throws plat::Exception
    // "Invalid UUID '<text>'". A null text counts as empty.
    static Uuid parse(const char* text);
};

}  // namespace plat
