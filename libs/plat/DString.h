#pragma once

#include <cstdarg>
#include <cstddef>

namespace plat {

// A growable, NUL-terminated character buffer with printf-style formatting. The logger
// formats each line into one.
class DString {
public:
    DString() = default;
    ~DString();
    DString(const DString&) = delete;
    DString& operator=(const DString&) = delete;

    // Replaces the content. Throws std::bad_alloc when the buffer cannot grow.
    void format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void formatV(const char* format, va_list args);
    // Appends formatted text.
    void appendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void appendFormatV(const char* format, va_list args);
    void append(const char* text, size_t length);

    const char* c_str() const { return data_ ? data_ : ""; }
    size_t length() const { return length_; }
    void clear();

private:
    void reserve(size_t capacity);  // room for capacity characters plus the NUL

    char* data_ = nullptr;
    size_t length_ = 0;
    size_t capacity_ = 0;
};

}  // namespace plat
