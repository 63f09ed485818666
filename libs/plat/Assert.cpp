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
    if (file[0] == '/') {
        // The last match, so that a checkout inside another ".../libs/" still gives the
        // project's own name.
        for (const char* root : kSourceRoots) {
            for (const char* hit = std::strstr(file, root); hit; hit = std::strstr(hit + 1, root)) {
                if (hit + 1 > start) start = hit + 1;
            }
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
