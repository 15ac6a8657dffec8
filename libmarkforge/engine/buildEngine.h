// markforge::buildEngine: builds a container in one read of each component.
// Every block read feeds the component's digest on the reading thread, and
// the archive's running digest and the payload write on a second thread; a
// component's signature is asked for as soon as its digest is known, while
// the next one is read, so signatures may be in flight together. The header
// block comes from the container classes (archive and header), so that the
// container is byte for byte what their own building sequence makes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "signer.h"

namespace markforge {

struct engineInput {
    std::string name;
    int fd = -1;  // open for reading
    // The component's bytes: `length` bytes from `start`, or from `start`
    // to the file's end when `length` is TO_END. A file that ends before
    // `start + length` is an input failure (it changed under the build).
    uint64_t start = 0;
    uint64_t length = TO_END;
    static constexpr uint64_t TO_END = UINT64_MAX;
};

struct engineSettings {
    std::string keyName;  // the archive's key name
    std::string mode;     // the archive's mode word
    uint32_t hashId = 3;  // 3, 5 or 4; any other value means SHA-256
    bool table = false;   // append the table of contents
    int output = -1;      // the payload goes here, after the header block; -1: nowhere
};

struct builtComponent {
    std::string name;
    uint64_t offset = 0;
    uint64_t size = 0;
    std::vector<uint8_t> digest;     // of exactly the bytes read and written
    std::vector<uint8_t> signature;
};

struct engineResult {
    std::vector<builtComponent> components;  // the table last, when asked for
    std::vector<uint8_t> archiveDigest;      // empty when one component signs for the archive
    std::vector<uint8_t> archiveSignature;
    std::vector<uint8_t> headerBlock;        // the 4096 bytes
};

struct engineFailure {
    enum class kind {
        input,     // a component cannot be read, or starts with the table's label
        output,    // the payload cannot be written
        signing,   // the signer failed
        tooLarge,  // the signature and the records do not fit the header block
        container, // the container classes refused (their trail says why)
    };
    kind what = kind::input;
    std::string stage;    // "component NAME", "table of contents", "archive", "header block"
    std::string message;  // one line
};

class buildEngine {
public:
    buildEngine(signer& signs, engineSettings settings);

    // Builds from `inputs`, in order. False with `failure` filled; nothing
    // is then promised about what the output holds.
    bool Build(const std::vector<engineInput>& inputs, engineResult& result, engineFailure& failure);

private:
    bool MakeHeaderBlock(engineResult& result, engineFailure& failure) const;

    signer& _signer;
    engineSettings _settings;
};

}  // namespace markforge
