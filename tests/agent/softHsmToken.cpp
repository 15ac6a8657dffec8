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

std::vector<std::string> ImportCommand(const std::string& label, const std::string& pemPath, const std::string& name,
                                       const std::string& id, const std::string& pin)
{
    return {"softhsm2-util", "--import", pemPath, "--token", label, "--label", name, "--id", id, "--pin", pin};
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
    return RunTool(ImportCommand(label, pemPath, name, id, _pin), error);
}

bool SoftHsmToken::Pkcs11Tool(const std::vector<std::string>& args, std::string& error) const
{
    std::vector<std::string> argv{"pkcs11-tool", "--module", SOFTHSM_MODULE, "--token-label", _label, "--login",
                                  "--pin", _pin};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunTool(argv, error);
}

bool SoftHsmToken::ReplaceKey(const std::string& pemPath, const std::string& name, const std::string& id,
                              std::string& error)
{
    for (const char* type : {"privkey", "pubkey"})
        if (!Pkcs11Tool({"--delete-object", "--type", type, "--label", name}, error)) return false;
    return Import(pemPath, name, id, error);
}

bool SoftHsmToken::ImportDuplicate(const std::string& pemPath, const std::string& name, const std::string& id,
                                   std::string& error)
{
    // softhsm2-util refuses a name and id already there without --force.
    std::vector<std::string> command = ImportCommand(_label, pemPath, name, id, _pin);
    command.push_back("--force");
    return RunTool(command, error);
}

bool SoftHsmToken::ChangePin(const std::string& pin, std::string& error)
{
    if (!Pkcs11Tool({"--change-pin", "--new-pin", pin}, error)) return false;
    _pin = pin;
    return true;
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
