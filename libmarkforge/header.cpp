// markforge::header: locating, checking, loading and writing the header block.
#include "header.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "containerLayout.h"
#include "lbSteps.h"
#include "markforgeVersion.h"

namespace markforge {
namespace {

// The bytes that open and close a header block, in the order they are sought.
constexpr uint8_t CANARY_BYTES[8] = {0xDE, 0xAD, 0xC0, 0xDE, 0xFE, 0xED, 0xFA, 0xCE};
constexpr unsigned OPENING_STATES = 4;

// Eight-state matcher: states 0-3 expect DE AD C0 DE, states 4-7 FE ED FA CE.
// A mismatch falls back to the first byte of the sequence being matched and
// moves on: the mismatching byte is never tried again as a first byte. While
// looking for FE, every other byte is skipped.
class CanaryMatcher {
public:
    // Feeds the byte at file position `position`; true when the closing
    // FE ED FA CE has just been completed.
    bool Feed(uint8_t byte, uint32_t position)
    {
        if (byte != CANARY_BYTES[_state]) {
            _state = _state < OPENING_STATES ? 0 : OPENING_STATES;
            return false;
        }
        if (_state == 0) _start = position;
        return ++_state == sizeof CANARY_BYTES;
    }
    // Position of the DE that opened the matched sequence.
    uint32_t Start() const { return _start; }

private:
    unsigned _state = 0;
    uint32_t _start = 0;
};

// Scans up to HEADER_SCAN_BLOCKS blocks of `in` from its current position.
// True when the closing canary was found; `start` and `end` then hold the
// positions of the opening DE and of the closing CE.
bool FindCanaries(std::ifstream& in, uint32_t& start, uint32_t& end)
{
    std::vector<char> block(HEADER_SIZE);
    CanaryMatcher matcher;
    for (uint32_t index = 0; index < HEADER_SCAN_BLOCKS; ++index) {
        in.read(block.data(), HEADER_SIZE);
        const uint32_t got = static_cast<uint32_t>(in.gcount());
        for (uint32_t i = 0; i < got; ++i) {
            const uint32_t position = index * HEADER_SIZE + i;
            if (matcher.Feed(static_cast<uint8_t>(block[i]), position)) {
                start = matcher.Start();
                end = position;
                return true;
            }
        }
        if (got < HEADER_SIZE) return false;
    }
    return false;
}

// The digest chosen for a loaded archive: a 512-byte signature means SHA-512
// unless the caller asks for SHA-384; anything shorter means SHA-256.
uint32_t ArchiveHashId(uint32_t signatureSize, uint32_t hashChoice)
{
    if (signatureSize != MAX_SIGNATURE_SIZE) return lbHashId::SHA256;
    return hashChoice == lbHashId::SHA384 ? lbHashId::SHA384 : lbHashId::SHA512;
}

// The 0xFF fill between the digest-length word and the closing canary. A
// signature and table that overfill the block make the fill size negative,
// which the format has no answer for: it is refused exactly as a vector
// refuses a negative size converted to an unsigned one, and the exception
// is deliberately left to end the process.
std::vector<uint8_t> Padding(uint64_t used)
{
    if (used > HEADER_VARIABLE_SPACE) throw std::length_error("cannot create std::vector larger than max_size()");
    return std::vector<uint8_t>(HEADER_VARIABLE_SPACE - used, 0xFF);
}

void WriteBytes(std::ostream& out, const uint8_t* data, size_t size)
{
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// Writes a word whose bytes are already in file order in memory.
void WriteAsStored(std::ostream& out, const uint32_t& word)
{
    WriteBytes(out, reinterpret_cast<const uint8_t*>(&word), sizeof word);
}

void WriteBigEndian(std::ostream& out, uint32_t value)
{
    uint8_t bytes[4];
    store_be32(bytes, value);
    WriteBytes(out, bytes, sizeof bytes);
}

}  // namespace

bool header::Open()
{
    _canary1 = CANARY1;
    _version = HEADER_VERSION;
    _canary2 = CANARY2;
    _archive_size = 0;
    _digest_length = 0;
    return true;
}

bool header::Close()
{
    // PreClose is skipped on purpose; PostClose alone marks the archive closed.
    if (_archive_open) {
        _archive.Close();
        _archive.PostClose();
    }
    return true;
}

bool header::ScanHeaderOffset(std::ifstream& in)
{
    LB_FUNCTION("bool markforge::header::ScanHeaderOffset(std::ifstream&)");
    LB_CONTINUE_CHECK();
    _header_offset = 0;
    in.seekg(0, std::ios::beg);
    if (in.fail()) LB_FAIL("Unable to read input file. ");

    uint32_t start = 0;
    uint32_t end = 0;
    // The first complete closing canary ends the search; it counts only when
    // the two canaries are the first and last words of one block.
    if (FindCanaries(in, start, end) && end - start == HEADER_SIZE - 1) _header_offset = start;
    in.clear();
    return true;
}

bool header::CreateFromFilePath(const string& path, std::ifstream& in, uint32_t hashChoice)
{
    LB_FUNCTION("bool markforge::header::CreateFromFilePath(const string&, std::ifstream&, uint32_t)");
    LB_CONTINUE_CHECK();
    in.open(path, std::ios::binary | std::ios::ate);
    if (in.fail()) LB_FAIL("Unable to read input file. ");
    LB_CHECK(ScanHeaderOffset(in));

    // Zeroed first, so that a file shorter than a block fails the canary
    // checks instead of leaving old bytes in the fields.
    std::vector<uint8_t> block(HEADER_SIZE, 0);
    in.seekg(_header_offset);
    in.read(reinterpret_cast<char*>(block.data()), HEADER_SIZE);
    const uint8_t* data = block.data();

    _canary1 = load_be32(data + CANARY1_OFFSET);
    _version = load_be32(data + VERSION_OFFSET);
    _signature_size = load_be32(data + SIGNATURE_SIZE_OFFSET);
    _canary2 = load_be32(data + CANARY2_OFFSET);
    if (_canary1 != CANARY1) LB_FAIL("Unknown file format -- canary1 failed. ");
    if (_canary2 != CANARY2) LB_FAIL("Unknown file format -- canary2 failed. ");
    if (_signature_size > MAX_SIGNATURE_SIZE) LB_FAIL("Corrupted header.");
    if (_signature_size < MIN_SIGNATURE_SIZE) LB_FAIL("Corrupted header.");

    const uint8_t* signature = data + SIGNATURE_OFFSET;
    _signature.buffer.insert(_signature.buffer.end(), signature, signature + _signature_size);

    _archive_size = load_be32(data + archive_size_offset(_signature_size));
    if (_archive_size >= HEADER_SIZE) LB_FAIL("_archive_size < HEADER_SIZE");
    if (_archive_size % CompBlock::BYTES != 0) LB_FAIL("temp == 0");
    if (_archive_size == 0) return true;  // no components: the archive stays closed

    const uint32_t hashId = ArchiveHashId(_signature_size, hashChoice);
    const auto openArchive = [&] {
        if (!_archive.Open(reinterpret_cast<const char*>(data), components_offset(_signature_size), _archive_size,
                           hashId))
            return false;
        _archive_open = true;
        return true;
    };
    LB_OPEN_WITH(_archive, openArchive());

    if (_version >= HEADER_VERSION) {
        // A table that ends within the last four bytes would put the word
        // partly outside the block; such a block is refused as corrupted.
        const uint32_t at = digest_length_offset(_signature_size, _archive_size);
        if (!in_bounds(HEADER_SIZE, at, 4)) LB_FAIL("Corrupted header.");
        _digest_length = load_be32(data + at);
    }
    return true;
}

bool header::CreateFromArchive(const archive& source)
{
    LB_FUNCTION("bool markforge::header::CreateFromArchive(const markforge::archive&)");
    LB_CONTINUE_CHECK();
    _canary1 = to_be32_in_memory(_canary1);
    _version = to_be32_in_memory(_version);
    _canary2 = to_be32_in_memory(_canary2);
    _archive = source;

    uint32_t count = 0;
    LB_CHECK(_archive.GetNumberOfComponents(count));
    LB_CHECK(_archive.GetArchiveSignature(_signature));
    LB_CHECK(_archive.GetDigestLength(_digest_length));

    _header_offset = 0;
    _signature_size = static_cast<uint32_t>(_signature.buffer.size());
    _archive_size += count * static_cast<uint32_t>(CompBlock::BYTES);
    return true;
}

bool header::SetSignature(const lbBytes& signature)
{
    _signature_size = static_cast<uint32_t>(signature.buffer.size());
    _signature.buffer = signature.buffer;
    _header_offset = 0;
    // Kept in file order until WriteOutput copies them out as they lie.
    _canary1 = to_be32_in_memory(_canary1);
    _version = to_be32_in_memory(_version);
    _canary2 = to_be32_in_memory(_canary2);
    return true;
}

bool header::GetHeaderSignature(lbBytes& out)
{
    out.buffer = _signature.buffer;
    return true;
}

bool header::GetSignatureById(uint8_t id, lbBytes& out)
{
    LB_FUNCTION("bool markforge::header::GetSignatureById(uint8_t, lbBytes&)");
    LB_CHECK(_archive.GetSignature(id, out));
    return true;
}

bool header::GetOffsetById(uint8_t id, uint32_t& offset)
{
    LB_FUNCTION("bool markforge::header::GetOffsetById(uint8_t, uint32_t&)");
    LB_CHECK(_archive.GetOffsetById(id, offset));
    return true;
}

bool header::GetChecksumById(uint8_t id, std::string&)
{
    LB_FUNCTION("bool markforge::header::GetChecksumById(uint8_t, std::string&)");
    uint32_t offset = 0;
    uint32_t size = 0;
    LB_CHECK(_archive.GetOffsetById(id, offset));
    LB_CHECK(_archive.GetSizeById(id, size));
    // The format keeps no checksum; the caller is only shown where to look.
    std::cout << "Look at: " << offset << " : " << size << "\n" << std::flush;
    return true;
}

bool header::WriteOutput(const string& path)
{
    LB_FUNCTION("bool markforge::header::WriteOutput(const string&)");
    LB_CONTINUE_CHECK();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (out.fail()) return false;
    const bool written = WriteBlock(out, lbFunction);
    out.close();  // a failed close only marks the stream bad
    return written;
}

bool header::WriteOutput(std::vector<uint8_t>& block)
{
    LB_FUNCTION("bool markforge::header::WriteOutput(std::vector<uint8_t>&)");
    LB_CONTINUE_CHECK();
    std::ostringstream out;
    if (!WriteBlock(out, lbFunction)) return false;
    const std::string bytes = out.str();
    block.assign(bytes.begin(), bytes.end());
    return true;
}

// The steps of writing the block, under the trail name of the caller.
bool header::WriteBlock(std::ostream& out, const char* lbFunction)
{
    const std::vector<uint8_t> padding = Padding(uint64_t(_signature_size) + _archive_size);

    lbBytes components;
    LB_OPEN(components);
    LB_CHECK(_archive.GetComponentsData(components));

    WriteAsStored(out, _canary1);
    WriteAsStored(out, _version);
    WriteBigEndian(out, _signature_size);
    WriteBytes(out, _signature.buffer.data(), std::min<size_t>(_signature_size, _signature.buffer.size()));
    WriteBigEndian(out, _archive_size);
    WriteBytes(out, components.buffer.data(), components.buffer.size());
    WriteBigEndian(out, _digest_length);
    WriteBytes(out, padding.data(), padding.size());
    WriteAsStored(out, _canary2);

    LB_CLOSE(components);
    return true;
}

}  // namespace markforge
