// recaster::converter: format selection, dispatch, and every key and
// signature conversion.
#include "converter.h"

#include "lbSteps.h"
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

// ---- Raw key files -------------------------------------------------------

bool converter::ConvertFromBIN(const string&, const string&)
{
    return false;  // TODO(key conversions)
}

bool converter::write_raw_key(const string&, std::string)
{
    return true;  // TODO(key conversions)
}

// ---- PEM keys ------------------------------------------------------------

bool converter::ConvertFromPEM(const string&, const string&)
{
    return false;  // TODO(key conversions)
}

// ---- markforge key files -------------------------------------------------

bool converter::write_markforge_public_key(const string&, std::string, std::string)
{
    return false;  // TODO(key conversions)
}

bool converter::write_markforge_private_key(const string&, std::string, std::string, std::string, std::string,
                                            std::string)
{
    return false;  // TODO(key conversions)
}

bool converter::ConvertFromMF(const string&, const string&)
{
    return false;  // TODO(key conversions)
}

// ---- Signatures ----------------------------------------------------------

bool converter::ConvertSigFromBin(const string&, const string&)
{
    return false;  // TODO(signature conversions)
}

bool converter::ConvertSigFromMF(const string&, const string&)
{
    return false;  // TODO(signature conversions)
}

bool converter::ConvertSigFromDER(const string&, const string&)
{
    return false;  // TODO(signature conversions)
}

}  // namespace recaster
