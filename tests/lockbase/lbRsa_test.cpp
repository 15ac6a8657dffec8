// lbRsa key texts and markforge key files: round trips, file modes, and every
// kind of bad key file failing cleanly on the trail.
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fixtures.h"
#include "lbRsa.h"
#include "lbSteps.h"
#include "openedObject.h"
#include "testSupport.h"

using testsupport::FileMode;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::TrailLines;
using testsupport::WriteFile;
using Lines = std::vector<std::string>;

namespace {

const std::string LBRSA_CPP = "lockbase/lbRsa.cpp";
const std::string MAKE_KEY =
    "bool lbRsa::MakeKeyFromExps(const string&, const string&, const string&, const string&, const string&)";
const std::string WRITE_KEY = "bool lbRsa::WriteKeyToDisk(const string&)";
const std::string READ_KEY = "bool lbRsa::ReadKeyFromDisk(const string&)";

// The textbook key p = 61, q = 53, e = 17, d = 2753, as canonical texts.
const std::string N = "0CA1", E = "11", P = "3D", Q = "35", D = "0AC1";
const std::string PUBLIC_FILE = "markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 11\nend\n";
const std::string PRIVATE_FILE = "markforge-rsa-key 1\nkind: private\nn: 0CA1\ne: 11\np: 3D\nq: 35\nd: 0AC1\nend\n";

struct Texts {
    std::string n, e, p, q, d;
    bool operator==(const Texts& o) const { return n == o.n && e == o.e && p == o.p && q == o.q && d == o.d; }
};

std::ostream& operator<<(std::ostream& out, const Texts& t)
{
    return out << "{" << t.n << ", " << t.e << ", " << t.p << ", " << t.q << ", " << t.d << "}";
}

// An lbRsa taken through its opening sequence and closed when the test ends.
class OpenRsa : public testsupport::Opened<lbRsa> {
public:
    OpenRsa() { EXPECT_TRUE(opened); }

    Texts Exponents()
    {
        Texts t;
        EXPECT_TRUE((*this)->GetExponents(t.n, t.e, t.p, t.q, t.d));
        return t;
    }
};

}  // namespace

class LbRsa : public testsupport::FrameworkTest {
protected:
    std::string Path(const std::string& name) const { return dir.file(name); }

    // Reads `text` as a key file and expects it refused with `reason`.
    void ExpectRejected(const std::string& text, const std::string& reason)
    {
        lbGlobal.Reset();
        const std::string path = Path("bad.mf");
        WriteFile(path, text);
        OpenRsa rsa;
        EXPECT_FALSE(rsa->ReadKeyFromDisk(path));
        ExpectFailedWith(READ_KEY, "Key file " + path + " is not a markforge key file: " + reason);
        std::string n;
        EXPECT_FALSE(rsa->GetExponents(n, n, n, n, n));
    }

    // The only trail entry is `function`'s `message`, and the flag is raised.
    void ExpectFailedWith(const std::string& function, const std::string& message)
    {
        EXPECT_EQ(TrailLines(), (Lines{function + "|" + LBRSA_CPP + "|" + message}));
        EXPECT_TRUE(lbGlobal.errorFlag);
    }

    // A key made from `t` is written to `name`, which then holds `fileText`,
    // and read back to the same texts without a trail entry.
    void ExpectRoundTrip(const Texts& t, bool isPrivate, const std::string& name, const std::string& fileText)
    {
        OpenRsa writer;
        ASSERT_TRUE(writer->MakeKeyFromExps(t.n, t.e, t.p, t.q, t.d));
        EXPECT_EQ(writer->IsPrivate(), isPrivate);
        ASSERT_TRUE(writer->WriteKeyToDisk(Path(name)));
        EXPECT_EQ(ReadFile(Path(name)), fileText);
        OpenRsa reader;
        ASSERT_TRUE(reader->ReadKeyFromDisk(Path(name)));
        EXPECT_EQ(reader.Exponents(), t);
        EXPECT_TRUE(TrailLines().empty());
    }

    // Builds a key from five texts and expects it refused with `reason`.
    void ExpectNotRsa(const Texts& t, const std::string& reason)
    {
        lbGlobal.Reset();
        OpenRsa rsa;
        EXPECT_FALSE(rsa->MakeKeyFromExps(t.n, t.e, t.p, t.q, t.d));
        ExpectFailedWith(MAKE_KEY, "Not an RSA key: " + reason);
    }

    TempDir dir;
};

// ---- Round trips -----------------------------------------------------------------

TEST_F(LbRsa, PublicKeyRoundTripsThroughItsFile)
{
    ExpectRoundTrip({N, E, "", "", ""}, false, "pub.mf", PUBLIC_FILE);
}

TEST_F(LbRsa, PrivateKeyRoundTripsThroughItsFile)
{
    ExpectRoundTrip({N, E, P, Q, D}, true, "priv.mf", PRIVATE_FILE);
}

TEST_F(LbRsa, TextsAreCanonicalUpperCaseWholeBytesWithoutLeadingZeroBytes)
{
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps("00000ca1", "010001", "3d", "0035", "ac1"));
    EXPECT_EQ(rsa.Exponents(), (Texts{"0CA1", "010001", "3D", "35", "0AC1"}));
}

TEST_F(LbRsa, GetExponentsWithoutAKeyFails)
{
    OpenRsa rsa;
    std::string n = "untouched";
    EXPECT_FALSE(rsa->GetExponents(n, n, n, n, n));
    EXPECT_EQ(n, "untouched");
}

TEST_F(LbRsa, CloseForgetsTheKey)
{
    lbRsa rsa;
    ASSERT_TRUE(testsupport::OpenObject(rsa));
    ASSERT_TRUE(rsa.MakeKeyFromExps(N, E, P, Q, D));
    ASSERT_TRUE(rsa.PreClose() && rsa.Close());
    rsa.PostClose();
    std::string n;
    EXPECT_FALSE(rsa.GetExponents(n, n, n, n, n));
    EXPECT_FALSE(rsa.IsPrivate());
}

TEST_F(LbRsa, ReaderAcceptsCrLfLowerCaseAndAMissingFinalLineEnd)
{
    WriteFile(Path("crlf.mf"),
              "markforge-rsa-key 1\r\nkind: private\r\nn: ca1\r\ne: 011\r\np: 3d\r\nq: 35\r\nd: 00ac1\r\nend");
    OpenRsa rsa;
    ASSERT_TRUE(rsa->ReadKeyFromDisk(Path("crlf.mf")));
    EXPECT_EQ(rsa.Exponents(), (Texts{N, E, P, Q, D}));
}

TEST_F(LbRsa, RealKeyRoundTripsThroughItsFile)
{
    testsupport::Openssl(
        {"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024", "-out", Path("key.pem")});
    const std::string modulus = testsupport::OpensslModulusHex(Path("key.pem"), false);
    OpenRsa writer;
    ASSERT_TRUE(writer->MakeKeyFromExps(modulus, "10001", "", "", ""));
    ASSERT_TRUE(writer->WriteKeyToDisk(Path("pub.mf")));
    OpenRsa reader;
    ASSERT_TRUE(reader->ReadKeyFromDisk(Path("pub.mf")));
    EXPECT_EQ(reader.Exponents(), (Texts{modulus, "010001", "", "", ""}));
}

// ---- File modes ----------------------------------------------------------------------

TEST_F(LbRsa, PrivateKeyFileHasMode0600)
{
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps(N, E, P, Q, D));
    ASSERT_TRUE(rsa->WriteKeyToDisk(Path("priv.mf")));
    EXPECT_EQ(FileMode(Path("priv.mf")), 0600u);
}

TEST_F(LbRsa, PrivateKeyFileGetsMode0600AlsoWhenTheFileExistedReadable)
{
    WriteFile(Path("priv.mf"), "an older, longer file that must not survive in any part");
    ASSERT_EQ(chmod(Path("priv.mf").c_str(), 0644), 0);
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps(N, E, P, Q, D));
    ASSERT_TRUE(rsa->WriteKeyToDisk(Path("priv.mf")));
    EXPECT_EQ(FileMode(Path("priv.mf")), 0600u);
    EXPECT_EQ(ReadFile(Path("priv.mf")), PRIVATE_FILE);
}

TEST_F(LbRsa, PublicKeyFileIsReadableByEveryone)
{
    const mode_t saved = umask(022);
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps(N, E, "", "", ""));
    ASSERT_TRUE(rsa->WriteKeyToDisk(Path("pub.mf")));
    umask(saved);
    EXPECT_EQ(FileMode(Path("pub.mf")), 0644u);
}

// ---- Writing failures -----------------------------------------------------------------

TEST_F(LbRsa, WritingWithoutAKeyFails)
{
    OpenRsa rsa;
    EXPECT_FALSE(rsa->WriteKeyToDisk(Path("none.mf")));
    ExpectFailedWith(WRITE_KEY, "No key to write to " + Path("none.mf"));
    EXPECT_FALSE(testsupport::FileExists(Path("none.mf")));
}

TEST_F(LbRsa, WritingIntoAMissingDirectoryFails)
{
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps(N, E, "", "", ""));
    const std::string path = Path("no/such/dir/pub.mf");
    EXPECT_FALSE(rsa->WriteKeyToDisk(path));
    ExpectFailedWith(WRITE_KEY, "Key file " + path + " cannot be created: No such file or directory");
}

TEST_F(LbRsa, EveryStepStopsAfterAnEarlierFailure)
{
    WriteFile(Path("pub.mf"), PUBLIC_FILE);
    OpenRsa rsa;
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(rsa->MakeKeyFromExps(N, E, "", "", ""));
    EXPECT_FALSE(rsa->ReadKeyFromDisk(Path("pub.mf")));
    EXPECT_FALSE(rsa->WriteKeyToDisk(Path("out.mf")));
    const std::string tail = "|" + LBRSA_CPP + "|Unable to continue from previous error";
    EXPECT_EQ(TrailLines(), (Lines{MAKE_KEY + tail, READ_KEY + tail, WRITE_KEY + tail}));
    EXPECT_FALSE(testsupport::FileExists(Path("out.mf")));
}

// ---- Texts that do not make an RSA key ----------------------------------------------------

TEST_F(LbRsa, MakeKeyFromExpsRefusesTextsThatAreNotAnRsaKey)
{
    const std::string digits = "the value of n is not a hexadecimal number of 1 to 4096 digits";
    ExpectNotRsa({"", E, "", "", ""}, "the modulus n is empty");
    ExpectNotRsa({N, "", "", "", ""}, "the public exponent e is empty");
    ExpectNotRsa({"XYZ", E, "", "", ""}, digits);
    ExpectNotRsa({"-0CA1", E, "", "", ""}, digits);
    ExpectNotRsa({"0x0CA1", E, "", "", ""}, digits);
    ExpectNotRsa({"0C A1", E, "", "", ""}, digits);
    ExpectNotRsa({std::string(4097, 'F'), E, "", "", ""}, digits);
    ExpectNotRsa({N, "1G", "", "", ""}, "the value of e is not a hexadecimal number of 1 to 4096 digits");
    ExpectNotRsa({"01", E, "", "", ""}, "the modulus n must be greater than 1");
    ExpectNotRsa({"00", E, "", "", ""}, "the modulus n must be greater than 1");
    ExpectNotRsa({N, "10", "", "", ""}, "the public exponent e must be odd and greater than 1");
    ExpectNotRsa({N, "01", "", "", ""}, "the public exponent e must be odd and greater than 1");
    ExpectNotRsa({N, E, P, "", ""}, "a private key needs all of p, q and d");
    ExpectNotRsa({N, E, "", "", D}, "a private key needs all of p, q and d");
    ExpectNotRsa({N, E, P, "37", D}, "p times q is not the modulus n");
    ExpectNotRsa({N, E, "01", N, D}, "p times q is not the modulus n");
    ExpectNotRsa({N, E, P, Q, "00"}, "the private exponent d is zero");
    ExpectNotRsa({N, E, P, Q, "ZZ"}, "the value of d is not a hexadecimal number of 1 to 4096 digits");
}

TEST_F(LbRsa, LargestAcceptedNumberHas4096Digits)
{
    OpenRsa rsa;
    EXPECT_TRUE(rsa->MakeKeyFromExps(std::string(4096, 'F'), E, "", "", ""));
}

// ---- Key files a reader refuses ---------------------------------------------------------------

TEST_F(LbRsa, MissingFileFails)
{
    OpenRsa rsa;
    const std::string path = Path("missing.mf");
    EXPECT_FALSE(rsa->ReadKeyFromDisk(path));
    ExpectFailedWith(READ_KEY, "Key file " + path + " cannot be opened: No such file or directory");
}

TEST_F(LbRsa, DirectoryFails)
{
    OpenRsa rsa;
    EXPECT_FALSE(rsa->ReadKeyFromDisk(dir.path()));
    ExpectFailedWith(READ_KEY, "Key file " + dir.path() + " cannot be read: Is a directory");
}

TEST_F(LbRsa, OversizedFileFails)
{
    // A valid key padded past the limit by a long trailing comment line.
    const std::string path = Path("big.mf");
    WriteFile(path, PUBLIC_FILE + std::string(65537 - PUBLIC_FILE.size(), '#'));
    OpenRsa rsa;
    EXPECT_FALSE(rsa->ReadKeyFromDisk(path));
    ExpectFailedWith(READ_KEY, "Key file " + path + " larger than 65536 bytes");
}

TEST_F(LbRsa, EmptyFileFails)
{
    ExpectRejected("", "line 1: expected \"markforge-rsa-key 1\"");
}

TEST_F(LbRsa, GarbageFails)
{
    std::string garbage;
    for (int i = 0; i < 512; ++i) garbage.push_back(static_cast<char>((i * 97 + 13) & 0xFF));
    ExpectRejected(garbage, "holds a NUL byte");
    ExpectRejected("\x89PNG\r\n\x1a\n not a key", "line 1: expected \"markforge-rsa-key 1\"");
    ExpectRejected("-----BEGIN PUBLIC KEY-----\nMBwwDQ\n-----END PUBLIC KEY-----\n",
                   "line 1: expected \"markforge-rsa-key 1\"");
}

TEST_F(LbRsa, WrongHeaderFails)
{
    ExpectRejected("markforge-rsa-key 2\nkind: public\nn: 0CA1\ne: 11\nend\n",
                   "line 1: expected \"markforge-rsa-key 1\"");
    ExpectRejected(" markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 11\nend\n",
                   "line 1: expected \"markforge-rsa-key 1\"");
    ExpectRejected("markforge-rsa-key 1\nkind: secret\nn: 0CA1\ne: 11\nend\n",
                   "line 2: expected \"kind: public\" or \"kind: private\"");
    ExpectRejected("markforge-rsa-key 1\n", "line 2: expected \"kind: public\" or \"kind: private\"");
}

TEST_F(LbRsa, TruncatedFilesFail)
{
    ExpectRejected("markforge-rsa-key 1\nkind: public\n", "line 3: missing, expected \"n: \" and a number");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1\n", "line 4: missing, expected \"e: \" and a number");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 11\n", "line 5: expected \"end\"");
    ExpectRejected(PRIVATE_FILE.substr(0, PRIVATE_FILE.find("\nd: ") + 1),
                   "line 7: missing, expected \"d: \" and a number");
    ExpectRejected(PRIVATE_FILE.substr(0, PRIVATE_FILE.size() - 4), "line 8: expected \"end\"");
}

TEST_F(LbRsa, MalformedNumberLinesFail)
{
    ExpectRejected("markforge-rsa-key 1\nkind: public\ne: 11\nn: 0CA1\nend\n", "line 3: expected \"n: \" and a number");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn:0CA1\ne: 11\nend\n", "line 3: expected \"n: \" and a number");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: \ne: 11\nend\n",
                   "line 3: the value of n is not a hexadecimal number of 1 to 4096 digits");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1 \ne: 11\nend\n",
                   "line 3: the value of n is not a hexadecimal number of 1 to 4096 digits");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: " + std::string(4097, 'F') + "\ne: 11\nend\n",
                   "line 3: the value of n is not a hexadecimal number of 1 to 4096 digits");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 0x11\nend\n",
                   "line 4: the value of e is not a hexadecimal number of 1 to 4096 digits");
}

TEST_F(LbRsa, PartialPrivateKeyFails)
{
    // p alone, in a private file and tacked onto a public one.
    ExpectRejected("markforge-rsa-key 1\nkind: private\nn: 0CA1\ne: 11\np: 3D\nend\n",
                   "line 6: expected \"q: \" and a number");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 11\np: 3D\nend\n", "line 5: expected \"end\"");
}

TEST_F(LbRsa, PrimesWhoseProductIsNotTheModulusFail)
{
    ExpectRejected("markforge-rsa-key 1\nkind: private\nn: 0CA1\ne: 11\np: 3D\nq: 37\nd: 0AC1\nend\n",
                   "p times q is not the modulus n");
}

TEST_F(LbRsa, NumbersThatAreNotAnRsaKeyFail)
{
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 01\ne: 11\nend\n", "the modulus n must be greater than 1");
    ExpectRejected("markforge-rsa-key 1\nkind: public\nn: 0CA1\ne: 10\nend\n",
                   "the public exponent e must be odd and greater than 1");
    ExpectRejected("markforge-rsa-key 1\nkind: private\nn: 0CA1\ne: 11\np: 3D\nq: 35\nd: 00\nend\n",
                   "the private exponent d is zero");
}

TEST_F(LbRsa, TextAfterEndFails)
{
    ExpectRejected(PUBLIC_FILE + "n: 0CA1\n", "line 6: unexpected text after \"end\"");
    ExpectRejected(PUBLIC_FILE + "\n", "line 6: unexpected text after \"end\"");
}

TEST_F(LbRsa, FailedReadKeepsTheEarlierKey)
{
    OpenRsa rsa;
    ASSERT_TRUE(rsa->MakeKeyFromExps(N, E, "", "", ""));
    WriteFile(Path("bad.mf"), "not a key\n");
    EXPECT_FALSE(rsa->ReadKeyFromDisk(Path("bad.mf")));
    EXPECT_EQ(rsa.Exponents(), (Texts{N, E, "", "", ""}));
}
