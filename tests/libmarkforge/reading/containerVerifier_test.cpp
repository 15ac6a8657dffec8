// markforge::containerReader and containerVerifier on containers laid out
// field by field and signed by the openssl tool, an independent signer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "containerBlock.h"
#include "containerReader.h"
#include "containerVerifier.h"
#include "digestStream.h"
#include "tableOfContents.h"
#include "testKeys.h"
#include "testSupport.h"

namespace {

using markforge::containerReader;
using markforge::containerVerifier;
using markforge::verdict;
using markforge::verifyResult;
using testblocks::Block;
using testblocks::Bytes;
using testblocks::Record;
using testsupport::TempDir;

class ContainerVerifier : public testsupport::FrameworkTest {
protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(_dir.path(), "signer", 2048, _rsa, error)) << error;
        std::string reason;
        ASSERT_TRUE(_key.Load(_rsa.publicPem, reason)) << reason;
    }

    // openssl's PKCS#1 v1.5 signature over the upper-case hex SHA-256 digest
    // of `content`: what a markforge signature signs.
    Bytes Sign(const Bytes& content)
    {
        std::string hex =
            testsupport::OpensslDigestHex(_dir.path(), "sha256", std::string(content.begin(), content.end()));
        for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        const testsupport::ProcessResult r =
            testsupport::Openssl({"dgst", "-sha256", "-sign", _rsa.privatePem}, &hex);
        return Bytes(r.out.begin(), r.out.end());
    }

    // A container of `parts` back to back after a block at `prefix` bytes.
    std::string Container(const std::vector<Bytes>& parts, size_t prefix = 0)
    {
        Block block;
        Bytes payload;
        for (size_t i = 0; i < parts.size(); ++i) {
            Record record;
            record.size = uint32_t(parts[i].size());
            record.offset = uint32_t(payload.size());
            record.name = "part" + std::to_string(i);
            record.signature = Sign(parts[i]);
            block.records.push_back(record);
            payload.insert(payload.end(), parts[i].begin(), parts[i].end());
        }
        block.signature = parts.size() == 1 ? block.records[0].signature : Sign(payload);
        Bytes file(prefix, 0);
        const Bytes header = testblocks::BlockBytes(block);
        file.insert(file.end(), header.begin(), header.end());
        file.insert(file.end(), payload.begin(), payload.end());
        const std::string path = _dir.file("container-" + std::to_string(++_made));
        testsupport::WriteBytes(path, file);
        return path;
    }

    verifyResult Verified(const std::string& path)
    {
        std::string reason, library;
        EXPECT_EQ(_reader.Open(path, reason, library), containerReader::failure::none) << reason << library;
        verifyResult result;
        EXPECT_TRUE(containerVerifier(_reader.Contents(), _reader.File(), _key).Run(result, reason)) << reason;
        return result;
    }

    TempDir _dir;
    testsupport::TestRsaKey _rsa;
    markforge::publicKey _key;
    containerReader _reader;
    int _made = 0;
};

const Bytes FIRST = testblocks::Pattern(3000, 1);
const Bytes SECOND = testblocks::Pattern(5000, 2);

TEST_F(ContainerVerifier, IntactContainerIsOkThroughout)
{
    const verifyResult result = Verified(Container({FIRST, SECOND}));
    EXPECT_EQ(result.components, (std::vector<verdict>{verdict::ok, verdict::ok}));
    EXPECT_EQ(result.archive, verdict::ok);
    EXPECT_EQ(result.Problems(), 0u);
}

TEST_F(ContainerVerifier, BlockAfterAPrefixPutsThePayloadRightAfterIt)
{
    const verifyResult result = Verified(Container({FIRST, SECOND}, 10000));
    EXPECT_EQ(_reader.Contents().headerOffset, 10000u);
    EXPECT_EQ(_reader.Contents().payloadOffset, 14096u);
    EXPECT_EQ(_reader.Contents().payloadLength, FIRST.size() + SECOND.size());
    EXPECT_EQ(result.Problems(), 0u);
}

TEST_F(ContainerVerifier, JudgeTellsOtherContentFromAForeignSignature)
{
    Verified(Container({FIRST}));
    const containerVerifier verifier(_reader.Contents(), _reader.File(), _key);
    const Bytes signature = Sign(FIRST);
    const std::vector<uint8_t> firstDigest = markforge::digestStream::Of(3, FIRST.data(), FIRST.size());
    const std::vector<uint8_t> secondDigest = markforge::digestStream::Of(3, SECOND.data(), SECOND.size());
    EXPECT_EQ(verifier.Judge(signature, firstDigest), verdict::ok);
    EXPECT_EQ(verifier.Judge(signature, secondDigest), verdict::digestMismatch);
    Bytes changed = signature;
    changed[40] ^= 1;
    EXPECT_EQ(verifier.Judge(changed, firstDigest), verdict::badSignature);
    EXPECT_EQ(verifier.Judge({}, firstDigest), verdict::badSignature);
    EXPECT_EQ(verifier.Judge(Bytes(signature.begin(), signature.end() - 1), firstDigest), verdict::badSignature);
}

TEST_F(ContainerVerifier, ComponentPastTheEndLeavesTheArchiveOutsideToo)
{
    const std::string path = Container({FIRST, SECOND});
    Bytes bytes = testsupport::ReadBytes(path);
    bytes.resize(bytes.size() - 1);
    testsupport::WriteBytes(path, bytes);
    const verifyResult result = Verified(path);
    EXPECT_EQ(result.components, (std::vector<verdict>{verdict::ok, verdict::outsideFile}));
    EXPECT_TRUE(result.componentDigests[1].empty());
    EXPECT_EQ(result.archive, verdict::outsideFile);
    EXPECT_TRUE(result.archiveDigest.empty());
    EXPECT_EQ(result.Problems(), 2u);
}

TEST_F(ContainerVerifier, AFileCutShortWhileItIsReadIsAReadFailure)
{
    // The reader took the size when it opened the file; the file shrinks
    // before the components are read.
    const std::string path = Container({FIRST, SECOND});
    std::string reason, library;
    ASSERT_EQ(_reader.Open(path, reason, library), containerReader::failure::none);
    ASSERT_EQ(truncate(path.c_str(), 4096 + 1000), 0);
    verifyResult result;
    EXPECT_FALSE(containerVerifier(_reader.Contents(), _reader.File(), _key).Run(result, reason));
    EXPECT_EQ(reason, "cannot read " + path + ": the file became shorter");
}

TEST_F(ContainerVerifier, ATableIsKeptAndHeldAgainstTheDigests)
{
    // A table listing FIRST under another name: found, read during the one
    // pass, and its difference named.
    std::vector<markforge::tableEntry> entries{
        {0, "other", 0, uint32_t(FIRST.size()), markforge::digestStream::Of(3, FIRST.data(), FIRST.size())}};
    const std::vector<uint8_t> table = markforge::tableOfContents::Encode(entries);
    const std::string path = Container({FIRST, table});
    Bytes bytes = testsupport::ReadBytes(path);
    const char* name = markforge::tableOfContents::COMPONENT_NAME;
    const size_t nameAt = 16 + 256 + 540 + 8;  // record 1's name field
    std::copy(name, name + std::strlen(name), bytes.begin() + nameAt);
    testsupport::WriteBytes(path, bytes);
    const verifyResult result = Verified(path);
    EXPECT_TRUE(result.table.present);
    EXPECT_EQ(result.table.record, 1u);
    EXPECT_EQ(result.table.findings, std::vector<std::string>{"entry 0: name 'other', but component 0 is named 'part0'"});
    EXPECT_FALSE(result.NamesSigned());
    EXPECT_EQ(result.Problems(), 1u);
}

TEST_F(ContainerVerifier, ARequiredTableThatIsAbsentIsOneProblem)
{
    std::string reason, library;
    ASSERT_EQ(_reader.Open(Container({FIRST}), reason, library), containerReader::failure::none);
    verifyResult result;
    markforge::verifyPolicy policy;
    policy.requireTable = true;
    ASSERT_TRUE(containerVerifier(_reader.Contents(), _reader.File(), _key, policy).Run(result, reason));
    EXPECT_FALSE(result.table.present);
    EXPECT_EQ(result.Problems(), 1u);
    ASSERT_TRUE(containerVerifier(_reader.Contents(), _reader.File(), _key).Run(result, reason));
    EXPECT_EQ(result.Problems(), 0u);
}

TEST_F(ContainerVerifier, EmptyTableTakesTheDigestLengthFromTheBlock)
{
    Block block;
    block.digestLength = 48;
    testsupport::WriteBytes(_dir.file("empty"), testblocks::BlockBytes(block));
    std::string reason, library;
    ASSERT_EQ(_reader.Open(_dir.file("empty"), reason, library), containerReader::failure::none);
    EXPECT_EQ(_reader.Contents().digestLength, 48u);
    EXPECT_EQ(_reader.Contents().hashId, 5u);
}

TEST_F(ContainerVerifier, NoContainerGivesTheLibrarysText)
{
    testsupport::WriteBytes(_dir.file("plain"), Bytes(100, 'x'));
    std::string reason, library;
    EXPECT_EQ(_reader.Open(_dir.file("plain"), reason, library), containerReader::failure::notContainer);
    EXPECT_EQ(reason, _dir.file("plain") + " is not a markforge container");
    EXPECT_EQ(library, "Unknown file format -- canary1 failed. \n");
}

}  // namespace
