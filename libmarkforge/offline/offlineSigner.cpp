// markforge::offlineSigner: zero bytes in place of every signature.
#include "offlineSigner.h"

namespace markforge {

signatureResult offlineSigner::Sign(const signatureRequest&)
{
    signatureResult result;
    result.signature.assign(_length, 0);
    return result;
}

}  // namespace markforge
