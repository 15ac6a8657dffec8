// What an attacker with one signed container, a byte editor and no key can
// make of it, through the built markforge: every such container fails
// `verify` with its own verdict (or, where the format cannot tell, says that
// names and order are unsigned and fails --require-table). The containers
// come from an independent writer (containerWriter.h), never from build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "containerWriter.h"
#include "testKeys.h"
#include "readingFixture.h"

namespace {

using namespace readingtest;
using testsupport::ContainerWriter;
using testsupport::Parts;
using testsupport::RunMarkforge;
using testsupport::WrittenContainer;

std::string LowerHex(const Bytes& bytes)
{
    static const char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (uint8_t b : bytes) text += {DIGITS[b >> 4], DIGITS[b & 15]};
    return text;
}

class ForgedContainer : public ::testing::Test {
protected:
    static ContainerWriter& Writer()
    {
        static ContainerWriter writer;
        return writer;
    }

    void SetUp() override { key = Writer().WritePublicKey(dir.file("key.pem")); }

    std::string Write(const WrittenContainer& container, const std::string& name = "forged.img")
    {
        container.Write(dir.file(name));
        return dir.file(name);
    }

    ProcessResult VerifyRun(const std::string& path, std::vector<std::string> extra = {}, bool json = true)
    {
        std::vector<std::string> args{"verify", path, "--key", key};
        if (json) args.push_back("--json");
        args.insert(args.end(), extra.begin(), extra.end());
        return RunMarkforge(args);
    }

    // Runs verify --json expecting `status`; the document, its schema checked.
    Json Verified(const std::string& path, int status, std::vector<std::string> extra = {})
    {
        const ProcessResult r = VerifyRun(path, extra);
        EXPECT_EQ(r.status, status) << r.err;
        const Json document = Parse(r);
        CheckVerifySchema(document);
        return document;
    }

    // Every signature verdict in the document.
    static std::vector<std::string> Signatures(const Json& document) { return Verdicts(document); }

    static void ExpectFinding(const Json& document, const std::string& kind, uint64_t start, uint64_t end,
                              std::vector<uint32_t> components)
    {
        for (const Json& finding : document["layout"])
            if (finding["kind"] == kind && finding["start"] == start && finding["end"] == end &&
                finding["components"] == Json(components))
                return;
        ADD_FAILURE() << "no " << kind << " finding [" << start << ", " << end << ") in " << document["layout"].dump();
    }

    static Parts TwoParts() { return {{"kernel", Content(1500, 1)}, {"rootfs", Content(2600, 2)}}; }

    TempDir dir;
    std::string key;
};

TEST_F(ForgedContainer, TheUntouchedContainerVerifies)
{
    const Json document = Verified(Write(Writer().Container(TwoParts())), 0);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    EXPECT_TRUE(document["layout"].empty());
    EXPECT_EQ(document["problems"], 0);
    EXPECT_EQ(document["names_signed"], false);
}

TEST_F(ForgedContainer, BytesAfterTheLastComponent)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    const Bytes signedPayload = forged.payload;
    const Bytes extra = Content(77, 9);
    forged.payload.insert(forged.payload.end(), extra.begin(), extra.end());
    const std::string path = Write(forged);

    const Json document = Verified(path, 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));  // the signatures alone cannot tell
    ASSERT_EQ(document["layout"].size(), 1u);
    ExpectFinding(document, "trailing-bytes", 4100, 4177, {1});
    EXPECT_EQ(document["problems"], 1);

    const ProcessResult text = VerifyRun(path, {}, false);
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("layout: trailing-bytes: payload bytes 4100 to 4176 (77 bytes) after the last "
                            "component are covered by no record\n"),
              std::string::npos)
        << text.out;
    EXPECT_EQ(text.err, "markforge: " + path + ": 1 layout problem\n");

    // The openssl-only check of docs/examples finds it too.
    const ProcessResult script = testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, path, key});
    EXPECT_EQ(script.status, 1);
    EXPECT_EQ(script.out, "component kernel: ok\ncomponent rootfs: ok\n"
                          "layout: the payload is 4177 bytes, the records cover 4100: FAILED\narchive: FAILED\n");

    // extract --payload hands out only what the records cover.
    const ProcessResult extracted = RunMarkforge({"extract", path, "--payload", "-o", dir.file("payload")});
    ASSERT_EQ(extracted.status, 0) << extracted.err;
    EXPECT_EQ(testsupport::ReadBytes(dir.file("payload")), signedPayload);
}

TEST_F(ForgedContainer, AGapBetweenTwoComponents)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    const Bytes gap = Content(40, 3);
    forged.payload.insert(forged.payload.begin() + 1500, gap.begin(), gap.end());
    forged.block.records[1].offset += 40;
    const std::string path = Write(forged);

    const Json document = Verified(path, 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    ASSERT_EQ(document["layout"].size(), 1u);
    ExpectFinding(document, "gap", 1500, 1540, {0, 1});
    const ProcessResult script = testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, path, key});
    EXPECT_EQ(script.status, 1);
    EXPECT_NE(script.out.find("layout: component rootfs at payload offset 1540, not 1500: FAILED\n"),
              std::string::npos)
        << script.out;
    EXPECT_EQ(RunMarkforge({"extract", path, "--payload", "-o", dir.file("payload")}).status, 3);
    EXPECT_FALSE(testsupport::FileExists(dir.file("payload")));
}

TEST_F(ForgedContainer, BytesBeforeTheFirstComponent)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    const Bytes lead = Content(9, 4);
    forged.payload.insert(forged.payload.begin(), lead.begin(), lead.end());
    for (auto& record : forged.block.records) record.offset += 9;
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    ASSERT_EQ(document["layout"].size(), 1u);
    ExpectFinding(document, "gap", 0, 9, {0});
}

TEST_F(ForgedContainer, ComponentsInAnotherOrderThanTheirRecords)
{
    // The bytes of rootfs first, then kernel's; the records keep their order,
    // so every signature, the archive's too, still holds.
    const Parts parts = TwoParts();
    WrittenContainer forged = Writer().Container(parts);
    forged.payload = parts[1].second;
    forged.payload.insert(forged.payload.end(), parts[0].second.begin(), parts[0].second.end());
    forged.block.records[0].offset = 2600;
    forged.block.records[1].offset = 0;
    const std::string path = Write(forged);

    const Json document = Verified(path, 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    ExpectFinding(document, "gap", 0, 2600, {0});
    ExpectFinding(document, "out-of-order", 0, 2600, {0, 1});
    const ProcessResult text = VerifyRun(path, {}, false);
    EXPECT_NE(text.out.find("layout: out-of-order: component 1 'rootfs' (payload bytes 0 to 2599 (2600 bytes)) lies "
                            "before component 0 'kernel', against the order of the records\n"),
              std::string::npos)
        << text.out;
}

TEST_F(ForgedContainer, ComponentsThatOverlap)
{
    // kernel ends with the three bytes rootfs starts with, so rootfs can
    // start three bytes early with every signature intact.
    Parts parts = TwoParts();
    std::copy(parts[1].second.begin(), parts[1].second.begin() + 3, parts[0].second.end() - 3);
    WrittenContainer forged = Writer().Container(parts);
    forged.payload.erase(forged.payload.begin() + 1500, forged.payload.begin() + 1503);
    forged.block.records[1].offset = 1497;
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    ASSERT_EQ(document["layout"].size(), 1u);
    ExpectFinding(document, "overlap", 1497, 1500, {0, 1});
}

TEST_F(ForgedContainer, ADuplicatedName)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    forged.block.records[1].name = "kernel";
    const std::string path = Write(forged);
    const Json document = Verified(path, 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 3));
    ASSERT_EQ(document["layout"].size(), 1u);
    EXPECT_EQ(document["layout"][0]["kind"], "duplicate-name");
    EXPECT_EQ(document["layout"][0]["components"], Json({0, 1}));

    const ProcessResult extracted = RunMarkforge({"extract", path, "--component", "kernel", "-o", dir.file("k")});
    EXPECT_EQ(extracted.status, 3);
    EXPECT_EQ(extracted.err, "markforge: " + path + " has more than one component named 'kernel'; it is not the "
                                                    "container that was built\n");
    EXPECT_FALSE(testsupport::FileExists(dir.file("k")));
}

TEST_F(ForgedContainer, AnEmbeddedContainerSaysWhatLiesBeforeIt)
{
    WrittenContainer embedded = Writer().Container(TwoParts());
    embedded.prefix = Bytes(1000, 0x42);
    const std::string path = Write(embedded);
    const Json document = Verified(path, 0);
    EXPECT_EQ(document["bytes_before_header"], 1000);
    const std::string note =
        "note: the 1000 bytes before the header block are not part of the container; no signature covers them\n";
    EXPECT_NE(VerifyRun(path, {}, false).out.find(note), std::string::npos);
    const ProcessResult info = RunMarkforge({"info", path});
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.out.find(note), std::string::npos) << info.out;
    EXPECT_EQ(Parse(RunMarkforge({"info", path, "--json"}))["bytes_before_header"], 1000);

    // Bytes after its last component are refused there too.
    embedded.payload.push_back(0);
    const Json trailing = Verified(Write(embedded), 1);
    ExpectFinding(trailing, "trailing-bytes", 4100, 4101, {1});
}

TEST_F(ForgedContainer, TheEmptyContentSignatureWithAPayload)
{
    // No components: the archive signs the digest of nothing; any payload
    // put behind such a block is covered by no record.
    WrittenContainer forged = Writer().Container({});
    forged.payload = Content(500, 5);
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 1));
    ExpectFinding(document, "trailing-bytes", 0, 500, {});
}

TEST_F(ForgedContainer, SwappedNamesWithoutATableAreSaidToBeUnsigned)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    std::swap(forged.block.records[0].name, forged.block.records[1].name);
    const std::string path = Write(forged);

    // The format signs no name: verify cannot fail it, but says so.
    const Json document = Verified(path, 0);
    EXPECT_EQ(document["table"]["state"], "absent");
    EXPECT_EQ(document["names_signed"], false);
    EXPECT_NE(VerifyRun(path, {}, false)
                  .out.find("table: absent: the names and order of this container's components are not signed\n"),
              std::string::npos);

    const Json required = Verified(path, 1, {"--require-table"});
    EXPECT_EQ(required["table"]["required"], true);
    EXPECT_EQ(required["problems"], 1);
    const ProcessResult text = VerifyRun(path, {"--require-table"}, false);
    EXPECT_NE(text.out.find("table: absent: the names and order of this container's components are not signed "
                            "(--require-table)\n"),
              std::string::npos)
        << text.out;
    EXPECT_EQ(text.err, "markforge: " + path + ": 1 table problem\n");
}

TEST_F(ForgedContainer, ATableVouchesForNamesAndOrder)
{
    const std::string path = Write(Writer().ContainerWithTable(TwoParts()));
    const Json document = Verified(path, 0, {"--require-table"});
    EXPECT_EQ(Signatures(document), Repeat("ok", 4));
    EXPECT_EQ(document["table"]["state"], "ok");
    EXPECT_EQ(document["table"]["component"], 2);
    EXPECT_EQ(document["names_signed"], true);
    ASSERT_EQ(document["table"]["entries"].size(), 2u);
    EXPECT_EQ(document["table"]["entries"][1]["name"], "rootfs");
    EXPECT_EQ(document["table"]["entries"][1]["offset"], 1500);
    EXPECT_EQ(document["table"]["entries"][1]["digest"], LowerHex(Writer().Digest(TwoParts()[1].second)));

    const ProcessResult info = RunMarkforge({"info", path});
    EXPECT_NE(info.out.find("table: ok: component 2 '.markforge-toc' lists the name, place, size and digest of 2 "
                            "components\n"),
              std::string::npos)
        << info.out;
    EXPECT_NE(info.out.find("  listed 1 rootfs: offset 1500, size 2600, SHA-256 "), std::string::npos) << info.out;
}

TEST_F(ForgedContainer, SwappedNamesUnderATable)
{
    WrittenContainer forged = Writer().ContainerWithTable(TwoParts());
    std::swap(forged.block.records[0].name, forged.block.records[1].name);
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 4));
    EXPECT_EQ(document["table"]["state"], "mismatch");
    EXPECT_EQ(document["table"]["findings"],
              Json({"entry 0: name 'kernel', but component 0 is named 'rootfs'",
                    "entry 1: name 'rootfs', but component 1 is named 'kernel'"}));
    EXPECT_EQ(document["names_signed"], false);
    EXPECT_EQ(document["problems"], 2);
}

TEST_F(ForgedContainer, OneComponentPresentedAlone)
{
    // kernel's record and bytes alone: the one-component rule makes its
    // signature the archive's.
    const WrittenContainer original = Writer().ContainerWithTable(TwoParts());
    WrittenContainer alone;
    alone.block.digestLength = original.block.digestLength;
    alone.block.records = {original.block.records[0]};
    alone.block.signature = original.block.records[0].signature;
    alone.payload.assign(original.payload.begin(), original.payload.begin() + 1500);
    const std::string path = Write(alone);
    EXPECT_EQ(Verified(path, 0)["names_signed"], false);
    const Json required = Verified(path, 1, {"--require-table"});
    EXPECT_EQ(required["table"]["state"], "absent");
}

TEST_F(ForgedContainer, TheArchiveBytesAsOneComponent)
{
    const WrittenContainer original = Writer().ContainerWithTable(TwoParts());
    WrittenContainer whole;
    whole.block.digestLength = original.block.digestLength;
    testblocks::Record record;
    record.name = "kernel";
    record.size = uint32_t(original.payload.size());
    record.signature = original.block.signature;
    whole.block.records = {record};
    whole.block.signature = original.block.signature;
    whole.payload = original.payload;
    const std::string path = Write(whole);
    EXPECT_EQ(Signatures(Verified(path, 0)), Repeat("ok", 2));
    EXPECT_EQ(Verified(path, 1, {"--require-table"})["table"]["state"], "absent");
}

TEST_F(ForgedContainer, TheTableRenamedAway)
{
    WrittenContainer forged = Writer().ContainerWithTable(TwoParts());
    forged.block.records[2].name = "toc";
    const std::string path = Write(forged);
    EXPECT_EQ(Verified(path, 0)["names_signed"], false);
    EXPECT_EQ(Verified(path, 1, {"--require-table"})["table"]["state"], "absent");
}

TEST_F(ForgedContainer, AComponentPassedOffAsTheTable)
{
    WrittenContainer forged = Writer().Container(TwoParts());
    forged.block.records[1].name = testsupport::TABLE_NAME;
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(document["table"]["state"], "malformed");
    EXPECT_EQ(document["table"]["findings"], Json({"it does not start with the table label"}));
}

TEST_F(ForgedContainer, TheTableMovedBeforeAnotherComponent)
{
    // Records and bytes reordered together: every component signature holds,
    // the layout tiles, but the table is no longer last.
    const Parts parts = TwoParts();
    const WrittenContainer original = Writer().ContainerWithTable(parts);
    WrittenContainer forged = original;
    const Bytes table = Writer().Table(parts);
    forged.block.records = {original.block.records[0], original.block.records[2], original.block.records[1]};
    forged.block.records[1].offset = 1500;
    forged.block.records[2].offset = uint32_t(1500 + table.size());
    forged.payload = parts[0].second;
    forged.payload.insert(forged.payload.end(), table.begin(), table.end());
    forged.payload.insert(forged.payload.end(), parts[1].second.begin(), parts[1].second.end());
    const Json document = Verified(Write(forged), 1);
    EXPECT_EQ(document["components"][1]["verdict"], "ok");
    EXPECT_EQ(document["archive"]["verdict"], "digest-mismatch");
    EXPECT_EQ(document["table"]["state"], "mismatch");
    EXPECT_EQ(document["table"]["findings"][0], "the table is component 1, not the last of 3");
}

TEST_F(ForgedContainer, ASignedTableThatListsOtherDigests)
{
    // A table the key did sign, over other content: it must not vouch for
    // the bytes that are there.
    Parts parts = TwoParts();
    Parts other = parts;
    other[1].second[0] ^= 1;
    parts.push_back({testsupport::TABLE_NAME, Writer().Table(other)});
    const Json document = Verified(Write(Writer().Container(parts)), 1);
    EXPECT_EQ(Signatures(document), Repeat("ok", 4));
    EXPECT_EQ(document["table"]["findings"],
              Json({"entry 1: its digest is not the digest of component 1's bytes"}));
}

TEST_F(ForgedContainer, ASignedTableWithBytesBehindItIsMalformed)
{
    Parts parts = TwoParts();
    Bytes table = Writer().Table(parts);
    table.push_back(0);
    parts.push_back({testsupport::TABLE_NAME, table});
    const Json document = Verified(Write(Writer().Container(parts)), 1);
    EXPECT_EQ(document["table"]["state"], "malformed");
    EXPECT_EQ(document["table"]["findings"], Json({"1 bytes follow the last entry"}));
}

TEST_F(ForgedContainer, ASignatureWithoutItsLeadingZeroByte)
{
    // Content whose signature starts with a zero byte; the same number
    // written in 255 bytes is what some encoders produce.
    Bytes content;
    Bytes signature;
    for (uint32_t seed = 1; seed < 20000 && (signature.empty() || signature[0] != 0); ++seed) {
        content = Content(300, seed);
        signature = Writer().Sign(content);
    }
    ASSERT_EQ(signature[0], 0);
    WrittenContainer forged = Writer().Container({{"app", content}});
    ASSERT_EQ(Signatures(Verified(Write(forged, "whole.img"), 0)), Repeat("ok", 2));

    const Bytes shortened(signature.begin() + 1, signature.end());
    forged.block.records[0].signature = shortened;
    forged.block.signature = shortened;
    const std::string path = Write(forged);
    EXPECT_EQ(Signatures(Verified(path, 1)), Repeat("bad-signature", 2));

    // openssl refuses it too, and no key of a keyring is named for it.
    testsupport::WriteBytes(dir.file("short.sig"), shortened);
    std::string hex = testsupport::OpensslDigestHex(dir.path(), "sha256", std::string(content.begin(), content.end()));
    for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    testsupport::WriteFile(dir.file("text"), hex);
    EXPECT_NE(testsupport::Run({"openssl", "dgst", "-sha256", "-verify", key, "-signature", dir.file("short.sig"),
                                dir.file("text")})
                  .status,
              0);
    const std::string keys = dir.file("keys");
    testsupport::Run({"mkdir", keys});
    Writer().WritePublicKey(keys + "/writer.pem");
    const Json info = Parse(RunMarkforge({"info", path, "--json", "--keyring", keys}));
    EXPECT_TRUE(info["components"][0]["signer"].is_null());
    EXPECT_TRUE(info["header"]["signer"].is_null());
}

}  // namespace
