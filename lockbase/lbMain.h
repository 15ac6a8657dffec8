// lbMain: the application base; its runner prepares the framework and calls Run.
#pragma once

#include <string>

#include "lbApi.h"
#include "lbBase.h"

class lbMain : public lbBase {
public:
    lbMain() { LB_CONSTRUCTOR(); }
    virtual ~lbMain() {}

    // Registers the application's name and version, then returns Run's result.
    bool InitAndRun(const std::string& name, const std::string& version, int argc, char** argv);
    // The application's work.
    virtual bool Run(int argc, char** argv) = 0;

protected:
    lbApi _api;
};
