// lbHashId: the mapping from the framework's digest numbers to OpenSSL names.
#include "lbHashId.h"

#include "lbSteps.h"

namespace {

const char* NameOf(unsigned id)
{
    switch (id) {
    case lbHashId::SHA256: return "SHA256";
    case lbHashId::SHA512: return "SHA512";
    case lbHashId::SHA384: return "SHA384";
    default: return nullptr;
    }
}

}  // namespace

bool lbHashId::Open(unsigned id)
{
    LB_FUNCTION("bool lbHashId::Open(unsigned int)");
    if (!NameOf(id)) {
        addHistory(lbFunction, __FILE__, __LINE__);
        addMessage("Unknown hash identifier %u (3 SHA-256, 4 SHA-512, 5 SHA-384)", id);
        return false;
    }
    _id = id;
    return true;
}

const char* lbHashId::AlgorithmName() const
{
    return NameOf(_id);
}
