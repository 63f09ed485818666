#pragma once

#include <cstdarg>
#include <cstddef>

namespace plat {

// The system's description of an error number (thread-safe strerror), written into buffer
// when the C library needs room for it. Never null.
const char* errorDescription(int err, char* buffer, size_t size);

// Base of every failure raised inside the library. The message lives in a fixed buffer so
// that throwing never needs the heap; longer texts are cut at kMaxLength characters.
class Exception {
public:
    static constexpr int kMaxLength = 255;

    explicit Exception(const char* message = "");
    virtual ~Exception();

    const char* str() const { return message_; }

protected:
    Exception(const char* format, va_list args);  // for the formatting subclasses
    void setMessage(const char* message);
    void setMessageV(const char* format, va_list args);

    char message_[kMaxLength + 1];
};

// printf-formatted message.
class ExceptionFmt : public Exception {
public:
    explicit ExceptionFmt(const char* format, ...) __attribute__((format(printf, 2, 3)));

protected:
    ExceptionFmt() = default;
};

// A failed system call: "<text>: <strerror(err)> (<err>)", or without "<text>: " when the
// text is empty.
class SystemException : public Exception {
public:
    SystemException(const char* text, int err);
    int err() const { return err_; }

protected:
    explicit SystemException(int err) : err_(err) {}
    void build(const char* text);

private:
    int err_;
};

class SystemExceptionFmt : public SystemException {
public:
    SystemExceptionFmt(int err, const char* format, ...) __attribute__((format(printf, 3, 4)));
};

// "Assertion '<expression>' failed at <file>:<line>".
class AssertionFail : public Exception {
public:
    AssertionFail(const char* expression, const char* file, int line);
    const char* expression() const { return expression_; }
    const char* file() const { return file_; }
    int line() const { return line_; }

private:
    const char* expression_;
    const char* file_;
    int line_;
};

}  // namespace plat
