// markforge::payloadCopier: copies the component files into the container's
// payload on a thread of its own, hashing exactly the bytes it writes, so
// that the signatures can then be checked against the output itself.
#pragma once

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace markforge {

class payloadCopier {
public:
    // `hashId` as the archive builder takes it; `output` the descriptor to
    // write to (or -1 to hash only); payload byte 0 goes to `base`.
    payloadCopier(uint32_t hashId, int output, uint64_t base);
    ~payloadCopier();
    payloadCopier(const payloadCopier&) = delete;
    payloadCopier& operator=(const payloadCopier&) = delete;

    // Starts copying the open files `inputs`, in order, back to back.
    // `names` label them in error messages.
    void Start(std::vector<int> inputs, std::vector<std::string> names);
    // Waits for the copy. False, with a one-line reason, on a read or write
    // error.
    bool Finish(std::string& reason);

    // After Finish: per component, its digest and the bytes copied.
    const std::vector<std::vector<uint8_t>>& ComponentDigests() const { return _componentDigests; }
    const std::vector<uint64_t>& Sizes() const { return _sizes; }
    // The digest of all components in order: the archive digest. Computed
    // only when there is not exactly one component, whose archive signature
    // is its own.
    const std::vector<uint8_t>& ArchiveDigest() const { return _archiveDigest; }

private:
    void CopyAll();
    bool CopyOne(size_t index, uint64_t& at, class digestStream* archive);

    uint32_t _hashId;
    int _output;
    uint64_t _base;
    std::vector<int> _inputs;
    std::vector<std::string> _names;
    std::thread _thread;
    std::vector<uint8_t> _buffer;
    std::string _error;
    std::vector<std::vector<uint8_t>> _componentDigests;
    std::vector<uint64_t> _sizes;
    std::vector<uint8_t> _archiveDigest;
};

}  // namespace markforge
