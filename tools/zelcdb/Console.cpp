#include "Console.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "zelcdbsdk.h"

namespace zelcdb::console {

namespace {

std::atomic<int> level{0};
// Keeps lines from different threads whole.
std::mutex outputMutex;

const char* levelName(int logLevel) {
    if (logLevel <= ZELCDBLogError) return "error";
    if (logLevel <= ZELCDBLogWarning) return "warning";
    if (logLevel <= ZELCDBLogInfo) return "info";
    return "debug";
}

void toStderr(const std::string& text) {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::fprintf(stderr, "zelcdb: %s\n", text.c_str());
    std::fflush(stderr);
}

}  // namespace

void setVerbosity(int verbosity) {
    level = verbosity;
}

int verbosity() {
    return level;
}

void line(const std::string& text) {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void note(const std::string& text) {
    if (level >= 1) toStderr(text);
}

void message(const std::string& text) {
    toStderr(text);
}

void libraryLog(const char* category, int logLevel, const char* text) {
    int shown = level >= 2 ? ZELCDBLogDebug : level >= 1 ? ZELCDBLogInfo : -1;
    if (logLevel > shown) return;
    std::lock_guard<std::mutex> lock(outputMutex);
    std::fprintf(stderr, "  [%s] %s: %s\n", category ? category : "?", levelName(logLevel),
                 text ? text : "");
    std::fflush(stderr);
}

}  // namespace zelcdb::console
