#include "plat/Logger.h"

namespace plat {

namespace {
thread_local Logger* tCurrentLogger = nullptr;
}

Logger::~Logger() = default;

Logger* Logger::current() {
    return tCurrentLogger;
}

void Logger::setCurrent(Logger* logger) {
    tCurrentLogger = logger;
}

void LoggerRef::logV(int level, const char* format, va_list args) const {
    Logger* target = logger ? logger : tCurrentLogger;
    if (target) target->log(level, facility, format, args);
}

void LoggerRef::log(int level, const char* format, ...) const {
    va_list args;
    va_start(args, format);
    logV(level, format, args);
    va_end(args);
}

#define PLAT_LOGGER_LEVEL_FUNCTION(name, level)           \
    void LoggerRef::name(const char* format, ...) const { \
        va_list args;                                     \
        va_start(args, format);                           \
        logV(level, format, args);                        \
        va_end(args);                                     \
    }
PLAT_LOGGER_LEVEL_FUNCTION(error, kLogError)
PLAT_LOGGER_LEVEL_FUNCTION(warning, kLogWarning)
PLAT_LOGGER_LEVEL_FUNCTION(info, kLogInfo)
PLAT_LOGGER_LEVEL_FUNCTION(debug, kLogDebug)
#undef PLAT_LOGGER_LEVEL_FUNCTION

}  // namespace plat
