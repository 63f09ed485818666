#include "plat/DString.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace plat {

DString::~DString() {
    std::free(data_);
}

void DString::clear() {
    length_ = 0;
    if (data_) data_[0] = '\0';
}

void DString::reserve(size_t capacity) {
    if (capacity <= capacity_ && data_) return;
    size_t grown = capacity_ * 2 > capacity ? capacity_ * 2 : capacity;
    char* data = static_cast<char*>(std::realloc(data_, grown + 1));
    if (!data) throw std::bad_alloc();
    data_ = data;
    capacity_ = grown;
}

void DString::append(const char* text, size_t length) {
    reserve(length_ + length);
    std::memcpy(data_ + length_, text, length);
    length_ += length;
    data_[length_] = '\0';
}

void DString::appendFormatV(const char* format, va_list args) {
    // Most lines fit in what is already there; measure and retry only when they do not.
    reserve(length_ + 120);
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(data_ + length_, capacity_ - length_ + 1, format, copy);
    va_end(copy);
    if (needed < 0) {
        data_[length_] = '\0';
        return;
    }
    if (static_cast<size_t>(needed) > capacity_ - length_) {
        reserve(length_ + static_cast<size_t>(needed));
        std::vsnprintf(data_ + length_, capacity_ - length_ + 1, format, args);
    }
    length_ += static_cast<size_t>(needed);
}

void DString::formatV(const char* format, va_list args) {
    clear();
    appendFormatV(format, args);
}

void DString::format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    formatV(format, args);
    va_end(args);
}

void DString::appendFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    appendFormatV(format, args);
    va_end(args);
}

}  // namespace plat
