// A PKCS#11 module opened through libp11, and the keys the agent serves
// from its tokens: each found by a PKCS#11 URI, each token logged in to
// once. Signatures run side by side (libp11 gives each thread a session of
// its own). When one fails, the module serves nothing until its recovery has
// loaded it anew, logged in again and found every key again with the same
// public half: a token reached through p11-kit's client module comes back so
// after its link was lost, without a restart of the agent.
#pragma once

#include <libp11.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "keyStore.h"
#include "pkcs11Uri.h"
#include "tokenGuard.h"

namespace agent {

class Pkcs11Module {
public:
    // Told of the module's events: the token lost, back, or still away.
    using Events = std::function<void(const nlohmann::ordered_json&)>;

    explicit Pkcs11Module(std::string path);
    ~Pkcs11Module();
    Pkcs11Module(const Pkcs11Module&) = delete;
    Pkcs11Module& operator=(const Pkcs11Module&) = delete;

    const std::string& Path() const { return _path; }
    // Loads the module. False with the reason in `error`.
    bool Load(std::string& error);
    // Adds the one key `uri` names to `store`; its token (the one token the
    // URI's module, slot and token parts match) is logged in to with `pin`
    // unless it was already. False with the reason when the URI matches no
    // token or key, or more than one.
    bool AddKey(const Pkcs11Uri& uri, const std::string& pin, KeyStore& store, std::string& error);
    // Adds every labelled private key of the one token `token` matches.
    bool AddTokenKeys(const Pkcs11Uri& token, const std::string& pin, KeyStore& store, std::string& error);
    // For each key served: its name and the URI naming it exactly.
    std::vector<std::pair<std::string, std::string>> KeyUris() const;

    // Starts the recovery thread; `events` is told what it does.
    void StartRecovery(Events events);
    size_t TokenErrors() const { return _tokenErrors; }

private:
    struct Served {
        AgentKey* key;
        Pkcs11Uri uri;  // exact, as KeyUris shows it
        std::string pin;
    };

    bool Open(std::string& error);
    void Close();
    void RetireLostContext();
    // The one slot whose module, slot and token facts `uri` matches.
    PKCS11_SLOT* FindToken(const Pkcs11Uri& uri, std::string& error);
    bool LogIn(PKCS11_SLOT* slot, const std::string& pin, std::string& error);
    // The private keys of `slot` that `uri` matches (every labelled one when
    // `every` is set).
    bool MatchingKeys(PKCS11_SLOT* slot, const Pkcs11Uri& uri, bool every, std::vector<PKCS11_KEY*>& keys,
                      std::string& error);
    bool Serve(PKCS11_SLOT* slot, PKCS11_KEY* key, const std::string& pin, KeyStore& store, std::string& error);
    // Loads the module anew and gives every key its new private half.
    bool Reconnect(std::string& error);
    // Ends the recovery for good, with `reason` in `error`; false.
    bool GiveUp(const std::string& reason, std::string& error);
    void Recover();
    void Lost(const std::string& reason);

    std::string _path;
    void* _module = nullptr;
    PKCS11_CTX* _ctx = nullptr;
    PKCS11_SLOT* _slots = nullptr;
    unsigned int _slotCount = 0;
    bool _loaded = false;
    std::set<PKCS11_SLOT*> _loggedIn;
    std::vector<Served> _served;
    std::shared_ptr<TokenGuard> _guard;
    std::atomic<size_t> _tokenErrors{0};

    Events _events;
    std::thread _recovery;
    std::mutex _wakeMutex;
    std::condition_variable _wake;
    bool _stopping = false;
    bool _lost = false;
    bool _givenUp = false;  // the token refused the PIN while coming back
};

}  // namespace agent
