// `zelcdb serve`: an SBP source whose elements come from an element file.
#pragma once

#include <cstdint>
#include <string>

namespace zelcdb {

struct ServeArgs {
    std::string url;
    std::string elementFile;
    std::string service;   // NAME[:MAJOR.MINOR]; empty: the file's, else "zelcdb:1.0"
    bool client = false;   // connect to the URL instead of listening on it
    std::string echo;      // name of a plain CDB echo service to offer as well, or empty
    std::string shownUrl;  // the URL to name to the user when url is a capture relay's
};

// Serves until Ctrl-C; returns the exit code or throws a Failure.
int runServe(const ServeArgs& args);

struct ServiceName {
    std::string name;
    uint8_t versionMajor = 1;
    uint8_t versionMinor = 0;
};

// "name" or "name:1.2"; throws Failure(kExitUsage) for anything else.
ServiceName parseServiceName(const std::string& text);

}  // namespace zelcdb
