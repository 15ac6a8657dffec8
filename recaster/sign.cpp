// markforge::sign: local and signing-agent signatures.
#include "sign.h"

#include "lbRsa.h"
#include "lbSteps.h"
#include "version.h"

namespace markforge {

bool sign::Open() { return true; }
bool sign::Close() { return true; }
bool sign::Sign(const string&, const string&, const string&, const string&, int, int, const string&) { return false; }
bool sign::SignInternal(const lbBytes&, lbRsa&) { return false; }
int sign::sign_hsm(const lbBytes&, const string&, const string&, int, const string&) { return -1; }
bool sign::GetSignature(lbBytes& out) { out.buffer = signature.buffer; return true; }

}  // namespace markforge
