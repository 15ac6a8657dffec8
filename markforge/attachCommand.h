// markforge::attachCommand: `markforge attach`, the signatures made
// elsewhere for an offline build's requests put into its container. Every
// signature is checked against the key over its request's value, and the
// container's bytes against the requests, before anything is written; the
// result is byte for byte what a one-phase build with the key makes.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "publicKey.h"
#include "signingRequests.h"

namespace markforge {

struct attachOptions {
    std::string file;        // IMG.unsigned
    std::string requests;    // REQ.json
    std::string signatures;  // the folder of NAME.sig files
    std::string output;
    std::string publicKey;   // optional: the key the requests must name
};

class attachCommand {
public:
    explicit attachCommand(attachOptions options) : _options(std::move(options)) {}

    // Throws commandFailure on any failure, with nothing written.
    void Run(std::ostream& report);

private:
    void ReadRequests();
    void CheckExpectedKey() const;
    void ReadSignatures();
    void CheckNoExtraSignatures() const;
    void CheckSignature(const signingRequest& request, const std::vector<uint8_t>& signature) const;

    attachOptions _options;
    signingRequests _requests;
    publicKey _key;
    std::map<std::string, std::vector<uint8_t>> _signatures;
};

}  // namespace markforge
