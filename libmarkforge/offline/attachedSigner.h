// markforge::attachedSigner: the signer of `markforge attach`. It hands out
// signatures made elsewhere for the requests of an offline build, each only
// for the very value its request named: a container whose bytes give any
// other value gets no signature.
#pragma once

#include <map>
#include <vector>

#include "signer.h"
#include "signingRequests.h"

namespace markforge {

class attachedSigner : public signer {
public:
    // `signatures` holds one signature per request of `requests`, by F field.
    attachedSigner(const signingRequests& requests, std::map<std::string, std::vector<uint8_t>> signatures);

    signatureResult Sign(const signatureRequest& request) override;
    std::string Describe() const override { return "the attached signatures"; }

private:
    std::map<std::string, std::vector<uint8_t>> _toSign;
    std::map<std::string, std::vector<uint8_t>> _signatures;
};

}  // namespace markforge
