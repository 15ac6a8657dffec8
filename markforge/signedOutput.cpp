// markforge::signedOutput: engine, header, requests, renames.
#include "signedOutput.h"

#include <cerrno>
#include <cstring>

#include "digestStream.h"
#include "exitStatus.h"
#include "lbHashId.h"
#include "signerSetup.h"
#include "writeAll.h"

namespace markforge {
namespace {

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

void WriteText(outputFile& file, const std::string& text)
{
    if (!WriteAll(file.Fd(), reinterpret_cast<const uint8_t*>(text.data()), text.size()))
        Fail(exitStatus::fileSystem, "cannot write " + file.FinalPath() + ": " + std::strerror(errno));
}

}  // namespace

signedOutput::signedOutput(std::string path, bool headerOnly, std::string requestsPath)
    : _path(std::move(path)), _headerOnly(headerOnly), _requestsPath(std::move(requestsPath))
{
}

void signedOutput::Create()
{
    std::string reason;
    if (!_output.Create(_path, reason)) Fail(exitStatus::fileSystem, reason);
    if (!_requestsPath.empty() && !_requests.Create(_requestsPath, reason)) Fail(exitStatus::fileSystem, reason);
}

engineResult signedOutput::Build(signer& signs, engineSettings settings, const std::vector<engineInput>& inputs,
                                 const failureTeller& tell)
{
    settings.output = _headerOnly ? -1 : _output.Fd();
    engineResult built;
    engineFailure failure;
    if (!buildEngine(signs, settings).Build(inputs, built, failure)) {
        tell(built, failure);
        Fail(failure.what == engineFailure::kind::input    ? exitStatus::badInput
             : failure.what == engineFailure::kind::output ? exitStatus::fileSystem
                                                           : exitStatus::signingFailed,
             failure.message);
    }
    return built;
}

void signedOutput::Commit(const engineResult& built, signingRequests* requests)
{
    if (!WriteAllAt(_output.Fd(), built.headerBlock.data(), built.headerBlock.size(), 0))
        Fail(exitStatus::fileSystem, "cannot write " + _path + ": " + std::strerror(errno));
    std::string reason;
    if (requests) {
        if (!digestStream::OfFile(lbHashId::SHA256, _output.Fd(), requests->imageSha256))
            Fail(exitStatus::fileSystem, "cannot read back " + _path + ": " + std::strerror(errno));
        WriteText(_requests, requests->Encode());
        // The requests first: an image is never there without them.
        if (!_requests.Commit(reason)) Fail(exitStatus::fileSystem, reason);
    }
    if (!_output.Commit(reason)) Fail(exitStatus::fileSystem, reason);
}

engineResult signedOutput::BuildSignAndCommit(signerSetup& signing, const engineSettings& settings,
                                              const std::vector<engineInput>& inputs,
                                              const std::function<void(const engineResult&)>& check)
{
    const engineResult built =
        Build(signing.Signer(), settings, inputs, [&signing, &settings](const engineResult& r, const engineFailure& f) {
            signing.ReportBuildFailure(r, f, settings.hashId);
        });
    signing.SelfVerify(built, settings.hashId);
    if (check) check(built);
    if (!signing.Offline()) {
        Commit(built, nullptr);
        return built;
    }
    signingRequests requests = signing.RequestsFor(built, settings.hashId);
    Commit(built, &requests);
    return built;
}

void signedOutput::Report(std::ostream& report, const engineResult& built) const
{
    for (const builtComponent& component : built.components)
        report << "component " << component.name << " offset " << component.offset << " size " << component.size
               << " signature " << component.signature.size() << "\n";
    if (!_requestsPath.empty()) report << "wrote " << _requestsPath << "\n";
    report << "wrote " << _path << "\n";
}

}  // namespace markforge
