// How zelcdb ends: every failure that the user should read carries its exit code and one
// line of text, and travels as an exception to main(), which prints it.
#pragma once

#include <stdexcept>
#include <string>

namespace zelcdb {

// The exit codes, as the help text documents them.
enum ExitCode {
    kExitOk = 0,
    kExitRefused = 1,      // the peer refused a request or answered with an error
    kExitUsage = 2,        // bad command line or value
    kExitConnection = 3,   // cannot connect, or the connection was lost
    kExitUnknown = 4,      // unknown service or element
    kExitTimeout = 5,      // the peer did not answer in time
    kExitElementFile = 6,  // the element file cannot be read or is malformed
    kExitInterrupted = 130,
};

class Failure : public std::runtime_error {
public:
    Failure(int exitCode, const std::string& message)
        : std::runtime_error(message), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

// Ctrl-C while a command that has a natural end was still waiting.
struct Interrupted {};

}  // namespace zelcdb
