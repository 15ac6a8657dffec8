// Start-up, check mode, serving and shutdown.
#include "agentApp.h"

#include "auditChain.h"

#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

#include "agentServer.h"
#include "keyDirectory.h"
#include "pinFile.h"

namespace agent {
namespace {

sigset_t SignalSet(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (int signal : signals) sigaddset(&set, signal);
    return set;
}

// SIGTERM and SIGINT arrive through a descriptor the serving loops watch,
// SIGHUP and SIGUSR1 through one the control thread reads; all four are
// blocked here, before any thread starts, so every thread inherits the mask.
const sigset_t STOP_SIGNALS = SignalSet({SIGTERM, SIGINT});
const sigset_t CONTROL_SIGNALS = SignalSet({SIGHUP, SIGUSR1});

int BlockSignals(int& controlFd)
{
    const sigset_t all = SignalSet({SIGTERM, SIGINT, SIGHUP, SIGUSR1});
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    controlFd = ::signalfd(-1, &CONTROL_SIGNALS, SFD_CLOEXEC);
    return ::signalfd(-1, &STOP_SIGNALS, SFD_CLOEXEC);
}

bool WritePortFile(const std::string& path, unsigned short port, std::string& error)
{
    const std::string temporary = path + ".part";
    {
        std::ofstream out(temporary);
        out << port << '\n';
        if (!out) {
            error = "cannot write the port file " + path;
            return false;
        }
    }
    // Renamed into place, so a reader never sees a half-written number.
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot write the port file " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

int AgentApp::Fail(const std::string& reason)
{
    std::cerr << "markforge-agent: " << reason << std::endl;
    return 1;
}

int AgentApp::Run(const AgentOptions& options)
{
    if (!options.verifyAudit.empty()) return VerifyAudit(options.verifyAudit);
    std::string error;
    if (!_log.Open(options.auditLog, error)) return Fail(error);
    if (!LoadKeys(options, error)) return Fail(error);
    // A serving agent's log goes on with when it started and what it
    // serves ("open"; "reopen" after SIGHUP); --check logs only the files it
    // skipped.
    const bool serving = !options.check && !_keys.Empty();
    if (serving) {
        nlohmann::ordered_json opened{{"event", "open"}};
        opened.update(StartFields());
        _log.Write(opened);
    }
    for (const auto& file : _skipped)
        _log.Write({{"event", "skipped"}, {"file", file}, {"reason", "not a valid key name"}});
    if (_keys.Empty()) return Fail("no keys to serve");
    return options.check ? Check() : Serve(options);
}

bool AgentApp::LoadKeys(const AgentOptions& options, std::string& error)
{
    if (!options.keyDir.empty() && !KeyDirectory::Load(options.keyDir, _keys, _skipped, error)) return false;
    if (!options.pkcs11Module.empty()) {
        std::string pin;
        if (!PinFile::Read(options.pinFile, pin, error)) return false;
        _token = std::make_unique<Pkcs11Token>();
        const bool opened = _token->Open(options.pkcs11Module, options.token, pin, error);
        std::fill(pin.begin(), pin.end(), '\0');
        if (!opened || !_token->AddKeys(_keys, error)) return false;
    }
    return true;
}

nlohmann::ordered_json AgentApp::StartFields() const
{
    nlohmann::ordered_json keys = nlohmann::ordered_json::array();
    for (const AgentKey* key : _keys.Keys()) keys.push_back({{"name", key->Name()}, {"fingerprint", key->Fingerprint()}});
    return {{"started", _started}, {"keys", keys}};
}

// Reads each file line by line, oldest file first, through one chain check.
int AgentApp::VerifyAudit(const std::vector<std::string>& files)
{
    AuditChainCheck chain;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) return Fail("cannot read " + file + ": " + std::strerror(errno));
        chain.NextFile();
        std::string line;
        while (std::getline(in, line)) {
            if (!chain.Add(line)) {
                std::cout << file << ": line " << chain.LineInFile() << " breaks the chain: " << chain.Failure()
                          << std::endl;
                return 1;
            }
        }
    }
    std::cout << chain.Lines() << (chain.Lines() == 1 ? " line, " : " lines, ") << chain.Signatures()
              << (chain.Signatures() == 1 ? " signature" : " signatures") << "; the chain holds; last hash "
              << (chain.LastHash().empty() ? "none" : chain.LastHash()) << std::endl;
    return 0;
}

int AgentApp::Check() const
{
    for (const AgentKey* key : _keys.Keys()) std::cout << key->Name() << ' ' << key->Fingerprint() << '\n';
    std::cout.flush();
    return std::cout ? 0 : 1;
}

bool AgentApp::ResolveUsers(const std::vector<std::string>& names, std::set<uid_t>& uids, std::string& error)
{
    for (const auto& name : names) {
        passwd entry{}, *found = nullptr;
        char buffer[4096];
        if (::getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) == 0 && found) {
            uids.insert(found->pw_uid);
            continue;
        }
        char* end = nullptr;
        const unsigned long number = std::strtoul(name.c_str(), &end, 10);
        if (name.empty() || *end != '\0') {
            error = "unknown user " + name;
            return false;
        }
        uids.insert(static_cast<uid_t>(number));
    }
    return true;
}

bool AgentApp::ResolveKeyUsers(const std::vector<std::string>& pairs, std::map<std::string, std::set<uid_t>>& keyUsers,
                               std::string& error) const
{
    for (const std::string& pair : pairs) {
        const size_t colon = pair.find(':');
        const std::string key = pair.substr(0, colon);
        if (colon == std::string::npos || key.empty() || colon + 1 == pair.size()) {
            error = "--allow-key-user " + pair + " is not KEY:USER";
            return false;
        }
        if (!_keys.Find(key)) {
            error = "--allow-key-user " + pair + " names key " + key + ", which the agent does not serve";
            return false;
        }
        if (!ResolveUsers({pair.substr(colon + 1)}, keyUsers[key], error)) return false;
    }
    return true;
}

// SIGHUP reopens the audit log (after rotation), SIGUSR1 logs the counts;
// each is logged. Ends when the stop descriptor becomes readable (it is
// left unread for the serving loops).
void AgentApp::Control(int controlFd, int stopFd, const AgentServer& server)
{
    for (;;) {
        pollfd ready[2] = {{controlFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(ready, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (ready[1].revents) return;
        signalfd_siginfo info{};
        if (::read(controlFd, &info, sizeof info) != sizeof info) continue;
        if (info.ssi_signo == SIGHUP) {
            std::string error;
            // The new file starts with the start time and keys, chained to
            // the last line of the file before.
            const bool reopened = _log.Reopen(error);
            nlohmann::ordered_json line{{"event", "reopen"}, {"signal", "SIGHUP"}, {"result", reopened ? "reopened" : "kept"}};
            if (!reopened) line["reason"] = error;
            line.update(StartFields());
            _log.Write(line);
        } else {
            _log.Write({{"event", "status"},
                        {"signal", "SIGUSR1"},
                        {"signed", server.Signed()},
                        {"refused", server.Refused()},
                        {"open", server.OpenConnections()}});
        }
    }
}

int AgentApp::Serve(const AgentOptions& options)
{
    ServerSettings settings;
    std::string error;
    if (!ResolveUsers(options.allowUsers, settings.allowedUsers, error)) return Fail(error);
    settings.port = options.port;
    settings.workers = options.workers ? options.workers : std::max(1U, std::thread::hardware_concurrency());
    settings.maxConnections = options.maxConnections;
    settings.maxConnectionsPerUser = options.maxConnectionsPerUser;
    settings.readTimeout = std::chrono::milliseconds(static_cast<long long>(options.readTimeout * 1000));
    settings.rateLimit = options.rateLimit;
    std::map<std::string, std::set<uid_t>> keyUsers;
    if (!ResolveKeyUsers(options.allowKeyUsers, keyUsers, error)) return Fail(error);

    int controlFd = -1;
    const int stopFd = BlockSignals(controlFd);
    if (stopFd < 0 || controlFd < 0) return Fail(std::string("signalfd: ") + std::strerror(errno));
    const KeyPolicy policy(options.allowKeys, keyUsers);
    AgentServer server(settings, _keys, policy, _log);
    if (!server.Listen(error)) return Fail(error);
    if (!server.OwnerLookupWorks(error)) {
        const std::string unknownOwners = "the kernel does not name the owner of a connection here (" + error + ")";
        // Without it no client could be told apart: fail at start rather
        // than refuse every request.
        if (!settings.allowedUsers.empty()) return Fail("--allow-user cannot be honoured: " + unknownOwners);
        if (policy.NamesUsers()) return Fail("--allow-key-user cannot be honoured: " + unknownOwners);
        _log.Write({{"event", "notice"}, {"reason", unknownOwners + "; every request line has uid null"}});
    }
    if (!options.portFile.empty() && !WritePortFile(options.portFile, server.Port(), error)) return Fail(error);
    _log.Write({{"event", "start"},
                {"port", server.Port()},
                {"keys", _keys.Keys().size()},
                {"workers", settings.workers}});
    std::thread control([&] { Control(controlFd, stopFd, server); });
    const bool served = server.Run(stopFd, error);
    // A pending SIGTERM makes the stop descriptor readable for the control
    // thread too, when the loops could not even start.
    if (!served) ::kill(::getpid(), SIGTERM);
    control.join();
    ::close(controlFd);
    if (!served) return Fail(error);
    ::close(stopFd);
    _log.Write({{"event", "stop"}, {"signed", server.Signed()}, {"refused", server.Refused()}});
    return 0;
}

}  // namespace agent
