#include "sdk/ErrorException.h"

#include <cstdarg>

#include "sdk/ErrorFrame.h"

namespace zelcdbsdk {

const char* errorName(ZELCDBError code) {
    switch (code) {
#define ZELCDB_ERROR_NAME_CASE(name, value) \
    case value:                             \
        return #name;
        ZELCDB_ERROR_MAP(ZELCDB_ERROR_NAME_CASE)
#undef ZELCDB_ERROR_NAME_CASE
    }
    return nullptr;
}

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
