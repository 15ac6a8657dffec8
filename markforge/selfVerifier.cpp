// markforge::selfVerifier: length and signature checks of a fresh build.
#include "selfVerifier.h"

#include "digestStream.h"

namespace markforge {

bool selfVerifier::CheckSignatureLengths(const publicKey& key, std::string& reason) const
{
    const auto wrong = [&key, &reason](const std::vector<uint8_t>& signature, const std::string& what) {
        if (signature.size() == key.ModulusBytes()) return false;
        reason = std::to_string(signature.size()) + (signature.size() == 1 ? " byte" : " bytes") + " for the " +
                 what + ", where a signature by the key is " + std::to_string(key.ModulusBytes()) + " bytes";
        return true;
    };
    for (const builtComponent& component : _built.components)
        if (wrong(component.signature, "component " + component.name)) return false;
    return !wrong(_built.archiveSignature, "archive");
}

bool selfVerifier::CheckSignatures(const publicKey& key, std::string& reason) const
{
    for (const builtComponent& component : _built.components) {
        if (!key.Verifies(component.signature, SignedDigestOf(_hashId, component.digest))) {
            reason = "the signature of component " + component.name + " does not verify";
            return false;
        }
    }
    // One component: the archive carries that component's signature.
    const bool single = _built.components.size() == 1;
    const std::vector<uint8_t>& archiveDigest = single ? _built.components[0].digest : _built.archiveDigest;
    if ((single && _built.archiveSignature != _built.components[0].signature) ||
        !key.Verifies(_built.archiveSignature, SignedDigestOf(_hashId, archiveDigest))) {
        reason = "the archive signature does not verify";
        return false;
    }
    return true;
}

}  // namespace markforge
