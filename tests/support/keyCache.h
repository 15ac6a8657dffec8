// Test keys made once per build tree and copied to where a test wants them.
//
// `markforge keygen` under qemu-arm or the sanitizers costs seconds per key,
// and most end-to-end fixtures need a key, not a fresh one: they take a
// copy of a named key from the tree's cache instead. The keys are made by
// the openssl command (tests/support/testKeys), so the fixtures' keys are
// also an outside check on markforge's key files. KeygenTest still runs
// `markforge keygen` itself.
#pragma once

#include <string>

namespace testsupport {

// Copies key `name` of `bits` bits to `keyFile` (markforge private key
// file, mode 0600) and, unless empty, its public half to `publicPem`. The
// key is made on first use by any test program of the tree, under a lock
// shared between processes. On failure returns false with the reason in
// `error`.
bool CopyCachedKey(const std::string& name, int bits, const std::string& keyFile, const std::string& publicPem,
                   std::string& error);

}  // namespace testsupport
