// `markforge build` end to end in development mode: containers of 0 to 3
// components with each hash, checked byte for byte and with openssl alone.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "containerFixture.h"
#include "containerWriter.h"

namespace {

using testsupport::ContainerHeader;
using testsupport::ContainerTest;
using testsupport::ParseContainer;
using testsupport::ProcessResult;
using testsupport::ReadFile;

struct Shape {
    const char* hash;
    uint32_t digestLength;
    size_t components;
};

// Short test names in ctest's listing.
void PrintTo(const Shape& shape, std::ostream* out)
{
    *out << shape.hash << " with " << shape.components << " components";
}

class BuildShapes : public ContainerTest, public ::testing::WithParamInterface<Shape> {};

TEST_P(BuildShapes, BuildsAContainerThatOpensslVerifies)
{
    const Shape shape = GetParam();
    const std::vector<size_t> sizes = {100, 5000, 0, 4096};
    const std::vector<std::string> names = {"kernel", "rootfs.ext4", "empty", "dtb"};
    std::vector<std::string> words;
    std::string payload;
    for (size_t i = 0; i < shape.components; ++i) {
        const std::string path = MakeComponent(names[i] + ".bin", sizes[i], static_cast<unsigned>(i + 1));
        words.push_back(names[i] + "=" + path);
        payload += ReadFile(path);
    }
    const std::string out = dir.file("out.img");
    std::vector<std::string> extra{"--hash", shape.hash};
    if (shape.components == 0) extra.push_back("--allow-empty");
    const ProcessResult built = BuildDevelopment(out, words, extra);
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_EQ(built.err, "");

    const std::string bytes = ReadFile(out);
    ASSERT_EQ(bytes.size(), 4096 + payload.size());
    EXPECT_EQ(bytes.substr(4096), payload);
    const ContainerHeader header = ParseContainer(bytes);
    ASSERT_TRUE(header.valid);
    EXPECT_EQ(header.version, 4u);
    EXPECT_EQ(header.digestLength, shape.digestLength);
    EXPECT_EQ(header.signature.size(), 256u);
    ASSERT_EQ(header.records.size(), shape.components);

    std::string report;
    uint32_t offset = 0;
    std::string detail;
    for (size_t i = 0; i < shape.components; ++i) {
        const auto& record = header.records[i];
        EXPECT_EQ(record.name, names[i]);
        EXPECT_EQ(record.offset, offset);
        EXPECT_EQ(record.size, sizes[i]);
        EXPECT_TRUE(OpensslVerifiesContent(publicPem(), shape.hash, payload.substr(offset, record.size),
                                           record.signature, detail))
            << names[i] << ": " << detail;
        report += "component " + names[i] + " offset " + std::to_string(offset) + " size " +
                  std::to_string(sizes[i]) + " signature 256\n";
        offset += record.size;
    }
    EXPECT_EQ(built.out, report + "wrote " + out + "\n");

    // The archive: one component lends its own signature; otherwise the
    // signature covers every component's bytes in order.
    if (shape.components == 1) {
        EXPECT_EQ(header.signature, header.records[0].signature);
    }
    EXPECT_TRUE(OpensslVerifiesContent(publicPem(), shape.hash, payload, header.signature, detail)) << detail;

    // The documented check, openssl alone, agrees.
    const ProcessResult checked = testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, out, publicPem()});
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
    std::string lines;
    for (size_t i = 0; i < shape.components; ++i) lines += "component " + names[i] + ": ok\n";
    EXPECT_EQ(checked.out, lines + "archive: ok\n");
}

TEST_F(ContainerTest, TheDocumentedOpensslCheckFindsAChangedByte)
{
    const std::string out = dir.file("out.img");
    ASSERT_EQ(BuildDevelopment(out, {"a=" + MakeComponent("a.bin", 50, 1), "b=" + MakeComponent("b.bin", 50, 2)}).status,
              0);
    std::string bytes = ReadFile(out);
    bytes[4096 + 60] ^= 1;
    testsupport::WriteFile(out, bytes);
    const ProcessResult checked = testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, out, publicPem()});
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.out, "component a: ok\ncomponent b: FAILED\narchive: FAILED\n");
}

INSTANTIATE_TEST_SUITE_P(EveryHashAndCount, BuildShapes,
                         ::testing::Values(Shape{"sha256", 32, 0}, Shape{"sha256", 32, 1}, Shape{"sha256", 32, 2},
                                           Shape{"sha256", 32, 3}, Shape{"sha384", 48, 0}, Shape{"sha384", 48, 1},
                                           Shape{"sha384", 48, 2}, Shape{"sha384", 48, 3}, Shape{"sha512", 64, 0},
                                           Shape{"sha512", 64, 1}, Shape{"sha512", 64, 2}, Shape{"sha512", 64, 3}),
                         [](const ::testing::TestParamInfo<Shape>& info) {
                             return std::string(info.param.hash) + "_" + std::to_string(info.param.components);
                         });

class BuildTest : public ContainerTest {};

TEST_F(BuildTest, DefaultHashIsSha256)
{
    const std::string out = dir.file("out.img");
    const ProcessResult built = BuildDevelopment(out, {"a=" + MakeComponent("a.bin", 10, 1)});
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_EQ(ParseContainer(ReadFile(out)).digestLength, 32u);
}

TEST_F(BuildTest, RecasterTakesTheArchiveSignatureOutOfTheHeaderBlock)
{
    const std::string out = dir.file("out.img");
    ASSERT_EQ(BuildDevelopment(out, {"a=" + MakeComponent("a.bin", 300, 1), "b=" + MakeComponent("b.bin", 7, 2)})
                  .status,
              0);
    const std::string raw = dir.file("archive.sig");
    const ProcessResult converted =
        testsupport::RunRecaster({"--convertsig", "-i", out, "-o", raw, "-I", "markforge", "-O", "raw"});
    ASSERT_EQ(converted.status, 0) << converted.err;
    EXPECT_EQ(ReadFile(raw), ParseContainer(ReadFile(out)).signature);
}

TEST_F(BuildTest, HeaderOnlyWritesTheBlockAlone)
{
    const std::vector<std::string> words = {"a=" + MakeComponent("a.bin", 3000, 1), "b=" + MakeComponent("b.bin", 9, 2)};
    const std::string full = dir.file("full.img");
    const std::string block = dir.file("block.img");
    ASSERT_EQ(BuildDevelopment(full, words).status, 0);
    const ProcessResult built = BuildDevelopment(block, words, {"--header-only"});
    ASSERT_EQ(built.status, 0) << built.err;
    const std::string bytes = ReadFile(block);
    ASSERT_EQ(bytes.size(), 4096u);
    // Signatures are deterministic (PKCS#1 v1.5), so the blocks match.
    EXPECT_EQ(bytes, ReadFile(full).substr(0, 4096));
    const std::string raw = dir.file("sig.raw");
    EXPECT_EQ(testsupport::RunRecaster({"--convertsig", "-i", block, "-o", raw, "-I", "markforge", "-O", "raw"}).status,
              0);
}

TEST_F(BuildTest, ReplacesAnExistingOutputWithTheUmaskMode)
{
    const std::string out = dir.file("out.img");
    testsupport::WriteFile(out, "old contents");
    chmod(out.c_str(), 0600);
    ASSERT_EQ(BuildDevelopment(out, {"a=" + MakeComponent("a.bin", 10, 1)}).status, 0);
    EXPECT_EQ(ReadFile(out).size(), 4096u + 10u);
    struct stat info;
    ASSERT_EQ(stat(out.c_str(), &info), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
}

TEST_F(BuildTest, LeavesNoTemporaryFileBehind)
{
    const std::string out = dir.file("out.img");
    ASSERT_EQ(BuildDevelopment(out, {"a=" + MakeComponent("a.bin", 10, 1)}).status, 0);
    const auto files = testsupport::FolderSnapshot(dir.path());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].first, "a.bin");
    EXPECT_EQ(files[1].first, "out.img");
}

TEST_F(BuildTest, SevenComponentsFitAndEightDoNot)
{
    std::vector<std::string> words;
    for (int i = 0; i < 8; ++i)
        words.push_back("c" + std::to_string(i) + "=" + MakeComponent("c" + std::to_string(i), 5, unsigned(i)));
    const std::string out = dir.file("out.img");
    const ProcessResult eight = BuildDevelopment(out, words);
    EXPECT_EQ(eight.status, 2);
    EXPECT_NE(eight.err.find("8 components do not fit in the header block with a 256-byte signature (at most 7)"),
              std::string::npos)
        << eight.err;
    EXPECT_FALSE(testsupport::FileExists(out));
    words.pop_back();
    const ProcessResult seven = BuildDevelopment(out, words);
    ASSERT_EQ(seven.status, 0) << seven.err;
    EXPECT_EQ(ParseContainer(ReadFile(out)).records.size(), 7u);
}

}  // namespace

namespace {

// --table: the table of contents is the last component, laid out as
// docs/container-format.md says (the independent writer's copy of that
// layout is the oracle), signed like any other, and verify requires it.
struct TableShape {
    const char* hash;
    size_t components;
};

void PrintTo(const TableShape& shape, std::ostream* out)
{
    *out << shape.hash << " with " << shape.components << " components";
}

class BuildTable : public testsupport::ContainerTest, public ::testing::WithParamInterface<TableShape> {};

TEST_P(BuildTable, AddsTheDocumentedTableLast)
{
    const TableShape shape = GetParam();
    testsupport::Parts parts;
    std::vector<std::string> words;
    for (size_t i = 0; i < shape.components; ++i) {
        const std::string name = "part" + std::to_string(i);
        const std::string path = MakeComponent(name, 700 * i + 13, static_cast<unsigned>(i + 7));
        parts.push_back({name, testsupport::ReadBytes(path)});
        words.push_back(name + "=" + path);
    }
    const std::string out = dir.file("out.img");
    std::vector<std::string> extra{"--hash", shape.hash, "--table"};
    if (shape.components == 0) extra.push_back("--allow-empty");
    const testsupport::ProcessResult built = BuildDevelopment(out, words, extra);
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_NE(built.out.find("component .markforge-toc offset "), std::string::npos) << built.out;

    const testsupport::ContainerHeader header = testsupport::ParseContainer(testsupport::ReadFile(out));
    ASSERT_EQ(header.records.size(), shape.components + 1);
    EXPECT_EQ(header.records.back().name, ".markforge-toc");
    const testsupport::ProcessResult extracted =
        testsupport::RunMarkforge({"extract", out, "--component", ".markforge-toc", "-o", dir.file("toc")});
    ASSERT_EQ(extracted.status, 0) << extracted.err;
    const testsupport::ContainerWriter oracle(shape.hash, 1024);
    EXPECT_EQ(testsupport::ReadBytes(dir.file("toc")), oracle.Table(parts));

    const testsupport::ProcessResult verified =
        testsupport::RunMarkforge({"verify", out, "--key", publicPem(), "--require-table"});
    EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    EXPECT_NE(verified.out.find("table: ok: component " + std::to_string(shape.components) + " '.markforge-toc'"),
              std::string::npos)
        << verified.out;
    const testsupport::ProcessResult openssl =
        testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, out, publicPem()});
    EXPECT_EQ(openssl.status, 0) << openssl.out << openssl.err;
}

INSTANTIATE_TEST_SUITE_P(Shapes, BuildTable,
                         ::testing::Values(TableShape{"sha256", 0}, TableShape{"sha256", 1}, TableShape{"sha384", 2},
                                           TableShape{"sha512", 3}, TableShape{"sha256", 6}));

TEST_F(BuildTable, SevenComponentsAndTheTableDoNotFitA2048BitSignature)
{
    std::vector<std::string> words;
    for (int i = 0; i < 7; ++i) words.push_back("c" + std::to_string(i) + "=" + MakeComponent("c" + std::to_string(i), 10, 1));
    const testsupport::ProcessResult built = BuildDevelopment(dir.file("out.img"), words, {"--table"});
    EXPECT_EQ(built.status, 2);
    EXPECT_EQ(built.err, "markforge: 8 components (the table of contents included) do not fit in the header block "
                         "with a 256-byte signature (at most 7)\n");
    EXPECT_FALSE(testsupport::FileExists(dir.file("out.img")));
}

}  // namespace
