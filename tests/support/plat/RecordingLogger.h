#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "plat/DString.h"
#include "plat/Logger.h"

namespace zeltest {

// Keeps every line it is given, formatted, for the test to inspect. Single-threaded.
struct RecordingLogger : plat::Logger {
    struct Line {
        int level;
        std::string facility, text;
    };
    std::vector<Line> lines;

    void log(int level, const char* facility, const char* format, va_list args) override {
        plat::DString text;
        text.formatV(format, args);
        lines.push_back({level, facility, text.c_str()});
    }
};

// A logger whose every call fails, as an application callback that throws would.
struct ThrowingLogger : plat::Logger {
    explicit ThrowingLogger(std::function<void()> raise) : raise(std::move(raise)) {}
    int calls = 0;
    std::function<void()> raise;
    void log(int, const char*, const char*, va_list) override {
        ++calls;
        raise();
    }
};

// Writes "[facility/level] text" lines to stderr, where a death test can match them.
struct StderrLogger : plat::Logger {
    void log(int level, const char* facility, const char* format, va_list args) override {
        std::fprintf(stderr, "[%s/%d] ", facility, level);
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    }
};

}  // namespace zeltest
