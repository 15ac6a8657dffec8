// Key conversions through the built recaster, judged by the openssl tool:
// exact output bytes, exit status, and what goes to stdout and stderr.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "containerBlock.h"
#include "fixtures.h"
#include "testKeys.h"
#include "testSupport.h"

using testsupport::FileExists;
using testsupport::FileMode;
using testsupport::Openssl;
using testsupport::ProcessResult;
using testsupport::ReadBytes;
using testsupport::ReadFile;
using testsupport::RunRecaster;
using testsupport::TempDir;
using testsupport::WriteBytes;
using testsupport::WriteFile;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

namespace {

const std::string CONVERT_KEY = "bool recaster::converter::ConvertKey(const string&, const string&)";
const std::string RUN = "virtual bool recaster::Main::Run(int, char**)";
const std::string FROM_MF = "bool recaster::converter::ConvertFromMF(const string&, const string&)";
const std::string WRITE_PRIVATE =
    "bool recaster::converter::write_markforge_private_key(const string&, std::string, std::string, std::string, "
    "std::string, std::string)";
const std::string BOOLEAN = "Boolean return value failed.";
const std::string CONTINUE = "Unable to continue from previous error";

// The failure tail every key conversion failure ends with.
const Lines FAILED_IN_CONVERT_KEY{CONVERT_KEY + "|" + BOOLEAN, RUN + "|" + BOOLEAN};

// The trail dump on stderr as "function|message" lines, one per step.
Lines TrailSteps(const std::string& err)
{
    const std::string heading = "Error trail (innermost failure first):\n";
    Lines steps;
    size_t at = err.find(heading);
    if (at == std::string::npos) return steps;
    at += heading.size();
    while (at < err.size()) {
        size_t end = err.find('\n', at);
        if (end == std::string::npos) end = err.size();
        const std::string line = err.substr(at, end - at);
        at = end + 1;
        if (line.rfind("#", 0) == 0) {
            const size_t name = line.find("  ");
            steps.push_back(name == std::string::npos ? std::string() : line.substr(name + 2));
            steps.back() += "|";
        } else if (line.rfind("    at ", 0) != 0 && line.rfind("    opened at ", 0) != 0 && !steps.empty() &&
                   line.rfind("    ", 0) == 0) {
            steps.back() += line.substr(4);
        }
    }
    return steps;
}

Lines Concat(Lines head, const Lines& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// One RSA key of a given size in every form the tests start from, made with
// the openssl tool the first time a test in this program asks for it.
struct KeySet {
    std::string pkcs8;    // PRIVATE KEY block
    std::string pkcs1;    // RSA PRIVATE KEY block, as `openssl rsa -traditional` writes it
    std::string pub;      // PUBLIC KEY block
    std::string raw;      // the modulus bytes
    Bytes modulus;
};

TempDir& KeyDir()
{
    static TempDir dir;
    return dir;
}

const KeySet& Keys(int bits)
{
    static std::map<int, KeySet> made;
    auto found = made.find(bits);
    if (found != made.end()) return found->second;
    const std::string stem = KeyDir().file("rsa" + std::to_string(bits));
    KeySet keys{stem + "-pkcs8.pem", stem + "-pkcs1.pem", stem + "-public.pem", stem + ".raw", {}};
    Openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:" + std::to_string(bits), "-out",
             keys.pkcs8});
    Openssl({"rsa", "-in", keys.pkcs8, "-traditional", "-out", keys.pkcs1});
    Openssl({"pkey", "-in", keys.pkcs8, "-pubout", "-out", keys.pub});
    keys.modulus = testsupport::FromHex(testsupport::OpensslModulusHex(keys.pub, true));
    WriteBytes(keys.raw, keys.modulus);
    return made.emplace(bits, keys).first->second;
}

ProcessResult ConvertKey(const std::string& input, const std::string& output, const std::string& iformat,
                         const std::string& oformat)
{
    return RunRecaster({"--convertkey", "-i", input, "-o", output, "-I", iformat, "-O", oformat});
}

// A run that succeeded and said nothing.
void ExpectQuietSuccess(const ProcessResult& run)
{
    EXPECT_FALSE(run.signaled);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

// A run that failed with exactly this trail and nothing on stdout.
void ExpectFailure(const ProcessResult& run, const Lines& steps)
{
    EXPECT_FALSE(run.signaled);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(TrailSteps(run.err), steps) << run.err;
}

}  // namespace

// ---- Round trips for every key size ------------------------------------------------

class KeySizes : public testing::TestWithParam<int> {
protected:
    const KeySet& keys() const { return Keys(GetParam()); }
    TempDir dir;
};

INSTANTIATE_TEST_SUITE_P(Rsa, KeySizes, testing::Values(1024, 2048, 3072, 4096),
                         [](const testing::TestParamInfo<int>& info) { return std::to_string(info.param) + "Bit"; });

TEST_P(KeySizes, RawToPemEqualsOpensslPublicKey)
{
    ExpectQuietSuccess(ConvertKey(keys().raw, dir.file("out.pem"), "raw", "pem"));
    EXPECT_EQ(ReadFile(dir.file("out.pem")), ReadFile(keys().pub));
}

TEST_P(KeySizes, Pkcs1PrivateKeyToMarkforgeAndBackEqualsOpensslTraditional)
{
    ExpectQuietSuccess(ConvertKey(keys().pkcs1, dir.file("key.mf"), "pem", "markforge"));
    EXPECT_EQ(FileMode(dir.file("key.mf")), 0600u);
    ExpectQuietSuccess(ConvertKey(dir.file("key.mf"), dir.file("back.pem"), "markforge", "pem"));
    EXPECT_EQ(ReadFile(dir.file("back.pem")), ReadFile(keys().pkcs1));
    EXPECT_EQ(FileMode(dir.file("back.pem")), 0600u);
}

TEST_P(KeySizes, Pkcs8PrivateKeyToMarkforgeAndBackEqualsOpensslTraditional)
{
    ExpectQuietSuccess(ConvertKey(keys().pkcs8, dir.file("key.mf"), "pem", "markforge"));
    ExpectQuietSuccess(ConvertKey(dir.file("key.mf"), dir.file("back.pem"), "markforge", "pem"));
    const std::string oracle = Openssl({"rsa", "-in", keys().pkcs8, "-traditional"}).out;
    EXPECT_EQ(ReadFile(dir.file("back.pem")), oracle);
    Openssl({"rsa", "-in", dir.file("back.pem"), "-check", "-noout"});
}

TEST_P(KeySizes, PublicPemToRawIsTheModulus)
{
    ExpectQuietSuccess(ConvertKey(keys().pub, dir.file("out.raw"), "pem", "raw"));
    EXPECT_EQ(ReadBytes(dir.file("out.raw")), keys().modulus);
    EXPECT_EQ(ReadBytes(dir.file("out.raw")).size(), static_cast<size_t>(GetParam() / 8));
}

TEST_P(KeySizes, PublicPemToMarkforgeAndBackEqualsTheOriginal)
{
    ExpectQuietSuccess(ConvertKey(keys().pub, dir.file("pub.mf"), "pem", "markforge"));
    ExpectQuietSuccess(ConvertKey(dir.file("pub.mf"), dir.file("back.pem"), "markforge", "pem"));
    EXPECT_EQ(ReadFile(dir.file("back.pem")), ReadFile(keys().pub));
}

TEST_P(KeySizes, MarkforgePublicKeyToRawIsTheModulus)
{
    ExpectQuietSuccess(ConvertKey(keys().raw, dir.file("pub.mf"), "raw", "markforge"));
    ExpectQuietSuccess(ConvertKey(dir.file("pub.mf"), dir.file("out.raw"), "markforge", "raw"));
    EXPECT_EQ(ReadBytes(dir.file("out.raw")), keys().modulus);
}

// ---- Single cases on a 2048-bit key ------------------------------------------------------

class KeyConversion : public testing::Test {
protected:
    const KeySet& keys() const { return Keys(2048); }
    std::string Out(const std::string& name) const { return dir.file(name); }

    // The PEM key `pem` made a markforge key file, then converted to
    // `oformat` onto an output with earlier content: refused after the
    // output was opened, which leaves it empty.
    void ExpectRefusedLeavingAnEmptyOutput(const std::string& pem, const std::string& oformat)
    {
        ExpectQuietSuccess(ConvertKey(pem, Out("key.mf"), "pem", "markforge"));
        const std::string output = Out("out." + oformat);
        WriteFile(output, "earlier content");
        const ProcessResult run = ConvertKey(Out("key.mf"), output, "markforge", oformat);
        ExpectFailure(run, Concat({"ConvertFromMF|conversion not supported"}, FAILED_IN_CONVERT_KEY));
        EXPECT_TRUE(FileExists(output));
        EXPECT_EQ(ReadFile(output), "");
    }

    TempDir dir;
};

TEST_F(KeyConversion, RawWithLeadingZeroBytesGivesTheSamePublicKey)
{
    const Bytes padded = testblocks::Joined({0x00, 0x00}, keys().modulus);
    WriteBytes(Out("padded.raw"), padded);
    ExpectQuietSuccess(ConvertKey(Out("padded.raw"), Out("out.pem"), "raw", "pem"));
    EXPECT_EQ(ReadFile(Out("out.pem")), ReadFile(keys().pub));
}

TEST_F(KeyConversion, PrivateKeyOutputIsMadePrivateEvenWhenItExisted)
{
    ExpectQuietSuccess(ConvertKey(keys().pkcs1, Out("key.mf"), "pem", "markforge"));
    WriteFile(Out("back.pem"), "earlier content");
    chmod(Out("back.pem").c_str(), 0644);
    ExpectQuietSuccess(ConvertKey(Out("key.mf"), Out("back.pem"), "markforge", "pem"));
    EXPECT_EQ(FileMode(Out("back.pem")), 0600u);

    ExpectQuietSuccess(ConvertKey(keys().pub, Out("pub.mf"), "pem", "markforge"));
    ExpectQuietSuccess(ConvertKey(Out("pub.mf"), Out("pub.pem"), "markforge", "pem"));
    EXPECT_NE(FileMode(Out("pub.pem")) & 0044u, 0u) << "a public key stays readable";
}

TEST_F(KeyConversion, RawToRawSucceedsAndWritesNothing)
{
    ExpectQuietSuccess(ConvertKey(keys().raw, Out("out.raw"), "raw", "raw"));
    EXPECT_FALSE(FileExists(Out("out.raw")));
}

TEST_F(KeyConversion, EmptyRawFileToPemSucceedsWithNoKeyWritten)
{
    WriteFile(Out("empty.raw"), "");
    ExpectQuietSuccess(ConvertKey(Out("empty.raw"), Out("out.pem"), "raw", "pem"));
    EXPECT_EQ(ReadFile(Out("out.pem")), "");
}

TEST_F(KeyConversion, EmptyRawFileToMarkforgeFails)
{
    WriteFile(Out("empty.raw"), "");
    const ProcessResult run = ConvertKey(Out("empty.raw"), Out("out.mf"), "raw", "markforge");
    ExpectFailure(run, Concat({"bool lbRsa::MakeKeyFromExps(const string&, const string&, const string&, const "
                               "string&, const string&)|Not an RSA key: the modulus n is empty",
                               "bool recaster::converter::ConvertFromBIN(const string&, const string&)|" + BOOLEAN},
                              FAILED_IN_CONVERT_KEY));
    EXPECT_FALSE(FileExists(Out("out.mf")));
}

TEST_F(KeyConversion, MissingRawInputIsSaidBeforeTheTrail)
{
    const ProcessResult run = ConvertKey(Out("missing.raw"), Out("out.pem"), "raw", "pem");
    ExpectFailure(run, FAILED_IN_CONVERT_KEY);
    EXPECT_EQ(run.err.rfind("Unable to read public key in binary\nError trail", 0), 0u) << run.err;
}

TEST_F(KeyConversion, PemPublicKeyToPemIsNotSupported)
{
    const ProcessResult run = ConvertKey(keys().pub, Out("out.pem"), "pem", "pem");
    ExpectFailure(run, Concat({"ConvertFromPEM|conversion not supported"}, FAILED_IN_CONVERT_KEY));
    EXPECT_FALSE(FileExists(Out("out.pem")));
}

TEST_F(KeyConversion, PemPrivateKeyToRawIsNotSupported)
{
    const ProcessResult run = ConvertKey(keys().pkcs1, Out("out.raw"), "pem", "raw");
    ExpectFailure(run, Concat({"ConvertFromPEM|conversion not supported"}, FAILED_IN_CONVERT_KEY));
    EXPECT_FALSE(FileExists(Out("out.raw")));
}

TEST_F(KeyConversion, CertificateAndPlainTextAreNotRecognized)
{
    Openssl({"req", "-x509", "-new", "-key", keys().pkcs8, "-subj", "/CN=recaster", "-days", "1", "-out",
             Out("cert.pem")});
    WriteFile(Out("plain.txt"), "hello\n");
    for (const std::string& input : {Out("cert.pem"), Out("plain.txt")}) {
        SCOPED_TRACE(input);
        const ProcessResult run = ConvertKey(input, Out("out.mf"), "pem", "markforge");
        ExpectFailure(run, Concat({"ConvertFromPEM|key format not recognized"}, FAILED_IN_CONVERT_KEY));
        EXPECT_FALSE(FileExists(Out("out.mf")));
    }
}

TEST_F(KeyConversion, MissingPemInputIsNotFound)
{
    const ProcessResult run = ConvertKey(Out("missing.pem"), Out("out.mf"), "pem", "markforge");
    ExpectFailure(run, Concat({"bool recaster::converter::ConvertFromPEM(const string&, const string&)|Input file "
                               "not found"},
                              FAILED_IN_CONVERT_KEY));
}

TEST_F(KeyConversion, EncryptedPrivateKeysAreNotReadWithoutATerminal)
{
    // Standard input is /dev/null and there is no terminal: no pass phrase
    // can be given, so the run must end at once instead of prompting.
    Openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024", "-aes-256-cbc", "-pass",
             "pass:secret", "-out", Out("encrypted-pkcs8.pem")});
    Openssl({"rsa", "-in", Out("encrypted-pkcs8.pem"), "-passin", "pass:secret", "-aes256", "-passout",
             "pass:secret", "-traditional", "-out", Out("encrypted-pkcs1.pem")});
    ASSERT_NE(ReadFile(Out("encrypted-pkcs1.pem")).find("Proc-Type: 4,ENCRYPTED"), std::string::npos);
    ASSERT_NE(ReadFile(Out("encrypted-pkcs8.pem")).find("BEGIN ENCRYPTED PRIVATE KEY"), std::string::npos);
    for (const char* name : {"encrypted-pkcs1.pem", "encrypted-pkcs8.pem"}) {
        SCOPED_TRACE(name);
        const ProcessResult run = ConvertKey(Out(name), Out("out.mf"), "pem", "markforge");
        ExpectFailure(run, Concat({"ConvertFromPEM|key format not recognized"}, FAILED_IN_CONVERT_KEY));
        EXPECT_EQ(run.err.rfind("Error trail", 0), 0u) << "nothing but the trail on stderr:\n" << run.err;
        EXPECT_FALSE(FileExists(Out("out.mf")));
    }
}

TEST_F(KeyConversion, EncryptedPrivateKeysAreReadWithAPassPhraseTypedAtATerminal)
{
    // At a terminal OpenSSL asks for the pass phrase, for the traditional
    // (Proc-Type) and the PKCS#8 encryption alike.
    Openssl({"rsa", "-in", keys().pkcs8, "-aes128", "-passout", "pass:secret", "-traditional", "-out",
             Out("encrypted-pkcs1.pem")});
    Openssl({"pkcs8", "-topk8", "-in", keys().pkcs8, "-passout", "pass:secret", "-out", Out("encrypted-pkcs8.pem")});
    ExpectQuietSuccess(ConvertKey(keys().pkcs8, Out("plain.mf"), "pem", "markforge"));
    for (const char* name : {"encrypted-pkcs1.pem", "encrypted-pkcs8.pem"}) {
        SCOPED_TRACE(name);
        const ProcessResult run = testsupport::RunOnTerminal(
            {testsupport::RecasterPath(), "--convertkey", "-i", Out(name), "-o", Out("out.mf"), "-I", "pem", "-O",
             "markforge"},
            "pass phrase", "secret\n");
        EXPECT_FALSE(run.signaled) << run.out;
        EXPECT_EQ(run.status, 0) << run.out;
        EXPECT_NE(run.out.find("Enter PEM pass phrase:"), std::string::npos) << run.out;
        EXPECT_EQ(ReadFile(Out("out.mf")), ReadFile(Out("plain.mf")));
    }
}

TEST_F(KeyConversion, OpensslConfigurationFileIsNotRead)
{
    // The tool is configured by its command line alone. This file makes
    // every algorithm fetch fail, as the openssl tool shows; read by the
    // tool, it would make the conversion fail.
    const std::string key = keys().pkcs1;  // made before the variable is set
    WriteFile(Out("hostile.cnf"), "openssl_conf = openssl_init\n[openssl_init]\nalg_section = evp\n"
                                  "[evp]\ndefault_properties = \"provider=nonexistent\"\n");
    ASSERT_EQ(setenv("OPENSSL_CONF", Out("hostile.cnf").c_str(), 1), 0);
    const ProcessResult theirs = testsupport::Run({"openssl", "rsa", "-in", key, "-noout"});
    const ProcessResult ours = ConvertKey(key, Out("key.mf"), "pem", "markforge");
    unsetenv("OPENSSL_CONF");
    EXPECT_NE(theirs.status, 0) << theirs.err;
    ExpectQuietSuccess(ours);
    ExpectQuietSuccess(ConvertKey(key, Out("again.mf"), "pem", "markforge"));
    EXPECT_EQ(ReadFile(Out("key.mf")), ReadFile(Out("again.mf")));
}

TEST_F(KeyConversion, FailingMarkforgeWriterFailsTheRun)
{
    // The PEM conversion itself returns true; the writer's raised flag stops
    // the run's next step.
    const std::string path = Out("no/such/dir/key.mf");
    const ProcessResult run = ConvertKey(keys().pkcs1, path, "pem", "markforge");
    ExpectFailure(run, {"bool lbRsa::WriteKeyToDisk(const string&)|Key file " + path +
                            " cannot be created: No such file or directory",
                        WRITE_PRIVATE + "|" + BOOLEAN, RUN + "|" + CONTINUE});
}

TEST_F(KeyConversion, MarkforgeToMarkforgeFailsLeavingAnEmptyOutput)
{
    ExpectRefusedLeavingAnEmptyOutput(keys().pub, "markforge");
}

TEST_F(KeyConversion, MarkforgePrivateKeyToRawFailsLeavingAnEmptyOutput)
{
    ExpectRefusedLeavingAnEmptyOutput(keys().pkcs1, "raw");
}

TEST_F(KeyConversion, MarkforgeOutputInMissingDirectoryIsReportedAsInputNotFound)
{
    ExpectQuietSuccess(ConvertKey(keys().pub, Out("pub.mf"), "pem", "markforge"));
    const ProcessResult run = ConvertKey(Out("pub.mf"), Out("no/such/dir/out.pem"), "markforge", "pem");
    ExpectFailure(run, Concat({FROM_MF + "|Input file not found"}, FAILED_IN_CONVERT_KEY));
}

TEST_F(KeyConversion, MissingMarkforgeInputIsNotFound)
{
    const ProcessResult run = ConvertKey(Out("missing.mf"), Out("out.pem"), "markforge", "pem");
    ExpectFailure(run, Concat({FROM_MF + "|Input file not found"}, FAILED_IN_CONVERT_KEY));
    EXPECT_FALSE(FileExists(Out("out.pem")));
}

TEST_F(KeyConversion, PemFileGivenAsMarkforgeFailsInTheKeyFileReader)
{
    const ProcessResult run = ConvertKey(keys().pub, Out("out.pem"), "markforge", "pem");
    ExpectFailure(run, Concat({"bool lbRsa::ReadKeyFromDisk(const string&)|Key file " + keys().pub +
                                   " is not a markforge key file: line 1: expected \"markforge-rsa-key 1\"",
                               FROM_MF + "|" + BOOLEAN},
                              FAILED_IN_CONVERT_KEY));
    EXPECT_FALSE(FileExists(Out("out.pem")));
}
