// A SoftHSM2 token private to one test program: its configuration and token
// files in a temporary folder named by SOFTHSM2_CONF (set for this process
// and the agents it starts), keys imported with softhsm2-util.
#pragma once

#include <string>
#include <vector>

namespace agenttest {

constexpr const char* SOFTHSM_MODULE = MARKFORGE_TEST_SOFTHSM_MODULE;

class SoftHsmToken {
public:
    // Creates the configuration in `folder` and a token labelled `label`
    // with user PIN `pin`. False with the reason in `error`.
    // In a cross build the token files live in a folder of their own under
    // /dev/shm instead (see TokenFolder), removed with this object.
    bool Create(const std::string& folder, const std::string& label, const std::string& pin, std::string& error);
    // Imports a PKCS#8 PEM private key under `name` (its label) and `id`.
    bool Import(const std::string& pemPath, const std::string& name, const std::string& id, std::string& error);
    // Creates another token labelled `label` (same PIN) beside the first.
    bool AddToken(const std::string& label, std::string& error);
    // Imports into the token labelled `label`.
    bool ImportInto(const std::string& label, const std::string& pemPath, const std::string& name,
                    const std::string& id, std::string& error);
    // Changes the first token while it keeps its serial number, as an
    // operator might while an agent is cut off from it: `name` (and its
    // `id`) becomes the key in `pemPath`; a second key is put in under a
    // `name` and `id` already there; the user PIN changes.
    bool ReplaceKey(const std::string& pemPath, const std::string& name, const std::string& id, std::string& error);
    bool ImportDuplicate(const std::string& pemPath, const std::string& name, const std::string& id,
                         std::string& error);
    bool ChangePin(const std::string& pin, std::string& error);
    // The serial number SoftHSM2 gave the first token, as softhsm2-util
    // shows it; empty when it cannot be read.
    std::string Serial() const;

    SoftHsmToken() = default;
    ~SoftHsmToken();
    SoftHsmToken(const SoftHsmToken&) = delete;
    SoftHsmToken& operator=(const SoftHsmToken&) = delete;

private:
    // pkcs11-tool on the first token, logged in, with `args` after.
    bool Pkcs11Tool(const std::vector<std::string>& args, std::string& error) const;

    std::string _label, _pin;
    std::string _ownFolder;  // made by Create outside `folder`, or empty
};

}  // namespace agenttest
