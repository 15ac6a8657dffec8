// lbMd: digests through EVP_MD fetched from the current provider.
#include "lbMd.h"

#include <openssl/evp.h>

#include "lbBytes.h"
#include "lbHashId.h"
#include "lbSteps.h"

lbMd::lbMd(const lbMd& other) : lbBase(other), _md(nullptr), _ctx(nullptr), _finished(false)
{
    *this = other;
}

lbMd& lbMd::operator=(const lbMd& other)
{
    if (this == &other) return *this;
    Release();
    if (other._md && EVP_MD_up_ref(other._md)) _md = other._md;
    if (other._ctx) {
        _ctx = EVP_MD_CTX_new();
        // A context that was never initialised cannot be copied; the copy
        // then simply starts without running state.
        if (_ctx && !EVP_MD_CTX_copy_ex(_ctx, other._ctx)) {
            EVP_MD_CTX_free(_ctx);
            _ctx = EVP_MD_CTX_new();
        }
    }
    _digest = other._digest;
    _finished = other._finished;
    return *this;
}

lbMd::~lbMd()
{
    LB_DESTRUCTOR_CHECK("virtual lbMd::~lbMd()");
    Release();
}

void lbMd::Release()
{
    EVP_MD_CTX_free(_ctx);
    EVP_MD_free(_md);
    _ctx = nullptr;
    _md = nullptr;
    _digest.clear();
    _finished = false;
}

bool lbMd::Open(const lbHashId& id)
{
    LB_FUNCTION("bool lbMd::Open(const lbHashId&)");
    Release();
    if (!id.AlgorithmName()) {
        addHistory(lbFunction, __FILE__, __LINE__);
        addMessage("The hash id is not open");
        return false;
    }
    _md = EVP_MD_fetch(nullptr, id.AlgorithmName(), nullptr);
    _ctx = EVP_MD_CTX_new();
    if (!_md || !_ctx) {
        addHistory(lbFunction, __FILE__, __LINE__);
        addMessage("OpenSSL has no %s digest", id.AlgorithmName());
        Release();
        return false;
    }
    return true;
}

bool lbMd::Init()
{
    _digest.clear();
    _finished = false;
    return _ctx && _md && EVP_DigestInit_ex(_ctx, _md, nullptr) == 1;
}

bool lbMd::Update(const char* data, unsigned length)
{
    if (!_ctx || _finished) return false;
    if (length == 0) return true;
    return data && EVP_DigestUpdate(_ctx, data, length) == 1;
}

bool lbMd::Final()
{
    if (!_ctx || _finished) return false;
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(_ctx, out, &length) != 1) return false;
    _digest.assign(out, out + length);
    _finished = true;
    return true;
}

bool lbMd::GetString(std::string& out) const
{
    if (!_finished) return false;
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(_digest.size() * 2);
    for (uint8_t byte : _digest) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0F]);
    }
    out = std::move(text);
    return true;
}

bool lbMd::GetBytes(lbBytes& out) const
{
    if (!_finished) return false;
    out.buffer = _digest;
    return true;
}

bool lbMd::GetLength(uint32_t& length) const
{
    if (!_md) return false;
    const int size = EVP_MD_get_size(_md);
    if (size <= 0) return false;
    length = static_cast<uint32_t>(size);
    return true;
}

bool lbMd::Close()
{
    Release();
    return true;
}
