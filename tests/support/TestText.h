#pragma once

// Text helpers for every test program: printf into a std::string, bytes to and from hex.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace zeltest {

using Bytes = std::vector<uint8_t>;

inline std::string formatV(const char* text, va_list args) {
    va_list again;
    va_copy(again, args);
    std::string out(static_cast<size_t>(std::vsnprintf(nullptr, 0, text, args)), '\0');
    std::vsnprintf(&out[0], out.size() + 1, text, again);
    va_end(again);
    return out;
}
__attribute__((format(printf, 1, 2))) inline std::string format(const char* text, ...) {
    va_list args;
    va_start(args, text);
    std::string out = formatV(text, args);
    va_end(args);
    return out;
}

// Upper-case hex, bytes separated by separator.
inline std::string hex(const void* data, size_t length, const char* separator = " ") {
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        out += format("%s%02X", i == 0 ? "" : separator, static_cast<const uint8_t*>(data)[i]);
    }
    return out;
}
inline std::string hex(const Bytes& bytes, const char* separator = " ") {
    return hex(bytes.data(), bytes.size(), separator);
}

// "01 02A1" -> bytes: pairs of hex digits, spaces anywhere between pairs.
inline Bytes parseHex(const std::string& text) {
    Bytes out;
    for (size_t i = 0; (i = text.find_first_not_of(' ', i)) != std::string::npos; i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

}  // namespace zeltest
