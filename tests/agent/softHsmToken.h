// A SoftHSM2 token private to one test program: its configuration and token
// files in a temporary folder named by SOFTHSM2_CONF (set for this process
// and the agents it starts), keys imported with softhsm2-util.
#pragma once

#include <string>

namespace agenttest {

constexpr const char* SOFTHSM_MODULE = "/usr/lib/softhsm/libsofthsm2.so";

class SoftHsmToken {
public:
    // Creates the configuration in `folder` and a token labelled `label`
    // with user PIN `pin`. False with the reason in `error`.
    bool Create(const std::string& folder, const std::string& label, const std::string& pin, std::string& error);
    // Imports a PKCS#8 PEM private key under `name` (its label) and `id`.
    bool Import(const std::string& pemPath, const std::string& name, const std::string& id, std::string& error);

private:
    std::string _label, _pin;
};

}  // namespace agenttest
