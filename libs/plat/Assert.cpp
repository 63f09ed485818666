#include "plat/Assert.h"

#include <cstdlib>
#include <cstring>

#include "plat/Exception.h"
#include "plat/Logger.h"

namespace plat {

namespace {
const LoggerRef kAssertionLog{"Assertion", nullptr};
const char* const kSourceRoots[] = {"/libs/", "/src/", "/include/", "/tests/"};
}  // namespace

const char* sourceName(const char* file, char* buffer, unsigned size) {
    const char* start = file;
    for (const char* root : kSourceRoots) {
        const char* hit = std::strstr(file, root);
        if (hit) {
            start = hit + 1;
            break;
        }
    }
    size_t length = std::strlen(start);
    const char* dot = std::strrchr(start, '.');
    if (dot && !std::strchr(dot, '/')) length = static_cast<size_t>(dot - start);
    if (length >= size) length = size - 1;
    std::memcpy(buffer, start, length);
    buffer[length] = '\0';
    return buffer;
}

void assertionFailed(const char* expression, const char* file, int line) {
    char name[128];
    AssertionFail failure(expression, sourceName(file, name, sizeof name), line);
    try {
        kAssertionLog.error("%s", failure.str());
    } catch (...) {
    }
    std::abort();
}

void assertionWarning(const char* text) {
    try {
        kAssertionLog.error("Warning: %s", text);
    } catch (...) {
    }
}

}  // namespace plat
