// lbGlobal: the framework's single process-wide state — the sticky error
// flag, the error trail and the version registry.
#pragma once

#include <string>
#include <vector>

class lbVersions;

// One entry of the error trail.
struct lbTrailEntry {
    enum class Kind { Location, Message, OpenedBy };
    Kind kind;
    std::string function;  // Location: the function text
    std::string file;      // Location and OpenedBy: source path
    int line;              // Location and OpenedBy: source line
    std::string text;      // Message: the message; OpenedBy: the opener's name
};

class lbGlobals {
public:
    lbGlobals();

    // The sticky error flag: false at start, raised by every failing checked
    // step; the program never clears it.
    bool errorFlag;
    // The version registry shown by the version screen.
    lbVersions* versions;
    // Every trail entry of the process, in the order recorded.
    std::vector<lbTrailEntry> trail;

    // Clears the flag and the trail. Test harnesses only: a program never
    // forgets a failure.
    void Reset();

    // The message entries recorded since entry `from`, one a line, for a
    // program that tells a failure in its own words and then shows them.
    std::string MessagesSince(size_t from) const;
};

extern lbGlobals lbGlobal;
