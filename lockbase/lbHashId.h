// lbHashId: selects a digest algorithm by the framework's number.
#pragma once

#include "lbBase.h"

class lbHashId : public lbBase {
public:
    // The framework's digest numbers.
    static constexpr unsigned SHA256 = 3;
    static constexpr unsigned SHA512 = 4;
    static constexpr unsigned SHA384 = 5;

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
