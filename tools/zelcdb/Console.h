// zelcdb's output. Data goes to stdout, one line at a time; everything meant for the person
// at the terminal goes to stderr. Any thread may print: endpoint threads call back too.
#pragma once

#include <string>

namespace zelcdb::console {

// 0 by default, 1 with -v, 2 with -vv.
void setVerbosity(int verbosity);
int verbosity();

// One line of data on stdout, flushed at once so that pipes see it as it happens.
void line(const std::string& text);
// Progress for the person watching, shown with -v.
void note(const std::string& text);
// Shown always: errors of the peer, and what a long-running command is doing.
void message(const std::string& text);
// A line of the library's log: errors, warnings and information with -v, debug with -vv.
void libraryLog(const char* category, int level, const char* text);

}  // namespace zelcdb::console
