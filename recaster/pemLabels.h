// recaster: a look at the labels of the PEM blocks in a key file, so the PEM
// conversion can tell a file that holds only public keys before OpenSSL does.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

namespace recaster {

// Largest file StreamHasOnlyPublicKeyBlocks looks at; a PEM key of any usual
// size is a few KiB.
constexpr std::size_t kMaxLabelScanBytes = 64 * 1024;

// True when every "-----BEGIN" in `text` starts the line
// "-----BEGIN PUBLIC KEY-----" (ended by "\n" or "\r\n"), including when there
// is none at all. OpenSSL reads a PUBLIC KEY block only as a public key, so its
// private-key reader cannot find a key in such a text. Anything else (another
// label, trailing blanks, a boundary inside a line) gives false.
bool HasOnlyPublicKeyBlocks(std::string_view text);

// The same test on the file behind `stream`, read with pread so the stream's
// position and buffer stay as they are. Only a regular file of at most
// kMaxLabelScanBytes can give true; a pipe, a device, a folder or a bigger
// file gives false.
bool StreamHasOnlyPublicKeyBlocks(std::FILE* stream);

}  // namespace recaster
