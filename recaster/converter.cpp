// recaster::converter: format selection, dispatch, and every key and
// signature conversion.
#include "converter.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "header.h"
#include "hexString.h"
#include "lbBytes.h"
#include "lbRsa.h"
#include "lbSteps.h"
#include "pemLabels.h"
#include "version.h"

namespace recaster {
namespace {

struct FormatWord {
    const char* word;
    FileFormat format;
};

// The accepted words, in the order they are compared.
constexpr FormatWord INPUT_WORDS[] = {
    {"raw", FileFormat::raw}, {"pem", FileFormat::pem}, {"der", FileFormat::der}, {"markforge", FileFormat::markforge}};
constexpr FormatWord OUTPUT_WORDS[] = {
    {"raw", FileFormat::raw}, {"markforge", FileFormat::markforge}, {"pem", FileFormat::pem}};

// Reads the whole input file in 4096-byte chunks, appending every byte read.
// False when it cannot be opened; a folder counts as unopenable, since
// reading one yields nothing but an error.
bool ReadInputFile(const string& path, std::vector<uint8_t>& bytes)
{
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) return false;
    std::ifstream in(path, std::ios::binary);
    if (in.fail()) return false;
    char chunk[4096];
    while (in) {
        in.read(chunk, sizeof chunk);
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
    }
    return true;
}

template <size_t N>
FileFormat Lookup(const FormatWord (&words)[N], const string& name)
{
    for (const FormatWord& entry : words)
        if (name == entry.word) return entry.format;
    return FileFormat::none;
}

}  // namespace

bool converter::SetIFormat(const string& name)
{
    LB_FUNCTION("bool recaster::converter::SetIFormat(const string&)");
    _iformat = Lookup(INPUT_WORDS, name);
    // The value is stored even when an earlier failure makes the call fail.
    LB_CONTINUE_CHECK();
    if (_iformat == FileFormat::none) LB_FAIL("Input format should be : raw, markforge, pem (key) or der (sig)");
    return true;
}

bool converter::SetOFormat(const string& name)
{
    LB_FUNCTION("bool recaster::converter::SetOFormat(const string&)");
    _oformat = Lookup(OUTPUT_WORDS, name);
    LB_CONTINUE_CHECK();
    if (_oformat == FileFormat::none) LB_FAIL("Output format should be : raw, pem, markforge");
    return true;
}

bool converter::ConvertKey(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertKey(const string&, const string&)");
    switch (_iformat) {
    case FileFormat::raw:
        LB_CHECK(ConvertFromBIN(input, output));
        return true;
    case FileFormat::pem:
        LB_CHECK(ConvertFromPEM(input, output));
        return true;
    case FileFormat::markforge:
        LB_CHECK(ConvertFromMF(input, output));
        return true;
    case FileFormat::der:
    case FileFormat::none:
        break;
    }
    // Unsupported input: reported under the short tag, whatever the flag was.
    LB_FAIL_AS("ConvertKey", "conversion not supported");
}

bool converter::ConvertSig(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertSig(const string&, const string&)");
    switch (_iformat) {
    case FileFormat::raw:
        LB_CHECK(ConvertSigFromBin(input, output));
        return true;
    case FileFormat::markforge:
        LB_CHECK(ConvertSigFromMF(input, output));
        return true;
    case FileFormat::der:
        LB_CHECK(ConvertSigFromDER(input, output));
        return true;
    case FileFormat::pem:
    case FileFormat::none:
        break;
    }
    LB_FAIL_AS("ConvertSig", "conversion not supported");
}

// ---- Key conversion helpers ----------------------------------------------

namespace {

// A raw key file stores no exponent: every raw key has 65537.
constexpr const char* RAW_KEY_EXPONENT = "010001";

struct RsaFree {
    void operator()(RSA* key) const { RSA_free(key); }
};
using RsaPtr = std::unique_ptr<RSA, RsaFree>;

struct FileClose {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// The number in a hex text; null when the text holds none (an empty text).
BIGNUM* NumberFromHex(const string& text)
{
    BIGNUM* number = nullptr;
    BN_hex2bn(&number, text.c_str());
    return number;
}

// BN_bn2hex's text for `number`: upper case, whole bytes. An absent number,
// or a conversion that fails for lack of memory, gives the empty text.
string HexOf(const BIGNUM* number)
{
    if (!number) return string();
    char* hex = BN_bn2hex(number);
    if (!hex) return string();
    string text(hex);
    OPENSSL_free(hex);
    return text;
}

// Gives `key` its modulus and public exponent. Nothing is checked; a number
// the key does not take (an empty modulus text) is freed here.
void SetPublicNumbers(RSA* key, const string& n, const string& e)
{
    BIGNUM* exponent = NumberFromHex(e);
    BIGNUM* modulus = NumberFromHex(n);
    if (!key || !RSA_set0_key(key, modulus, exponent, nullptr)) {
        BN_free(modulus);
        BN_free(exponent);
    }
}

// Gives `key` its primes and private exponent; true only when the key then
// holds all three (partly present texts give an incomplete key).
bool SetPrivateNumbers(RSA* key, const string& p, const string& q, const string& d)
{
    BIGNUM* prime1 = NumberFromHex(p);
    BIGNUM* prime2 = NumberFromHex(q);
    BIGNUM* exponent = NumberFromHex(d);
    if (!RSA_set0_factors(key, prime1, prime2)) {
        BN_clear_free(prime1);
        BN_clear_free(prime2);
    }
    if (!RSA_set0_key(key, nullptr, nullptr, exponent)) BN_clear_free(exponent);
    const BIGNUM *havePrime1 = nullptr, *havePrime2 = nullptr, *haveExponent = nullptr;
    RSA_get0_factors(key, &havePrime1, &havePrime2);
    RSA_get0_key(key, nullptr, nullptr, &haveExponent);
    return havePrime1 && havePrime2 && haveExponent;
}

// Recomputes the CRT values (d mod (p-1), d mod (q-1), q^-1 mod p), which a
// markforge key file does not store. The arithmetic is not checked; a key
// that is not a real RSA key gets whatever values it yields.
void SetCrtParams(RSA* key)
{
    const BIGNUM *p = nullptr, *q = nullptr, *d = nullptr;
    RSA_get0_factors(key, &p, &q);
    RSA_get0_key(key, nullptr, nullptr, &d);
    BIGNUM* p1 = BN_new();
    BIGNUM* q1 = BN_new();
    BIGNUM* dmp1 = BN_new();
    BIGNUM* dmq1 = BN_new();
    BIGNUM* iqmp = BN_new();
    BN_CTX* ctx = BN_CTX_new();
    const bool allocated = p1 && q1 && dmp1 && dmq1 && iqmp && ctx;
    if (allocated) {
        BN_sub(p1, p, BN_value_one());
        BN_sub(q1, q, BN_value_one());
        BN_div(nullptr, dmp1, d, p1, ctx);
        BN_div(nullptr, dmq1, d, q1, ctx);
        BN_mod_inverse(iqmp, q, p, ctx);
    }
    BN_CTX_free(ctx);
    BN_clear_free(p1);
    BN_clear_free(q1);
    if (!allocated || !RSA_set0_crt_params(key, dmp1, dmq1, iqmp)) {
        BN_clear_free(dmp1);
        BN_clear_free(dmq1);
        BN_clear_free(iqmp);
    }
}

// The OpenSSL writes are not checked; a stream that could not be opened is
// simply not written.
void WritePublicPem(FILE* stream, RSA* key)
{
    if (stream && key) PEM_write_RSA_PUBKEY(stream, key);
}

void WritePrivatePem(FILE* stream, RSA* key)
{
    if (stream && key) PEM_write_RSAPrivateKey(stream, key, nullptr, nullptr, 0, nullptr, nullptr);
}

// Supplies no pass phrase, so an encrypted key is not read.
int NoPassphrase(char*, int, int, void*)
{
    return 0;
}

// At a terminal OpenSSL's own pass-phrase prompt applies to an encrypted key.
// Without one nobody could answer it: the key then gets no pass phrase and is
// not read, so a scripted run never waits.
pem_password_cb* PassphraseCallback()
{
    return isatty(STDIN_FILENO) ? nullptr : NoPassphrase;
}

// OpenSSL's private-key reader, unless the file holds only PUBLIC KEY blocks,
// in which it cannot find a private key: then it is not called, since setting
// up its decoders costs about as much as all the rest of a conversion.
RSA* ReadPrivateKey(std::FILE* stream)
{
    if (StreamHasOnlyPublicKeyBlocks(stream)) return nullptr;
    return PEM_read_RSAPrivateKey(stream, nullptr, PassphraseCallback(), nullptr);
}

}  // namespace

// The lbRsa steps that write one markforge key file. Each step records
// under the text of the conversion that asked for the file, `lbFunction`.
bool converter::WriteKeyFileThroughRsa(const char* lbFunction, const string& path, const string& n,
                                       const string& e, const string& p, const string& q, const string& d)
{
    lbRsa rsa;
    LB_OPEN(rsa);
    LB_CHECK(rsa.MakeKeyFromExps(n, e, p, q, d));
    LB_CHECK(rsa.WriteKeyToDisk(path));
    LB_CLOSE(rsa);
    return true;
}

// ---- Raw key files -------------------------------------------------------

bool converter::ConvertFromBIN(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertFromBIN(const string&, const string&)");
    std::vector<uint8_t> bytes;
    if (!ReadInputFile(input, bytes)) {
        // Said directly and not on the trail; ConvertKey records the failure.
        std::cerr << "Unable to read public key in binary" << std::endl;
        return false;
    }
    const string modulus = lockbase::hexString(bytes).text;

    switch (_oformat) {
    case FileFormat::pem: {
        // Unchecked on purpose: an empty modulus or an output that cannot be
        // opened still counts as done.
        RsaPtr key(RSA_new());
        SetPublicNumbers(key.get(), modulus, RAW_KEY_EXPONENT);
        FilePtr out(std::fopen(output.c_str(), "w"));
        WritePublicPem(out.get(), key.get());
        return true;
    }
    case FileFormat::markforge:
        return WriteKeyFileThroughRsa(lbFunction, output, modulus, RAW_KEY_EXPONENT, "", "", "");
    default:
        // Raw to raw is a successful no-op that writes nothing.
        return true;
    }
}

bool converter::write_raw_key(const string& path, std::string hex)
{
    // Neither the open nor the write is checked. A text that is not whole
    // hex bytes gives no bytes, hence an empty file.
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const lockbase::hexString key(std::move(hex));
    out.write(reinterpret_cast<const char*>(key.bytes.data()), static_cast<std::streamsize>(key.bytes.size()));
    out.close();
    return true;
}

// ---- PEM keys ------------------------------------------------------------

bool converter::ConvertFromPEM(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertFromPEM(const string&, const string&)");
    const FilePtr in(std::fopen(input.c_str(), "r"));
    LB_CONTINUE_CHECK();
    if (!in) LB_FAIL("Input file not found");

    if (const RsaPtr key{ReadPrivateKey(in.get())}) {
        const BIGNUM *n = nullptr, *e = nullptr, *d = nullptr, *p = nullptr, *q = nullptr;
        RSA_get0_key(key.get(), &n, &e, &d);
        RSA_get0_factors(key.get(), &p, &q);
        if (_oformat != FileFormat::markforge) LB_FAIL_AS("ConvertFromPEM", "conversion not supported");
        // The writer's result is not used: a failing writer has recorded its
        // failure and raised the flag, which the caller's next step reports.
        write_markforge_private_key(output, HexOf(n), HexOf(e), HexOf(p), HexOf(q), HexOf(d));
        return true;
    }

    // The stream is rewound because the private-key attempt, when made, has
    // read through the file.
    std::fseek(in.get(), 0, SEEK_SET);
    const RsaPtr key(PEM_read_RSA_PUBKEY(in.get(), nullptr, nullptr, nullptr));
    if (!key) LB_FAIL_AS("ConvertFromPEM", "key format not recognized");
    const BIGNUM *n = nullptr, *e = nullptr;
    RSA_get0_key(key.get(), &n, &e, nullptr);
    switch (_oformat) {
    case FileFormat::markforge:
        write_markforge_public_key(output, HexOf(n), HexOf(e));
        return true;
    case FileFormat::raw:
        write_raw_key(output, HexOf(n));
        return true;
    default:
        break;
    }
    LB_FAIL_AS("ConvertFromPEM", "conversion not supported");
}

// ---- markforge key files -------------------------------------------------

bool converter::write_markforge_public_key(const string& path, std::string n, std::string e)
{
    LB_FUNCTION("bool recaster::converter::write_markforge_public_key(const string&, std::string, std::string)");
    return WriteKeyFileThroughRsa(lbFunction, path, n, e, "", "", "");
}

bool converter::write_markforge_private_key(const string& path, std::string n, std::string e, std::string p,
                                            std::string q, std::string d)
{
    LB_FUNCTION(
        "bool recaster::converter::write_markforge_private_key(const string&, std::string, std::string, "
        "std::string, std::string, std::string)");
    return WriteKeyFileThroughRsa(lbFunction, path, n, e, p, q, d);
}

bool converter::ConvertFromMF(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertFromMF(const string&, const string&)");
    {
        const FilePtr probe(std::fopen(input.c_str(), "r"));
        LB_CONTINUE_CHECK();
        if (!probe) LB_FAIL("Input file not found");
    }

    string n, e, p, q, d;
    lbRsa rsa;
    LB_OPEN(rsa);
    LB_CHECK(rsa.ReadKeyFromDisk(input));
    LB_CHECK(rsa.GetExponents(n, e, p, q, d));
    // A failing close fails the step, so past it the conversion's result is true.
    LB_CLOSE(rsa);

    // The output is created (or emptied) before the format pair is checked,
    // so a refused conversion still leaves an empty output file behind.
    const FilePtr out(std::fopen(output.c_str(), "w"));
    LB_CONTINUE_CHECK();
    // The output's failure is reported in the same words as the input's.
    if (!out) LB_FAIL("Input file not found");
    // Whatever is written from a private key file stays as private as that
    // file: no other user may read the output.
    if (!p.empty() || !q.empty() || !d.empty()) fchmod(fileno(out.get()), 0600);

    const RsaPtr key(RSA_new());
    SetPublicNumbers(key.get(), n, e);
    if (p.empty() && q.empty() && d.empty()) {
        switch (_oformat) {
        case FileFormat::pem:
            WritePublicPem(out.get(), key.get());
            return true;
        case FileFormat::raw:
            // Reopens the same path; the stream opened above writes nothing.
            write_raw_key(output, n);
            return true;
        default:
            break;
        }
    } else if (key && SetPrivateNumbers(key.get(), p, q, d) && _oformat == FileFormat::pem) {
        // A key with only some of p, q and d has no private form and is
        // refused below like any other unsupported request.
        SetCrtParams(key.get());
        WritePrivatePem(out.get(), key.get());
        return true;
    }
    LB_FAIL_AS("ConvertFromMF", "conversion not supported");
}

// ---- Signatures ----------------------------------------------------------

namespace {

// Width of one DER INTEGER in a raw signature.
constexpr size_t SIGNATURE_FIELD = 32;

// Writes `bytes` to `path` one at a time; false only when the file cannot be
// opened.
bool WriteSignatureFile(const string& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (out.fail()) return false;
    for (uint8_t byte : bytes) out.put(static_cast<char>(byte));
    out.close();
    return true;
}

struct DerHeader {
    int tag;
    long length;
};

// Reads the element header at `p` (no further than `limit`), moves `p` to
// its contents and prints the "type=" trace line. The parser's error result
// is not consulted: a declared length running past the input is still
// reported and handled by the caller. False, with nothing printed, when no
// header could be read at all (the position did not move), which ends the walk.
bool ReadDerHeader(const unsigned char*& p, const unsigned char* limit, DerHeader& header)
{
    const unsigned char* before = p;
    int tag = -1;
    int xclass = 0;
    long length = 0;
    ASN1_get_object(&p, &length, &tag, &xclass, limit - p);
    ERR_clear_error();  // leave no stale parser errors for later OpenSSL calls
    if (p == before) return false;
    header = DerHeader{tag, length};
    std::cout << "type=" << tag << ", len=" << length << std::endl;
    return true;
}

// Appends one INTEGER's `n` content bytes as a 32-byte big-endian field:
// short values are left-padded with zeros and a zero sign byte is dropped
// when it would make the field 33 bytes. Longer values pass through at their
// own length, deliberately without truncation.
void AppendIntegerField(const unsigned char* content, size_t n, std::vector<uint8_t>& out)
{
    const size_t padding = n < SIGNATURE_FIELD ? SIGNATURE_FIELD - n : 0;
    out.insert(out.end(), padding, 0);
    const size_t skip = (n > 0 && content[0] == 0 && padding + n >= SIGNATURE_FIELD + 1) ? 1 : 0;
    out.insert(out.end(), content + skip, content + n);
}

// Walks a DER SEQUENCE of INTEGERs into raw fields. A nested constructed
// element is entered; any other element ends the walk. Lengths running past
// the input only take the bytes that are there, and every step either moves
// forward or ends the walk, so any input terminates.
std::vector<uint8_t> WalkDerSignature(const std::vector<uint8_t>& der)
{
    std::vector<uint8_t> out;
    const unsigned char* p = der.data();
    const unsigned char* const end = p + der.size();
    DerHeader element{};
    while (p < end) {
        if (!ReadDerHeader(p, end, element) || element.tag != V_ASN1_SEQUENCE) break;
        const unsigned char* const innerEnd = p + std::clamp<long>(element.length, 0, end - p);
        while (p < innerEnd) {
            if (!ReadDerHeader(p, innerEnd, element)) return out;
            if (element.tag != V_ASN1_INTEGER) break;
            const size_t n = static_cast<size_t>(std::clamp<long>(element.length, 0, end - p));
            AppendIntegerField(p, n, out);
            p += n;
        }
    }
    return out;
}

}  // namespace

bool converter::ConvertSigFromBin(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertSigFromBin(const string&, const string&)");
    lbBytes signature;
    const bool readable = ReadInputFile(input, signature.buffer);
    LB_CONTINUE_CHECK();
    if (!readable) LB_FAIL("Unable to read input signature file");

    // No length check here: the header block takes any signature, and a
    // reader refuses the ones outside 60 to 512 bytes later.
    markforge::header block;
    LB_OPEN(block);
    LB_CHECK(block.SetSignature(signature));
    LB_CHECK(block.WriteOutput(output));
    LB_CLOSE(block);
    return true;
}

bool converter::ConvertSigFromMF(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertSigFromMF(const string&, const string&)");
    lbBytes signature;
    markforge::header block;
    LB_OPEN(block);
    std::ifstream in;
    LB_CHECK(block.CreateFromFilePath(input, in, lbHashId::SHA384));
    LB_CHECK(block.GetHeaderSignature(signature));
    LB_CLOSE(block);
    return WriteSignatureFile(output, signature.buffer);
}

bool converter::ConvertSigFromDER(const string& input, const string& output)
{
    LB_FUNCTION("bool recaster::converter::ConvertSigFromDER(const string&, const string&)");
    lbBytes der;
    const bool readable = ReadInputFile(input, der.buffer);
    LB_CONTINUE_CHECK();
    if (!readable) LB_FAIL("Unable to read input signature file");
    return WriteSignatureFile(output, WalkDerSignature(der.buffer));
}

}  // namespace recaster
