// The PKCS#11 key source: URIs matched against libp11's view of the
// module, one login per token, recovery after a lost token.
#include "pkcs11Module.h"

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>

#include "signRequest.h"

namespace agent {
namespace {

// How often a lost module is loaded again, and how often, while it stays
// away for the same reason, the log says so once more. A new reason is
// said at once: the cause an operator must fix may have changed.
constexpr std::chrono::seconds RETRY_EVERY{1};
constexpr int RETRIES_BETWEEN_NOTES = 60;

// The newest error libp11 or the module left in OpenSSL's queue.
std::string TokenError()
{
    unsigned long code = 0, last;
    while ((last = ERR_get_error()) != 0) code = last;
    if (code == 0) return "no detail given";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

std::string Text(const char* value) { return value ? value : ""; }

TokenFacts FactsOf(PKCS11_SLOT* slot)
{
    TokenFacts facts;
    facts.slotId = PKCS11_get_slotid_from_slot(slot);
    facts.slotManufacturer = Text(slot->manufacturer);
    facts.slotDescription = Text(slot->description);
    facts.label = Text(slot->token->label);
    facts.manufacturer = Text(slot->token->manufacturer);
    facts.model = Text(slot->token->model);
    facts.serial = Text(slot->token->serialnr);
    return facts;
}

KeyFacts FactsOf(const PKCS11_KEY& key)
{
    return {Text(key.label), std::vector<uint8_t>(key.id, key.id + key.id_len)};
}

// The contexts of lost modules, kept for the life of the process (see
// RetireLostContext): a list that is never destroyed, so that they stay
// reachable and a leak checker does not count them as lost.
std::vector<std::pair<PKCS11_CTX*, PKCS11_SLOT*>>& RetiredContexts()
{
    static auto* retired = new std::vector<std::pair<PKCS11_CTX*, PKCS11_SLOT*>>;
    return *retired;
}

std::vector<uint8_t> PublicDer(EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    std::vector<uint8_t> bytes;
    if (length > 0) bytes.assign(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

}  // namespace

Pkcs11Module::Pkcs11Module(std::string path)
    : _path(std::move(path)), _guard(std::make_shared<TokenGuard>([this](const std::string& why) { Lost(why); }))
{
}

Pkcs11Module::~Pkcs11Module()
{
    {
        std::lock_guard<std::mutex> lock(_wakeMutex);
        _stopping = true;
    }
    _wake.notify_all();
    if (_recovery.joinable()) _recovery.join();
    for (PKCS11_SLOT* slot : _loggedIn) PKCS11_logout(slot);
    Close();
    for (Served& served : _served) OPENSSL_cleanse(&served.pin[0], served.pin.size());
}

bool Pkcs11Module::Load(std::string& error)
{
    // The module stays mapped for the life of the process, however often
    // libp11 unloads it: a module's thread-specific state (p11-kit's client
    // keeps some) must not outlive its code and data when the recovery
    // loads it anew, and PKCS#11 allows C_Finalize then C_Initialize in one
    // process. The handle is deliberately never closed.
    _module = ::dlopen(_path.c_str(), RTLD_NOW | RTLD_NODELETE);
    if (!_module) {
        const char* why = ::dlerror();
        error = "cannot load the PKCS#11 module " + _path + ": " + (why ? why : "no detail given");
        return false;
    }
    return Open(error);
}

bool Pkcs11Module::Open(std::string& error)
{
    _ctx = PKCS11_CTX_new();
    if (!_ctx) {
        error = "cannot create a PKCS#11 context";
        return false;
    }
    if (PKCS11_CTX_load(_ctx, _path.c_str()) != 0) {
        error = "cannot load the PKCS#11 module " + _path + ": " + TokenError();
        return false;
    }
    _loaded = true;
    if (PKCS11_enumerate_slots(_ctx, &_slots, &_slotCount) != 0) {
        error = "cannot list the slots of " + _path + ": " + TokenError();
        return false;
    }
    return true;
}

// libp11 0.4.12 corrupts the heap when it tears down the slots and sessions
// of a module whose calls have started to fail (seen with p11-kit's client
// after its link dropped: an abort when a thread exits later). So the lost
// context is kept as it is, a few kilobytes per loss, and only the module is
// finalized, directly, so that loading it anew connects again.
void Pkcs11Module::RetireLostContext()
{
    using GetFunctionList = CK_RV (*)(CK_FUNCTION_LIST_PTR_PTR);
    const auto getList = reinterpret_cast<GetFunctionList>(::dlsym(_module, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR functions = nullptr;
    if (getList && getList(&functions) == CKR_OK && functions) functions->C_Finalize(nullptr);
    static std::mutex retiring;
    {
        std::lock_guard<std::mutex> lock(retiring);
        RetiredContexts().emplace_back(_ctx, _slots);
    }
    _ctx = nullptr;
    _slots = nullptr;
    _slotCount = 0;
    _loaded = false;
    _loggedIn.clear();
}

void Pkcs11Module::Close()
{
    if (_slots) PKCS11_release_all_slots(_ctx, _slots, _slotCount);
    if (_loaded) PKCS11_CTX_unload(_ctx);
    if (_ctx) PKCS11_CTX_free(_ctx);
    _slots = nullptr;
    _slotCount = 0;
    _loaded = false;
    _ctx = nullptr;
    _loggedIn.clear();
}

PKCS11_SLOT* Pkcs11Module::FindToken(const Pkcs11Uri& uri, std::string& error)
{
    const ModuleFacts module{Text(_ctx->manufacturer), Text(_ctx->description)};
    std::vector<PKCS11_SLOT*> found;
    for (unsigned int i = 0; i < _slotCount; ++i) {
        PKCS11_SLOT* slot = &_slots[i];
        if (slot->token && slot->token->initialized && uri.Matches(module) && uri.Matches(FactsOf(slot)))
            found.push_back(slot);
    }
    if (found.size() == 1) return found[0];
    if (found.empty()) {
        error = uri.Text() + " matches no token of " + _path;
        return nullptr;
    }
    std::vector<std::string> labels;
    for (PKCS11_SLOT* slot : found) labels.push_back(Text(slot->token->label));
    std::sort(labels.begin(), labels.end());
    error = uri.Text() + " matches " + std::to_string(found.size()) + " tokens of " + _path + " (";
    for (size_t i = 0; i < labels.size(); ++i) error += (i ? ", " : "") + labels[i];
    error += "); name one with token= or serial=";
    return nullptr;
}

bool Pkcs11Module::LogIn(PKCS11_SLOT* slot, const std::string& pin, std::string& error)
{
    if (_loggedIn.count(slot) || !slot->token->loginRequired) return true;
    // One attempt only: retrying a wrong PIN would walk the token towards
    // its lockout.
    if (PKCS11_login(slot, 0, pin.c_str()) != 0) {
        error = "login to token " + Text(slot->token->label) + " refused: " + TokenError();
        return false;
    }
    _loggedIn.insert(slot);
    return true;
}

bool Pkcs11Module::MatchingKeys(PKCS11_SLOT* slot, const Pkcs11Uri& uri, bool every, std::vector<PKCS11_KEY*>& keys,
                                std::string& error)
{
    PKCS11_KEY* all = nullptr;
    unsigned int count = 0;
    if (PKCS11_enumerate_keys(slot->token, &all, &count) != 0) {
        error = "cannot list the keys of token " + Text(slot->token->label) + ": " + TokenError();
        return false;
    }
    for (unsigned int i = 0; i < count; ++i) {
        if (!all[i].isPrivate || !all[i].label) continue;
        if (every ? IsValidKeyName(all[i].label) : uri.Matches(FactsOf(all[i]))) keys.push_back(&all[i]);
    }
    return true;
}

bool Pkcs11Module::Serve(PKCS11_SLOT* slot, PKCS11_KEY* key, const std::string& pin, KeyStore& store,
                         std::string& error)
{
    const std::string name = Text(key->label);
    PkeyPtr pkey(PKCS11_get_private_key(key));
    if (!pkey) {
        error = "cannot use token key " + name + ": " + TokenError();
        return false;
    }
    Pkcs11Uri exact;
    if (!exact.Parse(Pkcs11Uri::Identify(FactsOf(slot), FactsOf(*key)), error)) return false;
    auto served = std::make_unique<AgentKey>(name, std::move(pkey), _guard);
    AgentKey* held = served.get();
    if (!served->Prepare(error) || !store.Add(std::move(served), error)) return false;
    _served.push_back({held, std::move(exact), pin});
    return true;
}

bool Pkcs11Module::AddKey(const Pkcs11Uri& uri, const std::string& pin, KeyStore& store, std::string& error)
{
    PKCS11_SLOT* slot = FindToken(uri, error);
    std::vector<PKCS11_KEY*> keys;
    if (!slot || !LogIn(slot, pin, error) || !MatchingKeys(slot, uri, false, keys, error)) return false;
    if (keys.size() != 1) {
        error = uri.Text() + (keys.empty() ? " matches no private key" : " matches " + std::to_string(keys.size()) +
                                                                          " private keys; tell them apart with id=") +
                " on token " + Text(slot->token->label);
        return false;
    }
    return Serve(slot, keys[0], pin, store, error);
}

bool Pkcs11Module::AddTokenKeys(const Pkcs11Uri& token, const std::string& pin, KeyStore& store, std::string& error)
{
    PKCS11_SLOT* slot = FindToken(token, error);
    std::vector<PKCS11_KEY*> keys;
    if (!slot || !LogIn(slot, pin, error) || !MatchingKeys(slot, token, true, keys, error)) return false;
    for (PKCS11_KEY* key : keys)
        if (!Serve(slot, key, pin, store, error)) return false;
    return true;
}

std::vector<std::pair<std::string, std::string>> Pkcs11Module::KeyUris() const
{
    std::vector<std::pair<std::string, std::string>> uris;
    for (const Served& served : _served) uris.emplace_back(served.key->Name(), served.uri.Text());
    return uris;
}

void Pkcs11Module::StartRecovery(Events events)
{
    _events = std::move(events);
    _recovery = std::thread([this] { Recover(); });
}

void Pkcs11Module::Lost(const std::string& reason)
{
    ++_tokenErrors;
    if (_events) _events({{"event", "token"}, {"state", "lost"}, {"module", _path}, {"reason", reason}});
    {
        std::lock_guard<std::mutex> lock(_wakeMutex);
        _lost = true;
    }
    _wake.notify_all();
}

// Waits for a lost module, then loads it again every RETRY_EVERY until it
// is back.
void Pkcs11Module::Recover()
{
    std::unique_lock<std::mutex> lock(_wakeMutex);
    for (;;) {
        _wake.wait(lock, [this] { return _stopping || _lost; });
        if (_stopping) return;
        std::string said;
        for (int attempt = 0; !_stopping; ++attempt) {
            lock.unlock();
            std::string error;
            const bool back = Reconnect(error);
            // Back, given up, a new reason, or the first attempt of each
            // minute is said.
            const bool news = back || _givenUp || error != said || attempt % RETRIES_BETWEEN_NOTES == 0;
            if (!back) said = error;
            if (_events && news)
                _events(back ? nlohmann::ordered_json{{"event", "token"}, {"state", "back"}, {"module", _path},
                                                      {"attempts", attempt + 1}}
                             : nlohmann::ordered_json{{"event", "token"}, {"state", "away"}, {"module", _path},
                                                      {"reason", error}});
            lock.lock();
            if (back) {
                _lost = false;
                break;
            }
            if (_givenUp) return;
            _wake.wait_for(lock, RETRY_EVERY, [this] { return _stopping; });
        }
    }
}

bool Pkcs11Module::GiveUp(const std::string& reason, std::string& error)
{
    _givenUp = true;
    error = reason;
    return false;
}

bool Pkcs11Module::Reconnect(std::string& error)
{
    std::unique_lock<std::shared_mutex> alone(_guard->Mutex());
    if (_slots) RetireLostContext();
    // A context that loaded the module but could not list its slots holds
    // nothing yet: libp11 takes it down as usual.
    Close();
    if (!Open(error)) return false;
    for (const Served& served : _served) {
        PKCS11_SLOT* slot = FindToken(served.uri, error);
        std::vector<PKCS11_KEY*> keys;
        if (!slot) return false;
        if (!LogIn(slot, served.pin, error)) {
            // The PIN that worked is refused now: trying again every second
            // would walk the token to its lockout.
            return GiveUp(error + "; the agent stops trying (restart it once the token takes the PIN again)", error);
        }
        if (!MatchingKeys(slot, served.uri, false, keys, error)) return false;
        if (keys.size() != 1) {
            error = served.uri.Text() + " matches " + std::to_string(keys.size()) + " private keys now";
            return false;
        }
        PkeyPtr pkey(PKCS11_get_private_key(keys[0]));
        // The same name must be the same key: a token changed while it was
        // away does not get to sign in the old key's name.
        if (!pkey || PublicDer(pkey.get()) != served.key->PublicDer())
            return GiveUp("key " + served.key->Name() + " is not the key it was before the token was lost; the agent "
                          "stops trying",
                          error);
        served.key->ReplacePrivate(std::move(pkey));
    }
    _guard->Back();
    return true;
}

}  // namespace agent
