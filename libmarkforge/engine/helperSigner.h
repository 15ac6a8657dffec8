// markforge::helperSigner: signs through a signing helper, a command of the
// user's own (a cloud key service's client, a script around an HSM tool).
// For each signature it runs the command with MARKFORGE_KEY_NAME,
// MARKFORGE_HASH (sha256, sha384 or sha512) and MARKFORGE_FIELD_F in its
// environment, writes the value to sign (the raw digest bytes) on its
// standard input and reads the raw signature from its standard output. An
// answer is taken only when the helper exits with status 0 and it is a good
// signature by the expected key over that value.
#pragma once

#include <string>
#include <vector>

#include "helperProcess.h"
#include "publicKey.h"
#include "signer.h"

namespace markforge {

class helperSigner : public signer {
public:
    // Lines of the helper's standard error that a failure quotes.
    static constexpr size_t ERROR_LINES = 5;

    // `words`: the command, split; `key`: the public half of the key the
    // helper signs with, kept by the caller.
    helperSigner(std::vector<std::string> words, std::string keyName, const publicKey& key, double timeoutSeconds);

    signatureResult Sign(const signatureRequest& request) override;
    std::string Describe() const override;

private:
    std::string Failure(const std::string& what, const helperRun& run) const;

    std::vector<std::string> _words;
    std::string _keyName;
    const publicKey& _key;
    double _timeout;
};

}  // namespace markforge
