// markforge::header: finding the block in a file, the checks on every field,
// loading the component table, and writing a block.
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "blockFrame.h"
#include "containerBlock.h"
#include "fixtures.h"
#include "header.h"
#include "openedObject.h"
#include "testSupport.h"

using markforge::header;
using testblocks::Block;
using testblocks::BlockBytes;
using testblocks::Bytes;
using testblocks::Pattern;
using testblocks::PeekBe32;
using testblocks::PokeBe32;
using testblocks::PutBe32;
using testblocks::SampleRecord;
using testsupport::FileExists;
using testsupport::ReadBytes;
using testsupport::TempDir;
using testsupport::TrailLines;
using testsupport::WriteBytes;
using Lines = std::vector<std::string>;

namespace {

const std::string HEADER_CPP = "libmarkforge/header.cpp";
const std::string ARCHIVE_CPP = "libmarkforge/archive.cpp";
const std::string SCAN = "bool markforge::header::ScanHeaderOffset(std::ifstream&)";
const std::string CREATE = "bool markforge::header::CreateFromFilePath(const string&, std::ifstream&, uint32_t)";
const std::string ARCHIVE_OPEN = "bool markforge::archive::Open(const char*, uint32_t, uint32_t, uint32_t)";
const std::string CHECKSUM = "bool markforge::header::GetChecksumById(uint8_t, std::string&)";
const std::string ARCHIVE_GET_OFFSET = "bool markforge::archive::GetOffsetById(uint8_t, uint32_t&)";
const std::string GET_SIGNATURE_BY_ID = "bool markforge::header::GetSignatureById(uint8_t, lbBytes&)";
const std::string ARCHIVE_GET_SIGNATURE = "bool markforge::archive::GetSignature(uint8_t, lbBytes&)";
const std::string GET_OFFSET_BY_ID = "bool markforge::header::GetOffsetById(uint8_t, uint32_t&)";
const std::string WRITE = "bool markforge::header::WriteOutput(const string&)";

// One line of TrailLines(): "function|file|message".
const auto Entry = testsupport::TrailLine;

// The bytes a 32-bit word occupies in this machine's memory.
Bytes NativeBytes(uint32_t word)
{
    Bytes out(4);
    std::memcpy(out.data(), &word, 4);
    return out;
}

Bytes Slice(const Bytes& bytes, size_t at, size_t size)
{
    return Bytes(bytes.begin() + long(at), bytes.begin() + long(at + size));
}

// A header taken through its opening sequence and closed when it goes.
class OpenHeader : public testsupport::Opened<header> {
public:
    OpenHeader() { EXPECT_TRUE(opened); }
};

// A block with an S-byte signature and no records whose table-size word
// claims `tableSize` bytes.
Bytes BlockClaimingTable(size_t signatureSize, uint32_t tableSize)
{
    Block b;
    b.signature = Pattern(signatureSize);
    Bytes block = BlockBytes(b);
    PokeBe32(block, testblocks::ArchiveSizeAt(signatureSize), tableSize);
    return block;
}

// A file of filler bytes holding 32-bit words at the given places and a
// valid block from `blockAt` on.
Bytes FileWithWordsAndBlock(const std::vector<std::pair<size_t, uint32_t>>& words, size_t blockAt)
{
    Bytes file;
    for (const auto& [at, word] : words) {
        file.resize(at, 0x11);
        PutBe32(file, word);
    }
    file.resize(blockAt, 0x11);
    const Bytes block = BlockBytes(Block{});
    file.insert(file.end(), block.begin(), block.end());
    return file;
}

class Header : public testsupport::FrameworkTest {
protected:
    std::string Put(const Bytes& bytes, const std::string& name = "file.bin")
    {
        const std::string path = dir.file(name);
        WriteBytes(path, bytes);
        return path;
    }

    // `block` at `offset` in a file of filler bytes with `tail` filler bytes after it.
    std::string PutAt(const Bytes& block, size_t offset, size_t tail = 100, uint8_t filler = 0x11)
    {
        Bytes file(offset, filler);
        file.insert(file.end(), block.begin(), block.end());
        file.insert(file.end(), tail, filler);
        return Put(file);
    }

    bool Load(header& h, const std::string& path, uint32_t hashChoice = 4)
    {
        std::ifstream in;
        return h.CreateFromFilePath(path, in, hashChoice);
    }

    uint32_t Scan(const std::string& path)
    {
        header h;
        std::ifstream in(path, std::ios::binary);
        EXPECT_TRUE(h.ScanHeaderOffset(in));
        return h.HeaderOffset();
    }

    // Loading `path` with hash choice `choice` gives the archive a digest
    // of `length` bytes.
    void ExpectArchiveDigestLength(const std::string& path, uint32_t choice, uint32_t length)
    {
        SCOPED_TRACE(choice);
        OpenHeader h;
        ASSERT_TRUE(Load(*h, path, choice));
        uint32_t digest = 0;
        EXPECT_TRUE(h->Archive().GetDigestLength(digest));
        EXPECT_EQ(digest, length);
    }

    // Loads `block` from a file and expects the one failure `message`.
    void ExpectRefused(const Bytes& block, const std::string& message)
    {
        OpenHeader h;
        EXPECT_FALSE(Load(*h, Put(block)));
        EXPECT_TRUE(lbGlobal.errorFlag);
        EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, message)}));
    }

    TempDir dir;
};

Block TwoRecords()
{
    Block b;
    b.records = {SampleRecord(0), SampleRecord(1)};
    return b;
}

// ---- Finding the block -----------------------------------------------------

TEST_F(Header, BlockAtStartOfFileIsFoundAndLoaded)
{
    const Block b = TwoRecords();
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
    EXPECT_EQ(h->HeaderOffset(), 0u);
    EXPECT_EQ(h->Version(), 4u);
    EXPECT_EQ(h->SignatureSize(), 64u);
    EXPECT_EQ(h->ArchiveSize(), 1080u);
    EXPECT_EQ(h->DigestLength(), 32u);
    EXPECT_TRUE(h->ArchiveOpen());
    lbBytes signature;
    EXPECT_TRUE(h->GetHeaderSignature(signature));
    EXPECT_EQ(signature.buffer, b.signature);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Header, BlockAnywhereWithinFirst61440BytesIsFound)
{
    const Block b = TwoRecords();
    for (size_t offset : {size_t(1), size_t(3), size_t(4093), size_t(4095), size_t(4096), size_t(4097),
                          size_t(30001), size_t(61439), size_t(61440)}) {
        SCOPED_TRACE(offset);
        OpenHeader h;
        ASSERT_TRUE(Load(*h, PutAt(BlockBytes(b), offset)));
        EXPECT_EQ(h->HeaderOffset(), offset);
        lbBytes signature;
        h->GetHeaderSignature(signature);
        EXPECT_EQ(signature.buffer, b.signature);
        EXPECT_EQ(h->ArchiveSize(), 1080u);
    }
}

TEST_F(Header, BlockEndingPastFirst65536BytesIsNotFoundAndStartIsChecked)
{
    // Its closing CE would be byte 65,536, the first one past the scan.
    const std::string path = PutAt(BlockBytes(Block{}), 61441);
    EXPECT_EQ(Scan(path), 0u);
    OpenHeader h;
    EXPECT_FALSE(Load(*h, path));
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Unknown file format -- canary1 failed. ")}));
}

TEST_F(Header, BlockAtStartIsUsedWhenTheScanFindsNothing)
{
    // A real block at 0 whose closing canary is broken is still read at 0,
    // and then refused by the canary check.
    Bytes block = BlockBytes(Block{});
    PokeBe32(block, testblocks::CANARY2_AT, 0xFEEDFACF);
    EXPECT_EQ(Scan(Put(block)), 0u);
    ExpectRefused(block, "Unknown file format -- canary2 failed. ");
}

TEST_F(Header, StrayOpeningCanaryEndsSearchAtNextClosingCanary)
{
    // DE AD C0 DE at 100; the next FE ED FA CE is the real block's at
    // 1000 + 4092, not 4092 bytes after the stray one.
    EXPECT_EQ(Scan(Put(FileWithWordsAndBlock({{100, 0xDEADC0DE}}, 1000))), 0u);
}

TEST_F(Header, FirstClosingCanaryEndsTheSearchEvenWhenABlockFollows)
{
    EXPECT_EQ(Scan(Put(FileWithWordsAndBlock({{10, 0xDEADC0DE}, {50, 0xFEEDFACE}}, 200))), 0u);
}

TEST_F(Header, ClosingCanaryBeforeAnyOpeningCanaryIsSkipped)
{
    EXPECT_EQ(Scan(Put(FileWithWordsAndBlock({{10, 0xFEEDFACE}}, 300))), 300u);
}

TEST_F(Header, DoubledFirstByteOfOpeningCanaryIsNotRetried)
{
    const Bytes block = BlockBytes(Block{});
    const Bytes control = testblocks::Joined({0x11}, block);
    EXPECT_EQ(Scan(Put(control)), 1u);

    // DE DE AD C0 DE: the second DE is the mismatching byte and is not
    // taken as a new start.
    const Bytes file = testblocks::Joined({0xDE}, block);
    EXPECT_EQ(Scan(Put(file)), 0u);
    ExpectRefused(file, "Unknown file format -- canary1 failed. ");
}

TEST_F(Header, DoubledFirstByteOfClosingCanaryIsNotRetried)
{
    Bytes block = BlockBytes(Block{});
    EXPECT_EQ(Scan(PutAt(block, 100)), 100u);
    block[4091] = 0xFE;  // last padding byte: FE FE ED FA CE
    EXPECT_EQ(Scan(PutAt(block, 100)), 0u);
}

TEST_F(Header, MatchingCarriesAcrossReadBlocks)
{
    // At 2 the closing canary straddles the first read boundary, at 4094 the
    // opening one does, and at 4098 the closing one straddles the second.
    for (size_t offset : {size_t(2), size_t(4094), size_t(4098)}) {
        SCOPED_TRACE(offset);
        EXPECT_EQ(Scan(PutAt(BlockBytes(Block{}), offset)), offset);
    }
}

TEST_F(Header, ScanOfAStreamThatCannotSeekFails)
{
    header h;
    std::ifstream closed;
    EXPECT_FALSE(h.ScanHeaderOffset(closed));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (Lines{Entry(SCAN, HEADER_CPP, "Unable to read input file. ")}));
}

TEST_F(Header, ScanLeavesTheStreamUsable)
{
    std::ifstream in(PutAt(BlockBytes(Block{}), 5000, 0), std::ios::binary);  // the last read is short
    header h;
    EXPECT_TRUE(h.ScanHeaderOffset(in));
    EXPECT_EQ(h.HeaderOffset(), 5000u);
    EXPECT_TRUE(in.good());
}

// ---- Checks on the fields --------------------------------------------------

TEST_F(Header, MissingFileCannotBeRead)
{
    OpenHeader h;
    EXPECT_FALSE(Load(*h, dir.file("missing.bin")));
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Unable to read input file. ")}));
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(Header, EarlierFailureStopsLoadingBeforeTheFileIsOpened)
{
    lbGlobal.errorFlag = true;
    OpenHeader h;
    std::ifstream in;
    EXPECT_FALSE(h->CreateFromFilePath(Put(BlockBytes(Block{})), in, 4));
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Unable to continue from previous error")}));
}

TEST_F(Header, EmptyFileFailsTheFirstCanary)
{
    ExpectRefused(Bytes(), "Unknown file format -- canary1 failed. ");
}

TEST_F(Header, FileShorterThanABlockFailsTheSecondCanary)
{
    // The missing bytes read as zero, never as left-over memory.
    Bytes block = BlockBytes(TwoRecords());
    block.resize(2000);
    ExpectRefused(block, "Unknown file format -- canary2 failed. ");
}

TEST_F(Header, WrongFirstCanaryIsRefused)
{
    Bytes block = BlockBytes(Block{});
    PokeBe32(block, testblocks::CANARY1_AT, 0xDEADC0DF);
    ExpectRefused(block, "Unknown file format -- canary1 failed. ");
}

TEST_F(Header, WrongSecondCanaryIsRefused)
{
    Bytes block = BlockBytes(Block{});
    PokeBe32(block, testblocks::CANARY2_AT, 0xCEFAEDFE);
    ExpectRefused(block, "Unknown file format -- canary2 failed. ");
}

TEST_F(Header, SignatureLengthsSixtyAndFiveHundredTwelveAreAccepted)
{
    for (uint32_t size : {60u, 512u}) {
        SCOPED_TRACE(size);
        Block b;
        b.signature = Pattern(size, 9);
        OpenHeader h;
        ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
        EXPECT_EQ(h->SignatureSize(), size);
        lbBytes signature;
        h->GetHeaderSignature(signature);
        EXPECT_EQ(signature.buffer, b.signature);
        EXPECT_FALSE(h->ArchiveOpen());
    }
}

TEST_F(Header, SignatureLengthsOutsideSixtyToFiveHundredTwelveAreCorrupted)
{
    for (uint32_t size : {59u, 513u}) {
        SCOPED_TRACE(size);
        lbGlobal.Reset();
        Block b;
        b.signature = Pattern(size, 9);
        ExpectRefused(BlockBytes(b), "Corrupted header.");
    }
    for (uint32_t word : {0u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(word);
        lbGlobal.Reset();
        Bytes block = BlockBytes(Block{});
        PokeBe32(block, testblocks::SIGNATURE_SIZE_AT, word);
        ExpectRefused(block, "Corrupted header.");
    }
}

TEST_F(Header, TableSizeOfABlockOrMoreIsRefused)
{
    for (uint32_t size : {4096u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(size);
        lbGlobal.Reset();
        ExpectRefused(BlockClaimingTable(64, size), "_archive_size < HEADER_SIZE");
    }
}

TEST_F(Header, TableSizeNotAMultipleOfARecordIsRefused)
{
    Bytes block = BlockBytes(TwoRecords());
    PokeBe32(block, testblocks::ArchiveSizeAt(64), 1081);
    ExpectRefused(block, "temp == 0");
}

TEST_F(Header, EmptyTableLoadsWithoutOpeningTheArchiveOrReadingTheDigestLength)
{
    Block b;
    b.digestLength = 48;
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
    EXPECT_EQ(h->ArchiveSize(), 0u);
    EXPECT_FALSE(h->ArchiveOpen());
    EXPECT_FALSE(h->Archive().IsOpen());
    EXPECT_EQ(h->DigestLength(), 0u);
}

TEST_F(Header, SevenRecordsFitBehindASixtyByteSignature)
{
    Block b;
    b.signature = Pattern(60);
    for (uint32_t i = 0; i < 7; ++i) b.records.push_back(SampleRecord(i));
    const Bytes block = BlockBytes(b);
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(block)));
    EXPECT_EQ(h->ArchiveSize(), 3780u);
    const auto& records = h->Archive().CompBlockList;
    ASSERT_EQ(records.size(), 7u);
    for (size_t i = 0; i < 7; ++i)
        EXPECT_EQ(Bytes(records[i].bytes, records[i].bytes + 540), Slice(block, testblocks::TableAt(60) + 540 * i, 540));
}

TEST_F(Header, SevenRecordsBehindAFullSignatureFailInTheArchive)
{
    OpenHeader h;
    EXPECT_FALSE(Load(*h, Put(BlockClaimingTable(512, 3780))));
    EXPECT_EQ(TrailLines(), (Lines{Entry(ARCHIVE_OPEN, ARCHIVE_CPP, "( start + size < HEADER_SIZE )"),
                                   Entry(CREATE, HEADER_CPP, "Object Open() routine failed.")}));
    EXPECT_FALSE(h->ArchiveOpen());
}

TEST_F(Header, FullSignatureChoosesSha512UnlessSha384IsAsked)
{
    Block b = TwoRecords();
    b.signature = Pattern(512);
    b.records.pop_back();
    const std::string path = Put(BlockBytes(b));
    const std::pair<uint32_t, uint32_t> cases[] = {{5, 48}, {4, 64}, {3, 64}, {0, 64}, {7, 64}};
    for (const auto& [choice, length] : cases) ExpectArchiveDigestLength(path, choice, length);
}

TEST_F(Header, ShorterSignatureAlwaysChoosesSha256)
{
    Block b = TwoRecords();
    b.signature = Pattern(511);
    const std::string path = Put(BlockBytes(b));
    for (uint32_t choice : {3u, 4u, 5u}) ExpectArchiveDigestLength(path, choice, 32);
}

TEST_F(Header, DigestLengthIsReadFromVersionFourOn)
{
    const std::pair<uint32_t, uint32_t> cases[] = {{3, 0}, {4, 48}, {5, 48}};
    for (const auto& [version, expected] : cases) {
        SCOPED_TRACE(version);
        Block b = TwoRecords();
        b.version = version;
        b.digestLength = 48;
        OpenHeader h;
        ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
        EXPECT_EQ(h->Version(), version);
        EXPECT_EQ(h->DigestLength(), expected);
    }
}

TEST_F(Header, DigestLengthWordRunningOutOfTheBlockIsCorrupted)
{
    // 16 + 297 + 3780 = 4093: the table fits the archive's own check, but
    // the word behind it would end one byte past the block.
    OpenHeader h;
    EXPECT_FALSE(Load(*h, Put(BlockClaimingTable(297, 3780))));
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Corrupted header.")}));
    EXPECT_TRUE(h->ArchiveOpen());  // closed again with the header
}

TEST_F(Header, DigestLengthWordOnTheClosingCanaryIsRead)
{
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockClaimingTable(296, 3780))));
    EXPECT_EQ(h->DigestLength(), 0xFEEDFACEu);
}

TEST_F(Header, CloseClosesTheArchiveItOpened)
{
    header h;
    ASSERT_TRUE(testsupport::OpenObject(h));
    ASSERT_TRUE(Load(h, Put(BlockBytes(TwoRecords()))));
    EXPECT_TRUE(h.Archive().IsOpen());
    EXPECT_TRUE(h.PreClose());
    EXPECT_TRUE(h.Close());
    h.PostClose();
    EXPECT_FALSE(h.Archive().IsOpen());
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(TrailLines().empty());
}

// ---- Records through the header --------------------------------------------

TEST_F(Header, RecordsAreHandedOutById)
{
    const Block b = TwoRecords();
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
    lbBytes signature;
    EXPECT_TRUE(h->GetSignatureById(1, signature));
    EXPECT_EQ(signature.buffer, b.records[1].signature);
    uint32_t offset = 0;
    EXPECT_TRUE(h->GetOffsetById(1, offset));
    EXPECT_EQ(offset, 100000u);
}

TEST_F(Header, BadIdsFailThroughTheArchive)
{
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(TwoRecords()))));
    lbBytes signature;
    EXPECT_FALSE(h->GetSignatureById(2, signature));
    EXPECT_EQ(TrailLines(), (Lines{Entry(ARCHIVE_GET_SIGNATURE, ARCHIVE_CPP, "( inId <= CompBlockList.size() )"),
                                   Entry(GET_SIGNATURE_BY_ID, HEADER_CPP, "Boolean return value failed.")}));
    lbGlobal.Reset();
    uint32_t offset = 0;
    EXPECT_FALSE(h->GetOffsetById(9, offset));
    EXPECT_EQ(TrailLines(), (Lines{Entry(ARCHIVE_GET_OFFSET, ARCHIVE_CPP, "inId <= CompBlockList.size()"),
                                   Entry(GET_OFFSET_BY_ID, HEADER_CPP, "Boolean return value failed.")}));
}

TEST_F(Header, ChecksumByIdPrintsWhereToLookAndLeavesTheTextAlone)
{
    Block b;
    testblocks::Record r = SampleRecord(0);
    r.offset = 4096;
    r.size = 1024;
    b.records = {r};
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(b))));
    std::string text = "untouched";
    testing::internal::CaptureStdout();
    EXPECT_TRUE(h->GetChecksumById(0, text));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Look at: 4096 : 1024\n");
    EXPECT_EQ(text, "untouched");
}

TEST_F(Header, ChecksumByIdOfAMissingRecordPrintsNothing)
{
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(TwoRecords()))));
    std::string text;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(h->GetChecksumById(2, text));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(TrailLines(), (Lines{Entry(ARCHIVE_GET_OFFSET, ARCHIVE_CPP, "inId <= CompBlockList.size()"),
                                   Entry(CHECKSUM, HEADER_CPP, "Boolean return value failed.")}));
}

// ---- Writing -----------------------------------------------------------------

TEST_F(Header, OpenPreparesVersionFourAndEmptySizes)
{
    OpenHeader h;
    EXPECT_EQ(h->Version(), 4u);
    EXPECT_EQ(h->ArchiveSize(), 0u);
    EXPECT_EQ(h->DigestLength(), 0u);
    EXPECT_FALSE(h->ArchiveOpen());
}

TEST_F(Header, SignatureBlockIsWrittenFieldByField)
{
    Block expected;
    expected.signature = Pattern(64, 5);
    expected.digestLength = 0;
    OpenHeader h;
    lbBytes signature;
    signature.buffer = expected.signature;
    EXPECT_TRUE(h->SetSignature(signature));
    EXPECT_EQ(h->HeaderOffset(), 0u);
    const std::string path = dir.file("out.hdr");
    ASSERT_TRUE(h->WriteOutput(path));
    const Bytes written = ReadBytes(path);
    ASSERT_EQ(written.size(), 4096u);
    EXPECT_EQ(written, BlockBytes(expected));
    // The digest-length word is present even with no table.
    EXPECT_EQ(PeekBe32(written, testblocks::DigestLengthAt(64, 0)), 0u);
    for (size_t i = testblocks::DigestLengthAt(64, 0) + 4; i < 4092; ++i) ASSERT_EQ(written[i], 0xFF) << i;
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Header, WrittenBlockReadsBack)
{
    const std::string path = dir.file("out.hdr");
    lbBytes signature;
    signature.buffer = Pattern(256, 2);
    {
        OpenHeader h;
        h->SetSignature(signature);
        ASSERT_TRUE(h->WriteOutput(path));
    }
    OpenHeader h;
    ASSERT_TRUE(Load(*h, path));
    lbBytes back;
    h->GetHeaderSignature(back);
    EXPECT_EQ(back.buffer, signature.buffer);
}

TEST_F(Header, SecondSetSignatureSwapsTheFixedWordsBack)
{
    OpenHeader h;
    lbBytes signature;
    signature.buffer = Pattern(64);
    h->SetSignature(signature);
    h->SetSignature(signature);
    const std::string path = dir.file("out.hdr");
    ASSERT_TRUE(h->WriteOutput(path));
    const Bytes written = ReadBytes(path);
    EXPECT_EQ(Slice(written, 0, 4), NativeBytes(0xDEADC0DE));
    EXPECT_EQ(Slice(written, 4, 4), NativeBytes(4));
    EXPECT_EQ(Slice(written, 4092, 4), NativeBytes(0xFEEDFACE));
    EXPECT_EQ(PeekBe32(written, 8), 64u);  // the size words are always converted while writing
}

TEST_F(Header, BlockReadFromAFileIsWrittenWithItsFixedWordsAsTheyLie)
{
    OpenHeader h;
    ASSERT_TRUE(Load(*h, Put(BlockBytes(TwoRecords()))));
    const std::string path = dir.file("again.hdr");
    ASSERT_TRUE(h->WriteOutput(path));
    const Bytes written = ReadBytes(path);
    ASSERT_EQ(written.size(), 4096u);
    EXPECT_EQ(Slice(written, 0, 4), NativeBytes(0xDEADC0DE));
    EXPECT_EQ(PeekBe32(written, 8), 64u);
    EXPECT_EQ(PeekBe32(written, testblocks::ArchiveSizeAt(64)), 1080u);
    EXPECT_EQ(Slice(written, testblocks::TableAt(64), 1080), testblocks::TableBytes(TwoRecords().records));
    EXPECT_EQ(PeekBe32(written, testblocks::DigestLengthAt(64, 1080)), 32u);
}

TEST_F(Header, SignatureFillingTheWholeBodyLeavesNoPadding)
{
    OpenHeader h;
    lbBytes signature;
    signature.buffer = Pattern(4072);
    h->SetSignature(signature);
    const std::string path = dir.file("full.hdr");
    ASSERT_TRUE(h->WriteOutput(path));
    const Bytes written = ReadBytes(path);
    ASSERT_EQ(written.size(), 4096u);
    EXPECT_EQ(PeekBe32(written, 4088), 0u);  // digest length right before the closing canary
    EXPECT_EQ(PeekBe32(written, 4092), 0xFEEDFACEu);
}

TEST_F(Header, SignatureOverfillingTheBodyRaisesTheLengthError)
{
    const std::string path = dir.file("over.hdr");
    lbBytes signature;
    signature.buffer = Pattern(4073);
    header h;
    h.Open();
    h.SetSignature(signature);
    try {
        h.WriteOutput(path);
        FAIL() << "no exception";
    } catch (const std::length_error& error) {
        EXPECT_STREQ(error.what(), "cannot create std::vector larger than max_size()");
    }
    // The output was opened, and so truncated, before the size was known.
    EXPECT_TRUE(FileExists(path));
    EXPECT_TRUE(ReadBytes(path).empty());
}

TEST_F(Header, UnopenableOutputFailsWithoutAMessage)
{
    OpenHeader h;
    lbBytes signature;
    signature.buffer = Pattern(64);
    h->SetSignature(signature);
    EXPECT_FALSE(h->WriteOutput(dir.file("no/such/dir/out.hdr")));
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Header, WriteAfterAnEarlierFailureWritesNothing)
{
    OpenHeader h;
    lbGlobal.errorFlag = true;
    const std::string path = dir.file("out.hdr");
    EXPECT_FALSE(h->WriteOutput(path));
    EXPECT_FALSE(FileExists(path));
    EXPECT_EQ(TrailLines(), (Lines{Entry(WRITE, HEADER_CPP, "Unable to continue from previous error")}));
}

TEST_F(Header, BlockFromAnArchiveCarriesItsTableAndDigestLength)
{
    // An archive loaded from a block stands in for a built one: its records,
    // an empty signature and a SHA-384 digest object.
    const Block source = TwoRecords();
    const Bytes block = BlockBytes(source);
    markforge::archive loaded;
    ASSERT_TRUE(testsupport::OpenObject(loaded, [&](markforge::archive& a) {
        return a.Open(reinterpret_cast<const char*>(block.data()), 80, 1080, 5);
    }));

    OpenHeader h;
    ASSERT_TRUE(h->CreateFromArchive(loaded));
    EXPECT_EQ(h->ArchiveSize(), 1080u);
    EXPECT_EQ(h->SignatureSize(), 0u);
    EXPECT_EQ(h->DigestLength(), 48u);
    const std::string path = dir.file("archive.hdr");
    ASSERT_TRUE(h->WriteOutput(path));
    const Bytes written = ReadBytes(path);
    ASSERT_NO_FATAL_FAILURE(testblocks::ExpectBlockFrame(written));
    EXPECT_EQ(PeekBe32(written, 8), 0u);
    EXPECT_EQ(PeekBe32(written, 12), 1080u);
    EXPECT_EQ(Slice(written, 16, 1080), testblocks::TableBytes(source.records));
    EXPECT_EQ(PeekBe32(written, 16 + 1080), 48u);
    EXPECT_FALSE(h->ArchiveOpen());

    testsupport::CloseObject(loaded);
    EXPECT_TRUE(TrailLines().empty());
}

}  // namespace
