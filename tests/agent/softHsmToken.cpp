// The SoftHSM2 test token.
#include "softHsmToken.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

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

// Where the token files go. Under qemu, the 32-bit SoftHSM2 module reads
// folders without large-file support, and on a 64-bit host the entries of an
// ext4 or overlay folder carry offsets too large for that: the module would
// find no token. tmpfs numbers its entries small, so a cross build keeps them
// in a new folder under /dev/shm. Empty on failure.
std::string TokenFolder(const std::string& folder, std::string& own)
{
#ifdef MARKFORGE_TEST_EMULATOR
    (void)folder;
    char name[] = "/dev/shm/markforge-softhsm-XXXXXX";
    if (!::mkdtemp(name)) return "";
    own = name;
    return own;
#else
    (void)own;
    const std::string tokens = folder + "/tokens";
    return ::mkdir(tokens.c_str(), 0700) == 0 ? tokens : "";
#endif
}

}  // namespace

SoftHsmToken::~SoftHsmToken()
{
    std::error_code ignored;
    if (!_ownFolder.empty()) std::filesystem::remove_all(_ownFolder, ignored);
}

bool SoftHsmToken::Create(const std::string& folder, const std::string& label, const std::string& pin,
                          std::string& error)
{
    _label = label;
    _pin = pin;
    const std::string tokens = TokenFolder(folder, _ownFolder);
    if (tokens.empty()) {
        error = std::string("no folder for the token files: ") + std::strerror(errno);
        return false;
    }
    const std::string conf = folder + "/softhsm2.conf";
    testsupport::WriteFile(conf, "directories.tokendir = " + tokens + "\nobjectstore.backend = file\nlog.level = ERROR\n");
    ::setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    return AddToken(label, error);
}

bool SoftHsmToken::AddToken(const std::string& label, std::string& error)
{
    return RunTool({"softhsm2-util", "--init-token", "--free", "--label", label, "--pin", _pin, "--so-pin",
                    "so-" + _pin},
                   error);
}

bool SoftHsmToken::Import(const std::string& pemPath, const std::string& name, const std::string& id,
                          std::string& error)
{
    return ImportInto(_label, pemPath, name, id, error);
}

bool SoftHsmToken::ImportInto(const std::string& label, const std::string& pemPath, const std::string& name,
                              const std::string& id, std::string& error)
{
    return RunTool({"softhsm2-util", "--import", pemPath, "--token", label, "--label", name, "--id", id,
                    "--pin", _pin},
                   error);
}

// softhsm2-util lists each token's serial number a few lines before its
// label.
std::string SoftHsmToken::Serial() const
{
    std::istringstream lines(testsupport::Run({"softhsm2-util", "--show-slots"}).out);
    std::string line, serial;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string first, second, value;
        words >> first >> second;
        if (first == "Serial" && second == "number:") words >> serial;
        if (first == "Label:" && second == _label) return serial;
    }
    return "";
}

}  // namespace agenttest
