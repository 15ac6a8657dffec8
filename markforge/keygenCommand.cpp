// markforge::keygenCommand: key generation, the key file through lbRsa, the
// public half as PEM.
#include "keygenCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "exitStatus.h"
#include "hexText.h"
#include "keyGenerator.h"
#include "lbRsa.h"
#include "lbScoped.h"
#include "outputFile.h"
#include "writeAll.h"

namespace markforge {
namespace {

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

bool Exists(const std::string& path)
{
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

void Wipe(std::string& text)
{
    std::fill(text.begin(), text.end(), '\0');
    text.clear();
}

void WipeTexts(lockbase::RsaKeyTexts& texts)
{
    for (std::string* text : {&texts.n, &texts.e, &texts.p, &texts.q, &texts.d}) Wipe(*text);
}

}  // namespace

void keygenCommand::Run(std::ostream& report)
{
    CheckOutputsAreNew();
    // The outputs' folders are tried before any key object is opened, so
    // that no failure leaves one open behind it.
    std::string reason;
    outputFile privateFile;
    if (!privateFile.Create(_options.output, reason)) Fail(exitStatus::fileSystem, reason);
    outputFile publicFile;
    if (!_options.publicOut.empty() && !publicFile.Create(_options.publicOut, reason))
        Fail(exitStatus::fileSystem, reason);

    lockbase::RsaKeyTexts texts;
    publicKey half;
    if (!keyGenerator::Generate(_options.bits, texts, half, reason)) Fail(exitStatus::signingFailed, reason);

    lbRsa key;
    const bool made = lbScoped::Open(key, __FILE__, __LINE__, [&] { return key.Open(); }) &&
                      key.MakeKeyFromExps(texts.n, texts.e, texts.p, texts.q, texts.d);
    WipeTexts(texts);
    if (!made) lbScoped::Close(key);
    if (!made) Fail(exitStatus::signingFailed, "the new key could not be taken into a key object");
    WritePrivateKey(key, privateFile);

    const std::string pem = half.PemText();
    if (!_options.publicOut.empty() && !WriteAll(publicFile.Fd(), reinterpret_cast<const uint8_t*>(pem.data()), pem.size()))
        Fail(exitStatus::fileSystem, "cannot write " + _options.publicOut);
    if (!privateFile.CommitWithoutReplacing(true, reason)) Fail(exitStatus::fileSystem, reason);
    if (!_options.publicOut.empty() && !publicFile.CommitWithoutReplacing(false, reason)) {
        // Both or neither: a key without the public half asked for is
        // half an output.
        unlink(_options.output.c_str());
        Fail(exitStatus::fileSystem, reason);
    }
    // The fingerprint in the form info --keyring names keys by.
    report << "wrote " << _options.output << " (private key, " << _options.bits << " bits, key SHA-256 "
           << LowerHex(half.Fingerprint()) << ")\n";
    if (!_options.publicOut.empty()) report << "wrote " << _options.publicOut << " (its public key, PEM)\n";
}

void keygenCommand::CheckOutputsAreNew() const
{
    if (_options.output == _options.publicOut)
        Fail(exitStatus::usage, "-o and --public-out name the same file");
    for (const std::string& path : {_options.output, _options.publicOut})
        if (!path.empty() && Exists(path)) Fail(exitStatus::fileSystem, path + " exists; keygen never overwrites a file");
}

void keygenCommand::WritePrivateKey(lbRsa& key, outputFile& file) const
{
    // lbRsa writes by path; the temporary file is rewritten in place, and
    // lbRsa keeps a private key's file at mode 0600.
    const bool written = key.WriteKeyToDisk(file.TempPath());
    lbScoped::Close(key);
    if (!written) Fail(exitStatus::fileSystem, "cannot write the key file " + _options.output);
}

}  // namespace markforge
