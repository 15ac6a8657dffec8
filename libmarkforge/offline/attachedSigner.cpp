// markforge::attachedSigner: a signature per request, for its value alone.
#include "attachedSigner.h"

namespace markforge {

attachedSigner::attachedSigner(const signingRequests& requests, std::map<std::string, std::vector<uint8_t>> signatures)
    : _signatures(std::move(signatures))
{
    for (const signingRequest& request : requests.requests) _toSign[request.fieldF] = request.toSign;
}

signatureResult attachedSigner::Sign(const signatureRequest& request)
{
    const auto value = _toSign.find(request.fieldF);
    const auto signature = _signatures.find(request.fieldF);
    if (value == _toSign.end() || signature == _signatures.end())
        return signatureResult::Failed("the requests hold no request for " + request.fieldF);
    if (value->second != request.toSign)
        return signatureResult::Failed("the bytes of " + request.fieldF +
                                       " are not the ones its request was made for");
    signatureResult result;
    result.signature = signature->second;
    return result;
}

}  // namespace markforge
