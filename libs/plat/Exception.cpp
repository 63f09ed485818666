#include "plat/Exception.h"

#include <cstdio>
#include <cstring>

namespace plat {

const char* errorDescription(int err, char* buffer, size_t size) {
    // The GNU and XSI strerror_r differ in their return type; use whichever this C library
    // offers.
#if defined(__GLIBC__) && defined(_GNU_SOURCE)
    return strerror_r(err, buffer, size);
#else
    return strerror_r(err, buffer, size) == 0 ? buffer : "Unknown error";
#endif
}

Exception::Exception(const char* message) {
    setMessage(message);
}

Exception::Exception(const char* format, va_list args) {
    setMessageV(format, args);
}

Exception::~Exception() = default;

void Exception::setMessage(const char* message) {
    if (std::snprintf(message_, sizeof message_, "%s", message ? message : "") < 0) {
        message_[0] = '\0';
    }
}

void Exception::setMessageV(const char* format, va_list args) {
    if (std::vsnprintf(message_, sizeof message_, format, args) < 0) message_[0] = '\0';
}

ExceptionFmt::ExceptionFmt(const char* format, ...) {
    va_list args;
    va_start(args, format);
    setMessageV(format, args);
    va_end(args);
}

SystemException::SystemException(const char* text, int err) : err_(err) {
    build(text);
}

void SystemException::build(const char* text) {
    char buffer[128];
    const char* description = errorDescription(err_, buffer, sizeof buffer);
    char text_copy[kMaxLength + 1];
    if (std::snprintf(text_copy, sizeof text_copy, "%s", text ? text : "") < 0) text_copy[0] = '\0';
    // Cutting at the buffer's end is intended; the result is looked at only to say so.
    if (std::snprintf(message_, sizeof message_, "%s%s%s (%d)", text_copy, text_copy[0] ? ": " : "",
                      description, err_) < 0) {
        message_[0] = '\0';
    }
}

SystemExceptionFmt::SystemExceptionFmt(int err, const char* format, ...) : SystemException(err) {
    va_list args;
    va_start(args, format);
    char text[kMaxLength + 1];
    if (std::vsnprintf(text, sizeof text, format, args) < 0) text[0] = '\0';
    va_end(args);
    build(text);
}

AssertionFail::AssertionFail(const char* expression, const char* file, int line)
    : expression_(expression), file_(file), line_(line) {
    if (std::snprintf(message_, sizeof message_, "Assertion '%s' failed at %s:%d", expression, file,
                      line) < 0) {
        message_[0] = '\0';
    }
}

}  // namespace plat
