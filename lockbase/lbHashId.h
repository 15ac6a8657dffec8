// lbHashId: selects a digest algorithm by the framework's number.
#pragma once

#include "lbBase.h"

class lbHashId : public lbBase {
public:
    // The framework's digest numbers.
    static constexpr unsigned SHA256 = 3;
    static constexpr unsigned SHA512 = 4;
    static constexpr unsigned SHA384 = 5;

    // The number the archive, hashing and signing code works with for a
    // caller's `id`: 4 and 5 are kept, every other value means SHA-256.
    static constexpr unsigned Kept(unsigned id) { return id == SHA512 || id == SHA384 ? id : SHA256; }
    // The number of the SHA-2 whose digest is `length` bytes, or 0.
    static constexpr unsigned ForDigestLength(unsigned long length)
    {
        return length == 32 ? SHA256 : length == 48 ? SHA384 : length == 64 ? SHA512 : 0;
    }
    // The digest length in bytes of Kept(id).
    static constexpr unsigned DigestLength(unsigned id)
    {
        return Kept(id) == SHA512 ? 64 : Kept(id) == SHA384 ? 48 : 32;
    }

    lbHashId() : _id(0) { LB_CONSTRUCTOR(); }
    virtual ~lbHashId() { LB_DESTRUCTOR_CHECK("virtual lbHashId::~lbHashId()"); }

    using lbBase::Open;
    // Selects algorithm `id` (3 SHA-256, 4 SHA-512, 5 SHA-384); any other
    // number fails.
    bool Open(unsigned id);

    // The selected number, 0 before a successful Open.
    unsigned Id() const { return _id; }
    // OpenSSL's name of the selected algorithm, null before a successful Open.
    const char* AlgorithmName() const;

private:
    unsigned _id;
};
