// markforge::attachCommand: requests, signatures, the image, then the build
// with the attached signatures.
#include "attachCommand.h"

#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include "attachedSigner.h"
#include "containerSource.h"
#include "exitStatus.h"
#include "hexText.h"
#include "selfVerifier.h"
#include "signedOutput.h"

namespace markforge {
namespace {

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

// The whole file at `path`, when it exists and holds at most `limit` bytes.
// False with errno set when it cannot be read (ENOENT: it is not there),
// with EFBIG when it is larger.
bool ReadSmallFile(const std::string& path, size_t limit, std::string& out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    // One byte past the limit tells a larger file without reading it all.
    out.assign(limit + 1, '\0');
    in.read(&out[0], static_cast<std::streamsize>(out.size()));
    out.resize(static_cast<size_t>(in.gcount()));
    if (in.bad()) {
        errno = EIO;
        return false;
    }
    if (out.size() > limit) {
        errno = EFBIG;
        return false;
    }
    return true;
}

const char* EndingOf(const std::string& name, size_t length)
{
    return name.size() >= length ? name.c_str() + name.size() - length : "";
}

// What the image needs signed: every record, then the archive unless one
// record signs for it.
std::vector<std::string> NeededRequests(const std::vector<std::string>& records)
{
    std::vector<std::string> needed = records;
    if (records.size() != 1) needed.push_back("archive");
    return needed;
}

}  // namespace

void attachCommand::ReadRequests()
{
    std::string text;
    if (!ReadSmallFile(_options.requests, signingRequests::MAX_BYTES, text))
        Fail(errno == EFBIG ? exitStatus::badInput : exitStatus::fileSystem,
             "cannot read the requests " + _options.requests + ": " + std::strerror(errno));
    std::string reason;
    if (!signingRequests::Decode(text, _requests, reason))
        Fail(exitStatus::badInput, _options.requests + " is not a requests file of markforge build --mode offline: " +
                                       reason);
    if (!_key.LoadBytes(_requests.publicKeyPem, reason)) Fail(exitStatus::badInput, _options.requests + ": " + reason);
}

void attachCommand::CheckExpectedKey() const
{
    if (_options.publicKey.empty()) return;
    publicKey expected;
    std::string reason;
    if (!expected.Load(_options.publicKey, reason)) Fail(exitStatus::badInput, "--public-key " + reason);
    if (expected.Fingerprint() != _key.Fingerprint())
        Fail(exitStatus::signatureNotForRequest,
             _options.requests + " asks for signatures by the key with SHA-256 " + LowerHex(_key.Fingerprint()) +
                 ", not by the --public-key key (SHA-256 " + LowerHex(expected.Fingerprint()) + ")");
}

void attachCommand::ReadSignatures()
{
    for (const signingRequest& request : _requests.requests) {
        const std::string path = _options.signatures + "/" + request.FileName();
        std::string bytes;
        if (!ReadSmallFile(path, _key.ModulusBytes(), bytes)) {
            if (errno == ENOENT)
                Fail(exitStatus::signatureMissing,
                     "the signature for request " + request.fieldF + " is missing: no " + path);
            if (errno != EFBIG) Fail(exitStatus::fileSystem, "cannot read " + path + ": " + std::strerror(errno));
        }
        _signatures[request.fieldF] = std::vector<uint8_t>(bytes.begin(), bytes.end());
    }
}

void attachCommand::CheckNoExtraSignatures() const
{
    DIR* folder = opendir(_options.signatures.c_str());
    if (!folder) Fail(exitStatus::fileSystem, "cannot read the folder " + _options.signatures + ": " + std::strerror(errno));
    std::set<std::string> extra;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (std::strcmp(EndingOf(name, 4), ".sig") != 0) continue;
        if (!_signatures.count(name.substr(0, name.size() - 4))) extra.insert(name);
    }
    closedir(folder);
    if (!extra.empty())
        Fail(exitStatus::signatureExtra, _options.signatures + "/" + *extra.begin() +
                                             " answers no request of " + _options.requests +
                                             "; a folder holds the signatures of one set of requests only");
}

void attachCommand::CheckSignature(const signingRequest& request, const std::vector<uint8_t>& signature) const
{
    const std::string file = _options.signatures + "/" + request.FileName();
    if (_key.Verifies(signature, request.toSign)) return;
    for (const signingRequest& other : _requests.requests)
        if (_key.Verifies(signature, other.toSign))
            Fail(exitStatus::signatureNotForRequest,
                 file + " is the signature for request " + other.fieldF + ", not for " + request.fieldF);
    Fail(exitStatus::signatureNotForRequest,
         file + " (" + std::to_string(signature.size()) + " bytes) is not a signature by key " + _requests.keyName +
             " (SHA-256 " + LowerHex(_requests.keyFingerprint) + ") over the value of request " + request.fieldF);
}

void attachCommand::Run(std::ostream& report)
{
    ReadRequests();
    CheckExpectedKey();
    ReadSignatures();
    CheckNoExtraSignatures();
    for (const signingRequest& request : _requests.requests) CheckSignature(request, _signatures.at(request.fieldF));

    const containerSource source(_options.file);
    if (source.FileSha256() != _requests.imageSha256)
        Fail(exitStatus::imageNotRequested, _options.file + " is not the image the requests were made for (its SHA-256 is not " +
                                                "the image_sha256 of " + _options.requests + ")");
    std::vector<std::string> requested;
    for (const signingRequest& request : _requests.requests) requested.push_back(request.fieldF);
    if (requested != NeededRequests(source.RecordNames()) || source.HashId() != _requests.hashId)
        Fail(exitStatus::imageNotRequested, "the requests of " + _options.requests + " are not the ones the components of " +
                                                _options.file + " need");

    signedOutput output(_options.output, false, "");
    output.Create();
    engineSettings settings;
    settings.keyName = _requests.keyName;
    settings.mode = "offline";
    settings.hashId = source.HashId();
    settings.table = source.HasTable();
    attachedSigner signs(_requests, _signatures);
    const engineResult built =
        output.Build(signs, settings, source.Inputs(), [this](const engineResult&, const engineFailure& failure) {
            if (failure.what == engineFailure::kind::signing)
                Fail(exitStatus::imageNotRequested, _options.file + " is not the image the requests were made for: " +
                                                        failure.message);
        });
    std::string reason;
    if (!selfVerifier(built, settings.hashId).CheckSignatures(_key, reason))
        Fail(exitStatus::signingFailed, reason + "; nothing was written");
    source.CheckTableKept(built);
    output.Commit(built, nullptr);
    output.Report(report, built);
}

}  // namespace markforge
