// Start-up, check mode, serving and shutdown.
#include "agentApp.h"

#include "auditChain.h"

#include <poll.h>
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
#include "metricsFile.h"
#include "userNames.h"

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
    if (!_sources.Load(options, _keys, error)) return Fail(error);
    // A serving agent's log goes on with when it started and what it
    // serves ("open"; "reopen" after SIGHUP); --check logs only the files it
    // skipped.
    const bool serving = !options.check && !_keys.Empty();
    if (serving) {
        nlohmann::ordered_json opened{{"event", "open"}};
        opened.update(StartFields());
        _log.Write(opened);
    }
    for (const auto& file : _sources.Skipped())
        _log.Write({{"event", "skipped"}, {"file", file}, {"reason", "not a valid key name"}});
    if (_keys.Empty()) return Fail("no keys to serve");
    return options.check ? Check() : Serve(options);
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
    // A token's keys with the URI that names each exactly.
    const auto uris = _sources.TokenKeyUris();
    for (const AgentKey* key : _keys.Keys()) {
        std::cout << key->Name() << ' ' << key->Fingerprint();
        const auto uri = uris.find(key->Name());
        if (uri != uris.end()) std::cout << ' ' << uri->second;
        std::cout << '\n';
    }
    std::cout.flush();
    return std::cout ? 0 : 1;
}

// SIGHUP reopens the audit log (after rotation), SIGUSR1 logs the counts;
// each is logged. Ends when the stop descriptor becomes readable (it is
// left unread for the serving loops).
void AgentApp::Control(int controlFd, int stopFd, const AgentServer& server)
{
    const int wait = _metricsFile.empty() ? -1 : static_cast<int>(_metricsInterval * 1000);
    for (;;) {
        pollfd ready[2] = {{controlFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int count = ::poll(ready, 2, wait);
        if (count < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (count == 0) {
            WriteMetrics(server);
            continue;
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

// A failed write is logged once per cause and tried again next time.
void AgentApp::WriteMetrics(const AgentServer& server)
{
    std::string error;
    if (ReplaceMetricsFile(_metricsFile, server.Metrics().Text(server.OpenConnections(), _sources.TokenErrors()),
                           error)) {
        _metricsError.clear();
    } else if (error != _metricsError) {
        _metricsError = error;
        _log.Write({{"event", "notice"}, {"reason", error}});
    }
}

int AgentApp::Serve(const AgentOptions& options)
{
    _metricsFile = options.metricsFile;
    _metricsInterval = options.metricsInterval;
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
    if (!ResolveKeyUsers(options.allowKeyUsers, _keys, keyUsers, error)) return Fail(error);

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
    _sources.StartRecovery([this](const nlohmann::ordered_json& event) { _log.Write(event); });
    if (!_metricsFile.empty()) WriteMetrics(server);
    std::thread control([&] { Control(controlFd, stopFd, server); });
    const bool served = server.Run(stopFd, error);
    // A pending SIGTERM makes the stop descriptor readable for the control
    // thread too, when the loops could not even start.
    if (!served) ::kill(::getpid(), SIGTERM);
    control.join();
    ::close(controlFd);
    if (!served) return Fail(error);
    ::close(stopFd);
    if (!_metricsFile.empty()) WriteMetrics(server);
    _log.Write({{"event", "stop"}, {"signed", server.Signed()}, {"refused", server.Refused()}});
    return 0;
}

}  // namespace agent
