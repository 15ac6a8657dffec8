// markforge::offlineSigner: the signer of an offline build. It signs
// nothing: every signature field is left as zero bytes of the key's length,
// so that the container has the layout it will have once the signatures
// made elsewhere are attached.
#pragma once

#include <cstddef>

#include "signer.h"

namespace markforge {

class offlineSigner : public signer {
public:
    explicit offlineSigner(size_t signatureLength) : _length(signatureLength) {}

    signatureResult Sign(const signatureRequest& request) override;
    std::string Describe() const override { return "the offline requests"; }

private:
    size_t _length;
};

}  // namespace markforge
