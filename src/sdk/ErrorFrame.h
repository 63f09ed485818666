#pragma once

#include <exception>
#include <new>

#include "plat/Exception.h"
#include "plat/Logger.h"
#include "sdk/ErrorException.h"
#include "zelcdbsdk.h"

namespace zelcdbsdk {

// errorName() that never gives nullptr, for log lines.
inline const char* errorNameOrUnknown(ZELCDBError code) {
    const char* name = errorName(code);
    return name ? name : "Unknown";
}

// Logs at error level; a logger that itself throws must not break the frame.
void logSafely(const plat::LoggerRef& log, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// The outer frame of every API entry: runs body() and turns whatever it throws into an
// error code, with one error line through log. body returns a ZELCDBError. Nothing ever
// escapes to the application.
template <typename Body>
ZELCDBError runGuarded(const plat::LoggerRef& log, Body&& body) noexcept {
    try {
        return body();
    } catch (const ErrorException& e) {
        logSafely(log, "Operation failed with CDB SDK error %d (%s)", e.code(),
                  errorNameOrUnknown(e.code()));
        return e.code();
    } catch (const plat::Exception& e) {
        logSafely(log, "Caught exception: %s", e.str());
        return ZELCDBErrorFailed;
    } catch (const std::bad_alloc& e) {
        logSafely(log, "Caught std::exception: %s", e.what());
        return ZELCDBErrorOutOfMemory;
    } catch (const std::exception& e) {
        logSafely(log, "Caught std::exception: %s", e.what());
        return ZELCDBErrorFailed;
    } catch (...) {
        return ZELCDBErrorFailed;
    }
}

}  // namespace zelcdbsdk
