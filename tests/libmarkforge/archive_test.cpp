// markforge::archive read side: loading records from a header block, the
// lookups by id and their refusals, and the table handed back for writing.
#include <string>
#include <vector>

#include "archive.h"
#include "containerBlock.h"
#include "openedObject.h"
#include "testSupport.h"

using markforge::archive;
using testblocks::Block;
using testblocks::BlockBytes;
using testblocks::Bytes;
using testblocks::Pattern;
using testblocks::Record;
using testblocks::RecordBytes;
using testblocks::SampleRecord;
using testblocks::TableBytes;
using testsupport::TrailLines;
using Lines = std::vector<std::string>;

namespace {

const std::string ARCHIVE_CPP = "libmarkforge/archive.cpp";
const std::string OPEN = "bool markforge::archive::Open(const char*, uint32_t, uint32_t, uint32_t)";
const std::string GET_SIGNATURE = "bool markforge::archive::GetSignature(uint8_t, lbBytes&)";
const std::string GET_OFFSET = "bool markforge::archive::GetOffsetById(uint8_t, uint32_t&)";
const std::string GET_SIZE = "bool markforge::archive::GetSizeById(uint8_t, uint32_t&)";
const std::string CLOSE = "virtual bool markforge::archive::Close()";

std::string Entry(const std::string& function, const std::string& message)
{
    return function + "|" + ARCHIVE_CPP + "|" + message;
}

// An archive opened on a 4096-byte block through the full opening sequence,
// closed again when it goes if it is still open.
class LoadedArchive : public testsupport::Opened<archive> {
public:
    LoadedArchive(const Bytes& block, uint32_t start, uint32_t size, uint32_t hashId = 3)
        : Opened([&](archive& a) { return a.Open(reinterpret_cast<const char*>(block.data()), start, size, hashId); })
    {
    }
};

// A block whose table of `count` sample records starts at 16 + S.
Bytes BlockWith(size_t signatureSize, uint32_t count)
{
    Block b;
    b.signature = Pattern(signatureSize);
    for (uint32_t i = 0; i < count; ++i) b.records.push_back(SampleRecord(i));
    return BlockBytes(b);
}

Bytes RecordAt(const archive& a, size_t index)
{
    return Bytes(a.CompBlockList.at(index).bytes, a.CompBlockList.at(index).bytes + 540);
}

class Archive : public testsupport::FrameworkTest {
protected:
    // Loading `block` with `start` and `size` succeeds with `count` records.
    void ExpectLoads(const Bytes& block, uint32_t start, uint32_t size, size_t count)
    {
        LoadedArchive a(block, start, size);
        EXPECT_TRUE(a.opened);
        EXPECT_EQ(a->CompBlockList.size(), count);
    }

    // What GetSignature hands out for the only record of a block, into a
    // buffer that held `before`.
    Bytes SignatureOfOnlyRecord(const Record& r, const Bytes& before = {})
    {
        Block b;
        b.records = {r};
        const Bytes block = BlockBytes(b);
        LoadedArchive a(block, 80, 540);
        EXPECT_TRUE(a.opened);
        lbBytes signature;
        signature.buffer = before;
        EXPECT_TRUE(a->GetSignature(0, signature));
        return signature.buffer;
    }

    // Loading `block` with `start` and `size` is refused by the sum check,
    // and loads nothing.
    void ExpectStartPlusSizeRefused(const Bytes& block, uint32_t start, uint32_t size)
    {
        LoadedArchive a(block, start, size);
        EXPECT_FALSE(a.opened);
        EXPECT_TRUE(lbGlobal.errorFlag);
        EXPECT_EQ(TrailLines(), (Lines{Entry(OPEN, "( start + size < HEADER_SIZE )")}));
        EXPECT_TRUE(a->CompBlockList.empty());
    }
};

TEST_F(Archive, SixRecordsBehindAFullSignatureAreLoaded)
{
    const Bytes block = BlockWith(512, 6);
    LoadedArchive a(block, 528, 3240);
    ASSERT_TRUE(a.opened);
    ASSERT_EQ(a->CompBlockList.size(), 6u);
    for (uint32_t i = 0; i < 6; ++i) EXPECT_EQ(RecordAt(*a, i), RecordBytes(SampleRecord(i))) << i;
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Archive, StartPlusSizeReachingTheBlockEndIsRefused)
{
    ExpectStartPlusSizeRefused(BlockWith(512, 0), 528, 3780);
}

TEST_F(Archive, StartPlusSizeOneBelowTheBlockEndIsAccepted)
{
    ExpectLoads(BlockWith(512, 6), 528, 3567, 6);
}

TEST_F(Archive, StartPlusSizeThatWrapsAroundIsRefused)
{
    ExpectStartPlusSizeRefused(BlockWith(64, 0), 0xFFFFFFFFu, 2);
}

TEST_F(Archive, SizeZeroLoadsNothingAndSucceeds)
{
    ExpectLoads(BlockWith(64, 2), 80, 0, 0);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Archive, SizeNotAboveStartLoadsNothingAndSucceeds)
{
    // The running position is compared with the size alone.
    const Bytes block = BlockWith(512, 1);
    for (uint32_t size : {100u, 528u}) {
        SCOPED_TRACE(size);
        ExpectLoads(block, 528, size, 0);
    }
}

TEST_F(Archive, PositionIsComparedWithSizeNotWithStartPlusSize)
{
    // Start 80 and size 600: one record at 80 (80 < 600), none at 620.
    const Bytes block = BlockWith(64, 2);
    LoadedArchive a(block, 80, 600);
    ASSERT_TRUE(a.opened);
    ASSERT_EQ(a->CompBlockList.size(), 1u);
    EXPECT_EQ(RecordAt(*a, 0), RecordBytes(SampleRecord(0)));
}

TEST_F(Archive, DirectCallNeverCopiesPastTheBlock)
{
    // Start 0 and size 4095 pass the sum check; the record that would start
    // at 3780 would end 224 bytes past the block and is not taken.
    ExpectLoads(Bytes(4096, 0x5A), 0, 4095, 7);
}

TEST_F(Archive, HashIdentifierKeepsFourAndFiveAndMapsTheRestToSha256)
{
    const Bytes block = BlockWith(64, 1);
    const std::pair<uint32_t, uint32_t> cases[] = {{3, 32}, {4, 64}, {5, 48}, {0, 32}, {7, 32}, {0xFFFFFFFF, 32}};
    for (const auto& [id, length] : cases) {
        SCOPED_TRACE(id);
        LoadedArchive a(block, 80, 540, id);
        ASSERT_TRUE(a.opened);
        uint32_t digest = 0;
        EXPECT_TRUE(a->GetDigestLength(digest));
        EXPECT_EQ(digest, length);
    }
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Archive, OpenAfterAnEarlierFailureStopsAtOnce)
{
    lbGlobal.errorFlag = true;
    const Bytes block = BlockWith(64, 1);
    LoadedArchive a(block, 80, 540);
    EXPECT_FALSE(a.opened);
    EXPECT_TRUE(a->CompBlockList.empty());
    EXPECT_EQ(TrailLines(), (Lines{Entry(OPEN, "Unable to continue from previous error")}));
}

TEST_F(Archive, GettersOnAnEmptyListFail)
{
    archive a;
    lbBytes signature;
    uint32_t value = 77;
    EXPECT_FALSE(a.GetSignature(0, signature));
    EXPECT_FALSE(a.GetOffsetById(0, value));
    EXPECT_FALSE(a.GetSizeById(0, value));
    EXPECT_EQ(value, 77u);
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (Lines{Entry(GET_SIGNATURE, "CompBlockList.size() > 0"),
                                   Entry(GET_OFFSET, "CompBlockList.size() > 0"),
                                   Entry(GET_SIZE, "CompBlockList.size() > 0")}));
}

TEST_F(Archive, IdEqualToTheCountIsRefusedLikeALargerOne)
{
    const Bytes block = BlockWith(64, 2);
    LoadedArchive a(block, 80, 1080);
    ASSERT_TRUE(a.opened);
    for (uint8_t id : {uint8_t(2), uint8_t(3), uint8_t(255)}) {
        SCOPED_TRACE(int(id));
        lbGlobal.Reset();
        lbBytes signature;
        signature.buffer = {1, 2, 3};
        uint32_t value = 77;
        EXPECT_FALSE(a->GetSignature(id, signature));
        EXPECT_FALSE(a->GetOffsetById(id, value));
        EXPECT_FALSE(a->GetSizeById(id, value));
        EXPECT_EQ(signature.buffer, (Bytes{1, 2, 3}));
        EXPECT_EQ(value, 77u);
        EXPECT_EQ(TrailLines(), (Lines{Entry(GET_SIGNATURE, "( inId <= CompBlockList.size() )"),
                                       Entry(GET_OFFSET, "inId <= CompBlockList.size()"),
                                       Entry(GET_SIZE, "inId <= CompBlockList.size()")}));
    }
}

TEST_F(Archive, OffsetAndSizeAreReadBigEndian)
{
    Block b;
    Record r = SampleRecord(0);
    r.size = 0x01020304;
    r.offset = 0xA0B0C0D0;
    b.records = {SampleRecord(1), r};
    const Bytes block = BlockBytes(b);
    LoadedArchive a(block, 80, 1080);
    ASSERT_TRUE(a.opened);
    uint32_t offset = 0;
    uint32_t size = 0;
    EXPECT_TRUE(a->GetOffsetById(1, offset));
    EXPECT_TRUE(a->GetSizeById(1, size));
    EXPECT_EQ(offset, 0xA0B0C0D0u);
    EXPECT_EQ(size, 0x01020304u);
    EXPECT_TRUE(a->GetOffsetById(0, offset));
    EXPECT_EQ(offset, 100000u);
    uint32_t count = 0;
    EXPECT_TRUE(a->GetNumberOfComponents(count));
    EXPECT_EQ(count, 2u);
}

TEST_F(Archive, SignatureOfLength256IsExactly256BytesWhateverTheFieldHoldsBehind)
{
    Record r = SampleRecord(0, 256);
    r.fieldFill = 0xAA;
    // The buffer's earlier bytes are replaced, not appended to.
    EXPECT_EQ(SignatureOfOnlyRecord(r, Bytes(1000, 0x01)), r.signature);
}

TEST_F(Archive, SignatureLengthWordAboveTheFieldStaysInsideTheTable)
{
    Block b;
    Record first = SampleRecord(0, 512);
    first.explicitLength = true;
    first.signatureLength = 600;
    Record last = first;
    last.signature = Pattern(512, 40);
    b.records = {first, last};
    b.signature = Pattern(60);
    const Bytes block = BlockBytes(b);
    LoadedArchive a(block, 76, 1080);
    ASSERT_TRUE(a.opened);
    const Bytes table = TableBytes(b.records);

    // The word is used as it stands: 600 bytes, running into the next record.
    lbBytes signature;
    EXPECT_TRUE(a->GetSignature(0, signature));
    EXPECT_EQ(signature.buffer, Bytes(table.begin() + 28, table.begin() + 628));
    // The last record can only give what is left of the table.
    EXPECT_TRUE(a->GetSignature(1, signature));
    EXPECT_EQ(signature.buffer, last.signature);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Archive, HugeSignatureLengthWordStopsAtTheTableEnd)
{
    Record r = SampleRecord(0, 100);
    r.explicitLength = true;
    r.signatureLength = 0xFFFFFFFF;
    EXPECT_EQ(SignatureOfOnlyRecord(r).size(), 512u);
}

TEST_F(Archive, ComponentsDataIsTheTableAsStored)
{
    for (uint32_t count : {0u, 1u, 3u, 7u}) {
        SCOPED_TRACE(count);
        const Bytes block = BlockWith(60, count);
        LoadedArchive a(block, 76, 540 * count);
        ASSERT_TRUE(a.opened);
        lbBytes data;
        data.buffer = {9, 9};  // replaced, not appended to
        EXPECT_TRUE(a->GetComponentsData(data));
        ASSERT_EQ(data.buffer.size(), 540u * count);
        EXPECT_EQ(data.buffer, Bytes(block.begin() + 76, block.begin() + 76 + 540 * count));
    }
}

TEST_F(Archive, CloseClosesBothHashObjects)
{
    const Bytes block = BlockWith(64, 1);
    LoadedArchive a(block, 80, 540, 4);
    ASSERT_TRUE(a.opened);
    EXPECT_TRUE(a->PreClose());
    EXPECT_TRUE(a->Close());
    a->PostClose();
    // The digest object no longer knows its algorithm once closed.
    uint32_t digest = 0;
    EXPECT_FALSE(a->GetDigestLength(digest));
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(Archive, CloseOfAnArchiveThatWasNeverOpenedFails)
{
    archive a;
    EXPECT_FALSE(a.Close());
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (Lines{Entry(CLOSE, "Boolean return value failed.")}));
}

TEST_F(Archive, ArchiveSignatureIsEmptyOnTheReadSide)
{
    const Bytes block = BlockWith(64, 1);
    LoadedArchive a(block, 80, 540);
    lbBytes signature;
    signature.buffer = {1};
    EXPECT_TRUE(a->GetArchiveSignature(signature));
    EXPECT_TRUE(signature.buffer.empty());
}

}  // namespace
