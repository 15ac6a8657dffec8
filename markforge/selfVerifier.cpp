// markforge::selfVerifier: layout and signature checks of a fresh build.
#include "selfVerifier.h"

#include "digestStream.h"

namespace markforge {

selfVerifier::selfVerifier(const std::vector<builtRecord>& records, const std::vector<uint8_t>& archiveSignature,
                           const payloadCopier& payload, uint32_t hashId)
    : _records(records), _archiveSignature(archiveSignature), _payload(payload), _hashId(hashId)
{
}

bool selfVerifier::CheckLayout(const std::vector<std::string>& names, std::string& reason) const
{
    if (_records.size() != names.size() || _payload.Sizes().size() != names.size()) {
        reason = "the component table does not list the components given";
        return false;
    }
    uint64_t offset = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        const builtRecord& record = _records[i];
        if (record.name != names[i] || record.offset != offset || record.size != _payload.Sizes()[i]) {
            reason = "component " + names[i] + " changed while it was being signed";
            return false;
        }
        offset += record.size;
    }
    return true;
}

bool selfVerifier::CheckSignatureLengths(const publicKey& key, std::string& reason) const
{
    const auto wrong = [&key, &reason](const std::vector<uint8_t>& signature, const std::string& what) {
        if (signature.size() == key.ModulusBytes()) return false;
        reason = std::to_string(signature.size()) + (signature.size() == 1 ? " byte" : " bytes") + " for the " +
                 what + ", where a signature by the key is " + std::to_string(key.ModulusBytes()) + " bytes";
        return true;
    };
    for (const builtRecord& record : _records)
        if (wrong(record.signature, "component " + record.name)) return false;
    return !wrong(_archiveSignature, "archive");
}

bool selfVerifier::CheckSignatures(const publicKey& key, std::string& reason) const
{
    for (size_t i = 0; i < _records.size(); ++i) {
        const std::vector<uint8_t> expected = SignedDigestOf(_hashId, _payload.ComponentDigests()[i]);
        if (!key.Verifies(_records[i].signature, expected)) {
            reason = "the signature of component " + _records[i].name + " does not verify";
            return false;
        }
    }
    // One component: the archive carries that component's signature.
    const bool single = _records.size() == 1;
    const std::vector<uint8_t> expected = single ? SignedDigestOf(_hashId, _payload.ComponentDigests()[0])
                                                 : SignedDigestOf(_hashId, _payload.ArchiveDigest());
    if ((single && _archiveSignature != _records[0].signature) || !key.Verifies(_archiveSignature, expected)) {
        reason = "the archive signature does not verify";
        return false;
    }
    return true;
}

}  // namespace markforge
