// markforge: entry point.
#include <cstdlib>
#include <iostream>

#include "markforgeMain.h"
#include "markforgeVersion.h"

int main(int argc, char** argv)
{
    markforge::Main application;
    application.InitAndRun("markforge", MARKFORGE_PROGRAM_VERSION, argc, argv);
    // The framework's trail tells how a failure inside the library came
    // about, with source files and lines: it follows the program's own
    // one-line message and the library's text when --verbose asks for it.
    if (application.Status() != markforge::exitStatus::ok && application.Verbose() && application.HaveStackTrace())
        application.DumpStackTrace(std::cerr);
    std::exit(static_cast<int>(application.Status()));
}
