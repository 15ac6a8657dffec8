// markforge::fileReader: the one bounds-checked way container readers reach a
// file's bytes; no read goes past the end, whatever offsets the header gives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace markforge {

class fileReader {
public:
    // What a streamed range is handed to, one buffer at a time.
    using sink = std::function<void(const uint8_t* data, size_t length)>;

    fileReader() = default;
    ~fileReader();
    fileReader(const fileReader&) = delete;
    fileReader& operator=(const fileReader&) = delete;

    // Opens a regular file and notes its size. False, with a one-line reason.
    bool Open(const std::string& path, std::string& reason);
    bool IsOpen() const { return _fd >= 0; }
    uint64_t Size() const { return _size; }
    // The open file, for a reader that hands ranges of it on (the build
    // engine re-reading a container's components after they were checked
    // against the file's size).
    int Fd() const { return _fd; }

    // True when [offset, offset + length) lies inside the file, sums that
    // wrap around included.
    bool Contains(uint64_t offset, uint64_t length) const;
    // Reads the range whole into `out`. False when it is outside the file or
    // the file cannot be read.
    bool Read(uint64_t offset, uint64_t length, std::vector<uint8_t>& out, std::string& reason) const;
    // Reads exactly `length` bytes at `offset` into `into`. False when the
    // range is outside the file or cannot be read whole.
    bool ReadInto(uint64_t offset, size_t length, uint8_t* into, std::string& reason) const;
    // Hands the range to `to` in pieces of at most one buffer, in order.
    bool Stream(uint64_t offset, uint64_t length, const sink& to, std::string& reason) const;

private:
    int _fd = -1;
    uint64_t _size = 0;
    std::string _path;
    mutable std::vector<uint8_t> _buffer;
};

}  // namespace markforge
