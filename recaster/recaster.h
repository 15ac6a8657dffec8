// recaster::Main: the application — option parsing, help and version
// screens, and the drive of one conversion.
#pragma once

#include "lbMain.h"

namespace recaster {

class Main : public lbMain {
public:
    Main();
    virtual ~Main() {}

    bool Run(int argc, char** argv) override;
    // Prints the formatted message and the option table, then ends the
    // process with status 1.
    [[noreturn]] void Help(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

}  // namespace recaster
