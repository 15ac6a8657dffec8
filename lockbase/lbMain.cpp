// lbMain: the application runner.
#include "lbMain.h"

#include "lbGlobal.h"
#include "lbVersions.h"

bool lbMain::InitAndRun(const std::string& name, const std::string& version, int argc, char** argv)
{
    lbGlobal.versions->RegisterApplication(name, version);
    return Run(argc, argv);
}
