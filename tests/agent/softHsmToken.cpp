// The SoftHSM2 test token.
#include "softHsmToken.h"

#include <cstdlib>

#include "testSupport.h"

namespace agenttest {
namespace {

bool RunTool(const std::vector<std::string>& argv, std::string& error)
{
    const testsupport::ProcessResult result = testsupport::Run(argv);
    if (result.status == 0) return true;
    error = argv[0] + " " + argv[1] + " failed: " + result.out + result.err;
    return false;
}

}  // namespace

bool SoftHsmToken::Create(const std::string& folder, const std::string& label, const std::string& pin,
                          std::string& error)
{
    _label = label;
    _pin = pin;
    const std::string tokens = folder + "/tokens";
    const std::string conf = folder + "/softhsm2.conf";
    testsupport::WriteFile(conf, "directories.tokendir = " + tokens + "\nobjectstore.backend = file\nlog.level = ERROR\n");
    if (!RunTool({"mkdir", "-p", tokens}, error)) return false;
    ::setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    return RunTool({"softhsm2-util", "--init-token", "--free", "--label", label, "--pin", pin, "--so-pin",
                    "so-" + pin},
                   error);
}

bool SoftHsmToken::Import(const std::string& pemPath, const std::string& name, const std::string& id,
                          std::string& error)
{
    return RunTool({"softhsm2-util", "--import", pemPath, "--token", _label, "--label", name, "--id", id,
                    "--pin", _pin},
                   error);
}

}  // namespace agenttest
