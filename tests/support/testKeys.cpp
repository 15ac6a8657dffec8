// RSA test keys and openssl checks of signatures and digests.
#include "testKeys.h"

#include <sstream>

#include "lbRsa.h"
#include "testSupport.h"

namespace testsupport {
namespace {

// Runs openssl without failing the test on its own; the callers decide.
ProcessResult RunOpenssl(const std::vector<std::string>& args)
{
    std::vector<std::string> argv{"openssl"};
    argv.insert(argv.end(), args.begin(), args.end());
    return Run(argv);
}

// The INTEGER values of a DER structure, in order, as openssl asn1parse
// prints them (upper-case hex).
std::vector<std::string> AsnIntegers(const std::string& text)
{
    std::vector<std::string> values;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find("INTEGER") == std::string::npos) continue;
        const size_t colon = line.rfind(':');
        if (colon != std::string::npos) values.push_back(line.substr(colon + 1));
    }
    return values;
}

}  // namespace

bool MakeRsaKey(const std::string& folder, const std::string& stem, int bits, TestRsaKey& key, std::string& error)
{
    key.privatePem = folder + "/" + stem + ".pem";
    key.publicPem = folder + "/" + stem + "-pub.pem";
    key.keyFile = folder + "/" + stem + ".mfkey";
    const std::string traditional = folder + "/" + stem + "-pkcs1.pem";

    ProcessResult made = RunOpenssl({"genpkey", "-algorithm", "RSA", "-pkeyopt",
                                     "rsa_keygen_bits:" + std::to_string(bits), "-out", key.privatePem});
    if (made.status != 0) {
        error = "openssl genpkey failed: " + made.err;
        return false;
    }
    ProcessResult pub = RunOpenssl({"pkey", "-in", key.privatePem, "-pubout", "-out", key.publicPem});
    ProcessResult pkcs1 = RunOpenssl({"rsa", "-in", key.privatePem, "-traditional", "-out", traditional});
    ProcessResult parsed = RunOpenssl({"asn1parse", "-in", traditional});
    if (pub.status != 0 || pkcs1.status != 0 || parsed.status != 0) {
        error = "openssl could not export the key: " + pub.err + pkcs1.err + parsed.err;
        return false;
    }
    // RSAPrivateKey: version, n, e, d, p, q, dp, dq, qinv.
    const std::vector<std::string> numbers = AsnIntegers(parsed.out);
    if (numbers.size() != 9) {
        error = "unexpected asn1parse output: " + parsed.out;
        return false;
    }
    key.n = numbers[1];
    key.e = numbers[2];
    key.d = numbers[3];
    key.p = numbers[4];
    key.q = numbers[5];

    lbRsa rsa;
    const bool written = rsa.MakeKeyFromExps(key.n, key.e, key.p, key.q, key.d) && rsa.WriteKeyToDisk(key.keyFile);
    rsa.Close();
    if (!written) {
        error = "lbRsa could not write the markforge key file";
        return false;
    }
    return true;
}

bool OpensslVerifies(const std::string& folder, const std::string& publicPem, const std::string& digestName,
                     const std::vector<uint8_t>& digest, const std::vector<uint8_t>& signature,
                     std::string& detail)
{
    const std::string digestPath = folder + "/verify-digest.bin";
    const std::string signaturePath = folder + "/verify-signature.bin";
    WriteBytes(digestPath, digest);
    WriteBytes(signaturePath, signature);
    ProcessResult verified = RunOpenssl({"pkeyutl", "-verify", "-pubin", "-inkey", publicPem, "-in", digestPath,
                                         "-sigfile", signaturePath, "-pkeyopt", "digest:" + digestName});
    detail = verified.out + verified.err;
    return verified.status == 0 && verified.out.find("Signature Verified Successfully") != std::string::npos;
}

std::string OpensslDigestHex(const std::string& folder, const std::string& digestName, const std::string& bytes)
{
    const std::string path = folder + "/dgst-input.bin";
    WriteFile(path, bytes);
    ProcessResult digest = Openssl({"dgst", "-" + digestName, "-r", path});
    return digest.out.substr(0, digest.out.find(' '));
}

std::vector<uint8_t> FromHex(const std::string& hex)
{
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at + 1 < hex.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
    return bytes;
}

}  // namespace testsupport
