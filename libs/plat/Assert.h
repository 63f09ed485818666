#pragma once

// Hard assertion: logs "Assertion '<expr>' failed at <file>:<line>" under "Assertion" at
// error level and aborts the process. Used only for broken internal invariants, never for
// input from the network or the application.
#define PLAT_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::plat::assertionFailed(#expr, __FILE__, __LINE__))

namespace plat {

[[noreturn]] void assertionFailed(const char* expression, const char* file, int line);

// Soft assertion: logs "Warning: <text>" under "Assertion" at error level and returns.
void assertionWarning(const char* text);

// The project-relative source name without extension ("libs/rdr/InStream") of a
// __FILE__ path, as it appears in assertion messages. The build makes __FILE__ relative to
// the source tree; an absolute path (a build without that mapping) is cut before its last
// top-level folder (libs, src, include, tests).
const char* sourceName(const char* file, char* buffer, unsigned size);

}  // namespace plat
