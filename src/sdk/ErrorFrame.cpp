#include "sdk/ErrorFrame.h"

#include <cstdarg>

namespace zelcdbsdk {

void logSafely(const plat::LoggerRef& log, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    try {
        log.logV(plat::kLogError, format, args);
    } catch (...) {
    }
    va_end(args);
}

}  // namespace zelcdbsdk
