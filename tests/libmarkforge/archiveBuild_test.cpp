// markforge::archive, building side: component records, the component and
// archive signatures (judged by openssl), the one-component shortcut, name
// and file checks, and the header block written from a built archive and
// loaded back.
#include <gtest/gtest.h>

#include "archive.h"
#include "blockFrame.h"
#include "containerLayout.h"
#include "fixtures.h"
#include "header.h"
#include "openedObject.h"
#include "signingTest.h"
#include "testKeys.h"
#include "testSupport.h"

using markforge::archive;
using markforge::CompBlock;
using markforge::header;
using testsupport::FromHex;
using testsupport::Opened;
using testsupport::PseudoRandom;
using testsupport::TrailLines;
using testsupport::Upper;
using Bytes = std::vector<uint8_t>;

namespace {

const char* const ADD_TEXT = "bool markforge::archive::AddComponent(const string&, const string&)";

// openssl's digest name for an archive hash identifier.
std::string DigestName(uint32_t hashId)
{
    if (hashId == 4) return "sha512";
    if (hashId == 5) return "sha384";
    return "sha256";
}

struct Component {
    std::string name;
    std::string path;
    std::string bytes;
};

// One record of a written header block, read with literal offsets.
struct RecordView {
    uint32_t size, offset, signatureLength;
    Bytes name;  // all 16 bytes of the field
    Bytes signature;
};

class ArchiveBuildTest : public testsupport::SigningTest {
protected:
    void TearDown() override
    {
        CloseArchive();
        SigningTest::TearDown();
    }

    void MakeKey() { SigningTest::MakeKey("builder"); }

    Component MakeComponent(const std::string& name, size_t size, uint32_t seed)
    {
        Component c{name, dir.file(name.empty() ? "unnamed.bin" : name + ".bin"), PseudoRandom(size, seed)};
        testsupport::WriteFile(c.path, c.bytes);
        return c;
    }

    // The three components most tests build, 350 bytes in all.
    std::vector<Component> BootKernelAndRootfs()
    {
        return {MakeComponent("boot", 100, 1), MakeComponent("kernel", 200, 2), MakeComponent("rootfs", 50, 3)};
    }

    // Opens `built` for building under the lifecycle contract and starts
    // the running digest.
    bool OpenForBuilding(const std::string& mode, uint32_t hashId)
    {
        return testsupport::OpenObject(built, [&](archive& a) { return a.Open("release-key", mode, hashId); }) &&
               built.InitAddComponentsFromCmdline();
    }

    bool Build(const std::string& mode, uint32_t hashId, const std::vector<Component>& components)
    {
        if (!OpenForBuilding(mode, hashId)) return false;
        for (const Component& c : components)
            if (!built.AddComponent(c.name, c.path)) return false;
        return built.FinishAddComponentsFromCmdline();
    }

    void CloseArchive() { testsupport::CloseObject(built); }

    // Writes the header block of the built archive to `path`.
    void WriteHeader(const std::string& path)
    {
        Opened<header> out;
        ASSERT_TRUE(out.opened);
        ASSERT_TRUE(out->CreateFromArchive(built));
        ASSERT_TRUE(out->WriteOutput(path));
    }

    // What a refused AddComponent leaves: no record, the flag raised and
    // `message` as the only entry.
    void ExpectRefusedAdding(const std::string& message)
    {
        EXPECT_TRUE(built.CompBlockList.empty());
        EXPECT_TRUE(lbGlobal.errorFlag);
        EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(ADD_TEXT) + "|libmarkforge/archive.cpp|" + message}));
    }

    Bytes ArchiveSignature()
    {
        lbBytes out;
        EXPECT_TRUE(built.GetArchiveSignature(out));
        return out.buffer;
    }

    Bytes ComponentSignature(uint8_t id)
    {
        lbBytes out;
        EXPECT_TRUE(built.GetSignature(id, out));
        return out.buffer;
    }

    // The digest that gets signed for a digest text: the digest of the text
    // upper-cased, with the algorithm its length names.
    Bytes SignedDigestOf(const std::string& digestName, const std::string& digestText)
    {
        return FromHex(testsupport::OpensslDigestHex(dir.path(), digestName, Upper(digestText)));
    }

    // What a component's (or the archive's) signature covers: the digest of
    // the upper-cased hex digest of `bytes`.
    Bytes SignedDigestOfBytes(uint32_t hashId, const std::string& bytes)
    {
        const std::string name = DigestName(hashId);
        return SignedDigestOf(name, testsupport::OpensslDigestHex(dir.path(), name, bytes));
    }

    void ExpectVerifies(uint32_t hashId, const std::string& bytes, const Bytes& signature)
    {
        std::string detail;
        EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), key.publicPem, DigestName(hashId),
                                                 SignedDigestOfBytes(hashId, bytes), signature, detail))
            << detail;
    }

    // Components `a` and `b` built under hash identifier `hashId`: both
    // component signatures and the archive's verify with the digest
    // `signedAs` names, and the archive's digest has `digestLength` bytes.
    void ExpectTwoComponentsSignedWith(uint32_t hashId, uint32_t signedAs, uint32_t digestLength, const Component& a,
                                       const Component& b)
    {
        MakeKey();
        ASSERT_TRUE(Build("development", hashId, {a, b}));
        ExpectVerifies(signedAs, a.bytes, ComponentSignature(0));
        ExpectVerifies(signedAs, b.bytes, ComponentSignature(1));
        ExpectVerifies(signedAs, a.bytes + b.bytes, ArchiveSignature());
        uint32_t length = 0;
        EXPECT_TRUE(built.GetDigestLength(length));
        EXPECT_EQ(length, digestLength);
    }

    static RecordView ReadRecord(const Bytes& block, size_t at)
    {
        auto word = [&](size_t offset) { return markforge::load_be32(&block[at + offset]); };
        RecordView r;
        r.size = word(0);
        r.offset = word(4);
        r.name.assign(block.begin() + at + 8, block.begin() + at + 24);
        r.signatureLength = word(24);
        r.signature.assign(block.begin() + at + 28, block.begin() + at + 28 + std::min<uint32_t>(r.signatureLength, 512));
        return r;
    }

    static Bytes NameField(const std::string& name)
    {
        Bytes field(16, 0);
        std::copy(name.begin(), name.end(), field.begin());
        return field;
    }

    archive built;
};

}  // namespace

// ---- records -----------------------------------------------------------------

TEST_F(ArchiveBuildTest, ThreeComponentsAreLaidOutBackToBack)
{
    MakeKey();
    const std::vector<Component> parts = BootKernelAndRootfs();
    ASSERT_TRUE(Build("development", 3, parts));
    ASSERT_EQ(built.CompBlockList.size(), 3u);
    const uint32_t offsets[] = {0, 100, 300};
    for (uint8_t i = 0; i < 3; ++i) {
        const CompBlock& record = built.CompBlockList[i];
        EXPECT_EQ(markforge::load_be32(record.bytes + 0), parts[i].bytes.size());
        EXPECT_EQ(markforge::load_be32(record.bytes + 4), offsets[i]);
        EXPECT_EQ(Bytes(record.bytes + 8, record.bytes + 24), NameField(parts[i].name));
        EXPECT_EQ(markforge::load_be32(record.bytes + 24), 256u);
        EXPECT_EQ(Bytes(record.bytes + 28 + 256, record.bytes + 540), Bytes(256, 0));
        uint32_t offset = 0, size = 0;
        EXPECT_TRUE(built.GetOffsetById(i, offset));
        EXPECT_TRUE(built.GetSizeById(i, size));
        EXPECT_EQ(offset, offsets[i]);
        EXPECT_EQ(size, parts[i].bytes.size());
    }
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(ArchiveBuildTest, EveryComponentSignatureVerifies)
{
    MakeKey();
    const std::vector<Component> parts = BootKernelAndRootfs();
    ASSERT_TRUE(Build("development", 3, parts));
    for (uint8_t i = 0; i < 3; ++i) ExpectVerifies(3, parts[i].bytes, ComponentSignature(i));
}

TEST_F(ArchiveBuildTest, ArchiveOfThreeIsSignedOverAllTheirBytesInOrder)
{
    MakeKey();
    const std::vector<Component> parts = BootKernelAndRootfs();
    ASSERT_TRUE(Build("development", 3, parts));
    ExpectVerifies(3, parts[0].bytes + parts[1].bytes + parts[2].bytes, ArchiveSignature());
}

TEST_F(ArchiveBuildTest, TwoComponentsAreSignedOverADigestOfAThenB)
{
    MakeKey();
    const Component a = MakeComponent("A", 5000, 10);
    const Component b = MakeComponent("B", 9000, 11);
    ASSERT_TRUE(Build("development", 3, {a, b}));
    const Bytes signature = ArchiveSignature();
    ExpectVerifies(3, a.bytes + b.bytes, signature);
    std::string detail;
    EXPECT_FALSE(testsupport::OpensslVerifies(dir.path(), key.publicPem, "sha256",
                                              SignedDigestOfBytes(3, b.bytes + a.bytes), signature, detail));
}

TEST_F(ArchiveBuildTest, OneComponentArchiveCarriesTheComponentsSignature)
{
    MakeKey();
    const Component only = MakeComponent("only", 777, 4);
    ASSERT_TRUE(Build("development", 3, {only}));
    const Bytes signature = ArchiveSignature();
    EXPECT_EQ(signature.size(), 256u);
    EXPECT_EQ(signature, ComponentSignature(0));
    ExpectVerifies(3, only.bytes, signature);
}

TEST_F(ArchiveBuildTest, OneComponentInProductionMakesExactlyOneRequest)
{
    StartPeer();
    Bytes answer(256);
    for (size_t i = 0; i < answer.size(); ++i) answer[i] = static_cast<uint8_t>(i * 3);
    peer.AnswerWith(answer);
    const Component only = MakeComponent("only", 300, 5);
    testing::internal::CaptureStdout();
    const bool builtOk = Build("production", 3, {only});
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(builtOk);
    const std::vector<Bytes> requests = peer.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&requests[0][64])), "F=only;S=32;");
    EXPECT_EQ(ArchiveSignature(), answer);
    EXPECT_EQ(ComponentSignature(0), answer);
}

TEST_F(ArchiveBuildTest, ProductionRequestsNameEachComponentAndThenTheArchive)
{
    StartPeer();
    peer.AnswerWith(Bytes(256, 0x5A));
    const std::vector<Component> parts = {MakeComponent("boot", 100, 1), MakeComponent("kernel", 200, 2)};
    testing::internal::CaptureStdout();
    const bool builtOk = Build("production", 3, parts);
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(builtOk);
    const std::vector<Bytes> requests = peer.Requests();
    ASSERT_EQ(requests.size(), 3u);
    const std::string expectedArgs[] = {"F=boot;S=32;", "F=kernel;S=32;", "F=archive;S=32;"};
    const std::string covered[] = {parts[0].bytes, parts[1].bytes, parts[0].bytes + parts[1].bytes};
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(requests[i].size(), 128u);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&requests[i][0])), "release-key");
        EXPECT_EQ(Bytes(requests[i].begin() + 32, requests[i].begin() + 64), SignedDigestOfBytes(3, covered[i]));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&requests[i][64])), expectedArgs[i]);
    }
}

// ---- hash identifiers --------------------------------------------------------

TEST_F(ArchiveBuildTest, HashIdentifierSevenBehavesAsSha256)
{
    ExpectTwoComponentsSignedWith(7, 3, 32, MakeComponent("A", 4096, 20), MakeComponent("B", 4097, 21));
}

TEST_F(ArchiveBuildTest, HashIdentifierFourUsesSha512Throughout)
{
    ExpectTwoComponentsSignedWith(4, 4, 64, MakeComponent("A", 1000, 30), MakeComponent("B", 2000, 31));
}

TEST_F(ArchiveBuildTest, HashIdentifierFiveUsesSha384Throughout)
{
    ExpectTwoComponentsSignedWith(5, 5, 48, MakeComponent("A", 1000, 40), MakeComponent("B", 3000, 41));
}

// ---- names and files ---------------------------------------------------------

TEST_F(ArchiveBuildTest, FourteenCharacterNameIsStoredWithTwoZerosBehind)
{
    MakeKey();
    const std::string name = "abcdefghijklmn";
    ASSERT_EQ(name.size(), 14u);
    ASSERT_TRUE(Build("development", 3, {MakeComponent(name, 10, 50)}));
    ASSERT_EQ(built.CompBlockList.size(), 1u);
    const uint8_t* field = built.CompBlockList[0].bytes + 8;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(field), 14), name);
    EXPECT_EQ(field[14], 0);
    EXPECT_EQ(field[15], 0);
}

TEST_F(ArchiveBuildTest, FifteenCharacterNameIsExcessive)
{
    ASSERT_TRUE(OpenForBuilding("development", 3));
    EXPECT_FALSE(built.AddComponent("abcdefghijklmno", MakeComponent("file", 10, 51).path));
    ExpectRefusedAdding("Component name is excessive");
}

TEST_F(ArchiveBuildTest, MissingFileIsReportedAndAddsNoRecord)
{
    ASSERT_TRUE(OpenForBuilding("development", 3));
    EXPECT_FALSE(built.AddComponent("boot", dir.file("missing.bin")));
    ExpectRefusedAdding("Unable to read component file");
}

TEST_F(ArchiveBuildTest, FolderIsNotAComponentFile)
{
    ASSERT_TRUE(OpenForBuilding("development", 3));
    EXPECT_FALSE(built.AddComponent("boot", dir.path()));
    ExpectRefusedAdding("Unable to read component file");
}

TEST_F(ArchiveBuildTest, MissingFileWinsOverAnExcessiveName)
{
    ASSERT_TRUE(OpenForBuilding("development", 3));
    EXPECT_FALSE(built.AddComponent("a-name-far-too-long", dir.file("missing.bin")));
    ExpectRefusedAdding("Unable to read component file");
}

TEST_F(ArchiveBuildTest, RaisedFlagStopsAddingBeforeAnyCheck)
{
    ASSERT_TRUE(OpenForBuilding("development", 3));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(built.AddComponent("a-name-far-too-long", dir.file("missing.bin")));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(ADD_TEXT) +
                                                      "|libmarkforge/archive.cpp|Unable to continue from previous error"}));
}

TEST_F(ArchiveBuildTest, SigningFailureOfAComponentIsReportedOutward)
{
    registry.mfPluginKeynameGenerator = nullptr;
    ASSERT_TRUE(OpenForBuilding("development", 3));
    EXPECT_FALSE(built.AddComponent("boot", MakeComponent("boot", 10, 52).path));
    EXPECT_TRUE(built.CompBlockList.empty());
    const std::vector<std::string> lines = TrailLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "bool markforge::keyname::Open(const string&, bool)|libmarkforge/keyname.cpp|"
                        "Invalid function: markforgeRegistry->mfPluginKeynameGenerator ");
    EXPECT_EQ(lines[2], std::string(ADD_TEXT) + "|libmarkforge/archive.cpp|Boolean return value failed.");
}

TEST_F(ArchiveBuildTest, SignatureLongerThanTheRecordFieldIsRefused)
{
    StartPeer();
    peer.AnswerWith(Bytes(513, 0x77));
    ASSERT_TRUE(OpenForBuilding("production", 3));
    testing::internal::CaptureStdout();
    const bool added = built.AddComponent("boot", MakeComponent("boot", 10, 53).path);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(added);
    ExpectRefusedAdding("Component signature is longer than the 512 bytes of its record");
}

TEST_F(ArchiveBuildTest, SignatureOfExactly512BytesFits)
{
    StartPeer();
    peer.AnswerWith(Bytes(512, 0x66));
    ASSERT_TRUE(OpenForBuilding("production", 3));
    testing::internal::CaptureStdout();
    const bool added = built.AddComponent("boot", MakeComponent("boot", 10, 54).path);
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(added);
    EXPECT_EQ(ComponentSignature(0), Bytes(512, 0x66));
}

TEST_F(ArchiveBuildTest, EmptyComponentFileIsAComponentOfSizeZero)
{
    MakeKey();
    const Component empty = MakeComponent("empty", 0, 55);
    const Component after = MakeComponent("after", 10, 56);
    ASSERT_TRUE(Build("development", 3, {empty, after}));
    uint32_t offset = 99, size = 99;
    EXPECT_TRUE(built.GetSizeById(0, size));
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(built.GetOffsetById(1, offset));
    EXPECT_EQ(offset, 0u);
    ExpectVerifies(3, "", ComponentSignature(0));
}

TEST_F(ArchiveBuildTest, ArchiveWithoutComponentsIsSignedOverTheEmptyDigest)
{
    MakeKey();
    ASSERT_TRUE(Build("development", 3, {}));
    ExpectVerifies(3, "", ArchiveSignature());
}

TEST_F(ArchiveBuildTest, InitStopsOnARaisedFlag)
{
    ASSERT_TRUE(testsupport::OpenObject(built, [](archive& a) { return a.Open("k", "development", 3); }));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(built.InitAddComponentsFromCmdline());
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{"bool markforge::archive::InitAddComponentsFromCmdline()|"
                                                      "libmarkforge/archive.cpp|Unable to continue from previous error"}));
}

TEST_F(ArchiveBuildTest, InitOfAnUnopenedArchiveFails)
{
    EXPECT_FALSE(built.InitAddComponentsFromCmdline());
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{"bool markforge::archive::InitAddComponentsFromCmdline()|"
                                                      "libmarkforge/archive.cpp|Boolean return value failed."}));
}

TEST_F(ArchiveBuildTest, BuildingOpenStartsEmptyAtOffsetZero)
{
    MakeKey();
    ASSERT_TRUE(Build("development", 3, {MakeComponent("first", 100, 60)}));
    CloseArchive();
    ASSERT_FALSE(lbGlobal.errorFlag);
    ASSERT_TRUE(Build("development", 3, {MakeComponent("second", 40, 61)}));
    ASSERT_EQ(built.CompBlockList.size(), 1u);
    uint32_t offset = 99;
    EXPECT_TRUE(built.GetOffsetById(0, offset));
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(built.keyName, "release-key");
    EXPECT_EQ(built.mode, "development");
}

// ---- header block ------------------------------------------------------------

TEST_F(ArchiveBuildTest, HeaderWrittenFromTheArchiveIsFoundAndLoadedAgain)
{
    MakeKey();
    const std::vector<Component> parts = BootKernelAndRootfs();
    ASSERT_TRUE(Build("development", 3, parts));
    const std::string path = dir.file("container.hdr");
    WriteHeader(path);
    ASSERT_FALSE(lbGlobal.errorFlag);

    // The block as written, read with literal offsets.
    const Bytes block = testsupport::ReadBytes(path);
    ASSERT_NO_FATAL_FAILURE(testblocks::ExpectBlockFrame(block));
    ASSERT_EQ(markforge::load_be32(&block[8]), 256u);
    EXPECT_EQ(Bytes(block.begin() + 12, block.begin() + 12 + 256), ArchiveSignature());
    ASSERT_EQ(markforge::load_be32(&block[12 + 256]), 3u * 540u);
    const size_t table = 16 + 256;
    const uint32_t offsets[] = {0, 100, 300};
    for (size_t i = 0; i < 3; ++i) {
        const RecordView r = ReadRecord(block, table + i * 540);
        EXPECT_EQ(r.size, parts[i].bytes.size());
        EXPECT_EQ(r.offset, offsets[i]);
        EXPECT_EQ(r.name, NameField(parts[i].name));
        EXPECT_EQ(r.signatureLength, 256u);
        ExpectVerifies(3, parts[i].bytes, r.signature);
    }
    EXPECT_EQ(markforge::load_be32(&block[table + 3 * 540]), 32u);

    // Loaded again through the reader.
    Opened<header> in;
    ASSERT_TRUE(in.opened);
    std::ifstream stream;
    ASSERT_TRUE(in->CreateFromFilePath(path, stream, 3));
    EXPECT_EQ(in->HeaderOffset(), 0u);
    EXPECT_EQ(in->SignatureSize(), 256u);
    EXPECT_EQ(in->ArchiveSize(), 3u * 540u);
    EXPECT_EQ(in->DigestLength(), 32u);
    lbBytes signature;
    EXPECT_TRUE(in->GetHeaderSignature(signature));
    EXPECT_EQ(signature.buffer, ArchiveSignature());
    ExpectVerifies(3, parts[0].bytes + parts[1].bytes + parts[2].bytes, signature.buffer);
    for (uint8_t i = 0; i < 3; ++i) {
        uint32_t offset = 99;
        lbBytes componentSignature;
        EXPECT_TRUE(in->GetOffsetById(i, offset));
        EXPECT_EQ(offset, offsets[i]);
        EXPECT_TRUE(in->GetSignatureById(i, componentSignature));
        EXPECT_EQ(componentSignature.buffer, ComponentSignature(i));
    }
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(ArchiveBuildTest, HeaderOfAOneComponentArchiveCarriesItsSignatureTwice)
{
    MakeKey();
    const Component only = MakeComponent("only", 1500, 70);
    ASSERT_TRUE(Build("development", 3, {only}));
    const std::string path = dir.file("one.hdr");
    WriteHeader(path);
    const Bytes block = testsupport::ReadBytes(path);
    ASSERT_EQ(block.size(), 4096u);
    const Bytes headerSignature(block.begin() + 12, block.begin() + 12 + 256);
    const RecordView r = ReadRecord(block, 16 + 256);
    EXPECT_EQ(headerSignature, r.signature);
    ExpectVerifies(3, only.bytes, headerSignature);
}

TEST_F(ArchiveBuildTest, HeaderOfTwoComponentsIsFoundInsideALargerFile)
{
    MakeKey();
    const Component a = MakeComponent("A", 100, 80);
    const Component b = MakeComponent("B", 200, 81);
    ASSERT_TRUE(Build("development", 4, {a, b}));
    const std::string blockPath = dir.file("two.hdr");
    WriteHeader(blockPath);
    const std::string image = PseudoRandom(1000, 82) + testsupport::ReadFile(blockPath) + a.bytes + b.bytes;
    const std::string imagePath = dir.file("image.bin");
    testsupport::WriteFile(imagePath, image);

    Opened<header> in;
    ASSERT_TRUE(in.opened);
    std::ifstream stream;
    ASSERT_TRUE(in->CreateFromFilePath(imagePath, stream, 4));
    EXPECT_EQ(in->HeaderOffset(), 1000u);
    EXPECT_EQ(in->DigestLength(), 64u);
    lbBytes signature;
    in->GetHeaderSignature(signature);
    ExpectVerifies(4, a.bytes + b.bytes, signature.buffer);
}
