// markforge::verifyCommand: key, container, one verifying pass, verdicts.
#include "verifyCommand.h"

#include "containerInput.h"
#include "containerReport.h"
#include "containerVerifier.h"
#include "exitStatus.h"

namespace markforge {
namespace {

std::string Counted(size_t count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// "2 of 4 signatures did not verify, 1 layout problem", naming only the
// kinds of problem found.
std::string ProblemSummary(const verifyResult& result, size_t records)
{
    const size_t layout = result.layout.size();
    const size_t table = result.TableProblems();
    const size_t signatures = result.Problems() - layout - table;
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (signatures) add(std::to_string(signatures) + " of " + std::to_string(records + 1) + " signatures did not verify");
    if (layout) add(Counted(layout, "layout problem", "layout problems"));
    if (table) add(Counted(table, "table problem", "table problems"));
    return text;
}

}  // namespace

const publicKey* verifyCommand::ChooseKey(const containerContents& contents)
{
    if (_options.keyring.empty()) {
        _keyPath = _options.key;
        return &_key;
    }
    // The key of the archive signature, else of the first component
    // signature one of the keys made.
    const keyringEntry* signer = _keyring.SignerOf(contents.signature);
    for (size_t i = 0; !signer && i < contents.components.size(); ++i)
        signer = _keyring.SignerOf(contents.components[i].signature);
    if (!signer) return nullptr;
    _keyPath = _options.keyring + "/" + signer->file;
    _signedBy = containerReport::KeyText(*signer);
    return &signer->key;
}

void verifyCommand::Run(std::ostream& out)
{
    if (_options.key.empty() == _options.keyring.empty())
        throw commandFailure(exitStatus::usage, "verify needs one of --key PUBKEY and --keyring DIR");
    std::string reason;
    if (!_options.key.empty()) containerInput::LoadKey(_key, _options.key, "--key");
    if (!_options.keyring.empty() && !_keyring.Load(_options.keyring, reason))
        throw commandFailure(exitStatus::fileSystem, reason);
    containerReader reader;
    containerInput::Open(reader, _options.file);
    const containerReport report(_options.file, reader.Contents());
    const publicKey* key = ChooseKey(reader.Contents());
    if (!key) {
        if (_options.json)
            out << containerReport::JsonText(report.NoSignerDocument(_keyring));
        else
            out << "signed by: no key in the keyring " << _options.keyring << "\n";
        out.flush();
        throw commandFailure(exitStatus::problemsFound,
                             _options.file + ": no key in " + _options.keyring + " made any of its signatures");
    }

    verifyResult result;
    verifyPolicy policy;
    policy.requireTable = _options.requireTable;
    if (!containerVerifier(reader.Contents(), reader.File(), *key, policy).Run(result, reason))
        throw commandFailure(exitStatus::fileSystem, reason);
    const keyring* signers = _options.keyring.empty() ? nullptr : &_keyring;
    if (_options.json)
        out << containerReport::JsonText(report.VerifyDocument(_keyPath, *key, result, signers));
    else
        report.WriteVerifyText(out, result, _signedBy);
    out.flush();
    if (result.Problems() > 0)
        throw commandFailure(exitStatus::problemsFound,
                             _options.file + ": " + ProblemSummary(result, reader.Contents().components.size()));
}

}  // namespace markforge
