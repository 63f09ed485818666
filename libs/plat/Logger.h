#pragma once

#include <cstdarg>

namespace plat {

// Log levels: lower is more severe.
enum LogLevel : int { kLogError = 0, kLogWarning = 10, kLogInfo = 30, kLogDebug = 100 };

// Where log lines go. In the SDK the endpoint is the logger: it formats the line and hands
// it to the application's log callback.
class Logger {
public:
    virtual ~Logger();
    virtual void log(int level, const char* facility, const char* format, va_list args) = 0;

    // The calling thread's current logger, used by references that name no logger of their
    // own. Each thread starts with none.
    static Logger* current();
    static void setCurrent(Logger* logger);
};

// A facility name plus an optional logger. Components keep one as a member; a reference
// without a logger writes through the calling thread's current logger, if any.
struct LoggerRef {
    const char* facility;
    Logger* logger;

    void log(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    void logV(int level, const char* format, va_list args) const;
    void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    // True when a line logged now would reach a logger; lets hot paths skip building
    // arguments for lines nobody reads.
    bool active() const { return logger != nullptr || Logger::current() != nullptr; }
};

// Makes a logger the calling thread's current one for the scope's duration.
class ScopedCurrentLogger {
public:
    explicit ScopedCurrentLogger(Logger* logger) : previous_(Logger::current()) {
        Logger::setCurrent(logger);
    }
    ~ScopedCurrentLogger() { Logger::setCurrent(previous_); }
    ScopedCurrentLogger(const ScopedCurrentLogger&) = delete;
    ScopedCurrentLogger& operator=(const ScopedCurrentLogger&) = delete;

private:
    Logger* previous_;
};

}  // namespace plat
