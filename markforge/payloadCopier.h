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
    // `names` label them in error messages. With `withTable`, the table of
    // contents of what was copied follows as one more component.
    void Start(std::vector<int> inputs, std::vector<std::string> names, bool withTable = false);
    // Waits for the copy. False, with a one-line reason, on a read or write
    // error or a component that starts with a table's label.
    bool Finish(std::string& reason);
    // After a failed Finish: whether an input, rather than the output, was
    // at fault.
    bool InputAtFault() const { return _inputAtFault; }

    // After Finish: the table of contents' bytes (with `withTable`).
    const std::vector<uint8_t>& TableBytes() const { return _table; }
    // After Finish: per component, its digest and the bytes copied, the
    // table included.
    const std::vector<std::vector<uint8_t>>& ComponentDigests() const { return _componentDigests; }
    const std::vector<uint64_t>& Sizes() const { return _sizes; }
    // The digest of all components in order: the archive digest. Computed
    // only when there is not exactly one component, whose archive signature
    // is its own.
    const std::vector<uint8_t>& ArchiveDigest() const { return _archiveDigest; }

private:
    void CopyAll();
    bool CopyOne(size_t index, uint64_t& at, class digestStream* archive);
    bool AppendTable(uint64_t& at, class digestStream* archive);
    bool Write(const uint8_t* data, size_t length, uint64_t at);

    uint32_t _hashId;
    int _output;
    uint64_t _base;
    std::vector<int> _inputs;
    std::vector<std::string> _names;
    bool _withTable = false;
    std::vector<uint8_t> _table;
    std::thread _thread;
    std::vector<uint8_t> _buffer;
    std::string _error;
    bool _inputAtFault = false;
    std::vector<std::vector<uint8_t>> _componentDigests;
    std::vector<uint64_t> _sizes;
    std::vector<uint8_t> _archiveDigest;
};

}  // namespace markforge
