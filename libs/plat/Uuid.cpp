#include "plat/Uuid.h"

#include "plat/Exception.h"

namespace plat {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Uuid Uuid::parse(const char* text) {
    if (text == nullptr) text = "";
    Uuid uuid{};
    unsigned digits = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '-') continue;
        int value = hexValue(*p);
        if (value < 0 || digits == 2 * sizeof uuid.bytes) {
            throw ExceptionFmt("Invalid UUID '%s'", text);
        }
        uuid.bytes[digits / 2] = static_cast<uint8_t>(uuid.bytes[digits / 2] << 4 | value);
        ++digits;
    }
    if (digits != 2 * sizeof uuid.bytes) throw ExceptionFmt("Invalid UUID '%s'", text);
    return uuid;
}

}  // namespace plat
