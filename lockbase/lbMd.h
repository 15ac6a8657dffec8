// lbMd: a message digest over OpenSSL's EVP interface.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbBase.h"

class lbBytes;
class lbHashId;
struct evp_md_st;
struct evp_md_ctx_st;

class lbMd : public lbBase {
public:
    lbMd() : _md(nullptr), _ctx(nullptr), _finished(false) { LB_CONSTRUCTOR(); }
    lbMd(const lbMd& other);
    lbMd& operator=(const lbMd& other);
    virtual ~lbMd();

    using lbBase::Open;
    // Takes the algorithm of an opened hash id; the hash id may be closed
    // afterwards.
    bool Open(const lbHashId& id);
    // Starts a new digest.
    bool Init();
    // Feeds `length` bytes.
    bool Update(const char* data, unsigned length);
    // Finishes the digest.
    bool Final();
    // The finished digest as lower-case hexadecimal text.
    bool GetString(std::string& out) const;
    // The finished digest's bytes.
    bool GetBytes(lbBytes& out) const;
    // The digest length in bytes of the selected algorithm.
    bool GetLength(uint32_t& length) const;
    // Releases the algorithm and the running state.
    bool Close() override;

private:
    void Release();

    evp_md_st* _md;
    evp_md_ctx_st* _ctx;
    std::vector<uint8_t> _digest;
    bool _finished;
};
