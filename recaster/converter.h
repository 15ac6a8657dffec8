// recaster::converter: chooses and performs one key or signature conversion.
#pragma once

#include <cstdint>
#include <string>

#include "lbBase.h"

namespace recaster {

using std::string;

// File formats by command-line word; "der" is an input format only.
enum class FileFormat : uint32_t { none = 0, raw = 1, pem = 2, markforge = 3, der = 4 };

class converter : public lbBase {
public:
    converter()
    {
        LB_CONSTRUCTOR();
        _iformat = FileFormat::raw;
        _oformat = FileFormat::markforge;
    }
    virtual ~converter() { LB_DESTRUCTOR_CHECK("virtual recaster::converter::~converter()"); }

    // Map a command-line word to the input / output format.
    bool SetIFormat(const string& name);
    bool SetOFormat(const string& name);

    // Key and signature conversion, chosen by the input format alone.
    bool ConvertKey(const string& input, const string& output);
    bool ConvertSig(const string& input, const string& output);

    // Key conversions by input format.
    bool ConvertFromBIN(const string& input, const string& output);
    bool ConvertFromPEM(const string& input, const string& output);
    bool ConvertFromMF(const string& input, const string& output);

    // Signature conversions by input format.
    bool ConvertSigFromBin(const string& input, const string& output);
    bool ConvertSigFromMF(const string& input, const string& output);
    bool ConvertSigFromDER(const string& input, const string& output);

    // Key file writers.
    bool write_raw_key(const string& path, std::string hex);
    bool write_markforge_public_key(const string& path, std::string n, std::string e);
    bool write_markforge_private_key(const string& path, std::string n, std::string e, std::string p,
                                     std::string q, std::string d);

    FileFormat IFormat() const { return _iformat; }
    FileFormat OFormat() const { return _oformat; }

private:
    bool WriteKeyFileThroughRsa(const char* lbFunction, const string& path, const string& n, const string& e,
                                const string& p, const string& q, const string& d);

    FileFormat _iformat;
    FileFormat _oformat;
};

}  // namespace recaster
