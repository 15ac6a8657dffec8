// The listener, the reading loop and the signing workers.
#include "agentServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>


namespace agent {
namespace {

constexpr size_t READ_CHUNK = 4096;
// More than any request: the rest of a larger one is read and thrown away.
constexpr size_t MAX_KEPT = 2 * LONG_REQUEST;
// While the connection cap holds the listener off, the loop looks again
// this often for a finished connection.
constexpr std::chrono::milliseconds CAP_RECHECK{20};
constexpr int MAX_EVENTS = 64;

long long MicrosecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
}

void Watch(int epoll, int fd, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

// Reads and drops whatever has arrived, so that closing sends an orderly
// end of stream (which the client reads as an empty answer), not a reset.
void DrainAndClose(int fd)
{
    uint8_t sink[READ_CHUNK];
    while (::recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
    ::shutdown(fd, SHUT_WR);
    ::close(fd);
}

void NoteRequest(RequestRecord& record, const SignRequest& request)
{
    record.keyName = request.keyName;
    record.fieldF = request.fieldF;
    record.digestLength = request.digest.size();
    record.digestHex = HexText(request.digest);
}

}  // namespace

AgentServer::AgentServer(ServerSettings settings, const KeyStore& keys, const KeyPolicy& policy, AuditLog& log)
    : _settings(std::move(settings)), _keys(keys), _policy(policy), _log(log), _pool(_settings.workers)
{
}

AgentServer::~AgentServer()
{
    _pool.Finish();
    for (auto& entry : _reading) ::close(entry.first);
    if (_listener >= 0) ::close(_listener);
    if (_epoll >= 0) ::close(_epoll);
}

bool AgentServer::Listen(std::string& error)
{
    _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    _epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (_listener < 0 || _epoll < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int on = 1;
    ::setsockopt(_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    _address.sin_family = AF_INET;
    _address.sin_port = htons(_settings.port);
    _address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof _address;
    if (::bind(_listener, reinterpret_cast<const sockaddr*>(&_address), sizeof _address) != 0 ||
        ::listen(_listener, SOMAXCONN) != 0 ||
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&_address), &length) != 0) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(_settings.port) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void AgentServer::Run(int stopFd)
{
    Watch(_epoll, stopFd, EPOLLIN);
    WatchListener(true);
    bool stopping = false;
    epoll_event events[MAX_EVENTS];
    while (!stopping || !_reading.empty()) {
        if (!stopping) WatchListener(_open < _settings.maxConnections);
        const int ready = ::epoll_wait(_epoll, events, MAX_EVENTS, static_cast<int>(UntilNextDeadline().count()));
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd == stopFd) {
                stopping = true;
                WatchListener(false);
            } else if (fd == _listener) {
                Accept();
            } else {
                ReadFrom(fd);
            }
        }
        DropExpired();
    }
    _pool.Finish();
}

void AgentServer::WatchListener(bool on)
{
    if (on == _listening) return;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = _listener;
    ::epoll_ctl(_epoll, on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, _listener, &event);
    _listening = on;
}

std::chrono::milliseconds AgentServer::UntilNextDeadline() const
{
    auto wait = _settings.readTimeout;
    if (!_listening && _open >= _settings.maxConnections) wait = std::min(wait, CAP_RECHECK);
    const auto now = std::chrono::steady_clock::now();
    for (const auto& entry : _reading) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(entry.second->deadline - now) +
                          std::chrono::milliseconds(1);
        wait = std::min(wait, std::max(left, std::chrono::milliseconds(0)));
    }
    return wait;
}

void AgentServer::Accept()
{
    while (_open < _settings.maxConnections) {
        auto connection = std::make_unique<Connection>();
        sockaddr_in client{};
        socklen_t length = sizeof client;
        connection->fd = ::accept4(_listener, reinterpret_cast<sockaddr*>(&client), &length,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection->fd < 0) return;
        ++_open;
        connection->start = std::chrono::steady_clock::now();
        connection->deadline = connection->start + _settings.readTimeout;
        connection->record.clientPort = ntohs(client.sin_port);
        uid_t uid;
        std::string error;
        if (_peers.Lookup(client, _address, uid, error)) connection->record.uid = uid;
        // A client writes its request right after connecting, so it has
        // mostly arrived already: such a connection never enters the loop.
        ParseResult parsed;
        const Next next = Judge(*connection, Receive(*connection), parsed);
        if (next == Next::Wait) {
            Watch(_epoll, connection->fd, EPOLLIN | EPOLLRDHUP);
            _reading.emplace(connection->fd, std::move(connection));
        } else {
            Conclude(std::move(connection), next, std::move(parsed));
        }
    }
}

std::unique_ptr<AgentServer::Connection> AgentServer::Release(int fd)
{
    auto found = _reading.find(fd);
    std::unique_ptr<Connection> connection = std::move(found->second);
    _reading.erase(found);
    ::epoll_ctl(_epoll, EPOLL_CTL_DEL, fd, nullptr);
    return connection;
}

void AgentServer::ReadFrom(int fd)
{
    const auto found = _reading.find(fd);
    if (found == _reading.end()) return;
    ParseResult parsed;
    const Next next = Judge(*found->second, Receive(*found->second), parsed);
    if (next != Next::Wait) Conclude(Release(fd), next, std::move(parsed));
}

bool AgentServer::Receive(Connection& connection)
{
    uint8_t chunk[READ_CHUNK];
    for (;;) {
        const ssize_t got = ::recv(connection.fd, chunk, sizeof chunk, 0);
        if (got > 0) {
            const size_t room = MAX_KEPT - std::min(MAX_KEPT, connection.bytes.size());
            connection.bytes.insert(connection.bytes.end(), chunk, chunk + std::min(static_cast<size_t>(got), room));
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        return got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
}

AgentServer::Next AgentServer::Judge(Connection& connection, bool ended, ParseResult& parsed)
{
    parsed = ParseSignRequest(connection.bytes.data(), connection.bytes.size());
    NoteRequest(connection.record, parsed.request);
    if (parsed.status == ParseStatus::Complete) return Next::Sign;
    if (parsed.status == ParseStatus::Invalid) return Next::Refuse;
    if (!ended) return Next::Wait;
    parsed.reason = connection.bytes.empty()
                        ? "closed without a request"
                        : "closed after " + std::to_string(connection.bytes.size()) + " bytes of a request";
    return Next::Refuse;
}

void AgentServer::Conclude(std::unique_ptr<Connection> connection, Next next, ParseResult parsed)
{
    if (next == Next::Sign)
        Dispatch(std::move(connection), std::move(parsed.request));
    else
        Refuse(std::move(connection), parsed.reason);
}

void AgentServer::DropExpired()
{
    const auto now = std::chrono::steady_clock::now();
    std::vector<int> expired;
    for (const auto& entry : _reading)
        if (entry.second->deadline <= now) expired.push_back(entry.first);
    for (const int fd : expired) {
        const size_t received = _reading[fd]->bytes.size();
        Refuse(Release(fd), "no complete request within " + std::to_string(_settings.readTimeout.count()) +
                                " ms (" + std::to_string(received) + " bytes)");
    }
}

void AgentServer::Dispatch(std::unique_ptr<Connection> connection, SignRequest request)
{
    const uid_t uid = static_cast<uid_t>(connection->record.uid);
    if (!_settings.allowedUsers.empty() &&
        (connection->record.uid < 0 || !_settings.allowedUsers.count(uid))) {
        Refuse(std::move(connection), "user not allowed");
        return;
    }
    // The task owns the connection; std::function needs a copyable callable.
    std::shared_ptr<Connection> shared(std::move(connection));
    _pool.Post([this, shared, request = std::move(request)] { Serve(*shared, request); });
}

void AgentServer::Serve(Connection& connection, const SignRequest& request)
{
    std::string reason;
    std::vector<uint8_t> signature;
    const AgentKey* key = _keys.Find(request.keyName);
    if (!_policy.Allows(request.keyName))
        reason = "key not allowed";
    else if (!key)
        reason = "unknown key";
    else if (key->Sign(request.digest, signature, reason) &&
             ::send(connection.fd, signature.data(), signature.size(), MSG_NOSIGNAL) !=
                 static_cast<ssize_t>(signature.size()))
        reason = std::string("sending the signature failed: ") + std::strerror(errno);
    Finish(connection, reason);
}

void AgentServer::Refuse(std::unique_ptr<Connection> connection, const std::string& reason)
{
    Finish(*connection, reason);
}

// The line is written before the connection closes, so whoever sees the
// close can already read why.
void AgentServer::Finish(Connection& connection, const std::string& reason)
{
    connection.record.signedIt = reason.empty();
    connection.record.reason = reason;
    connection.record.microseconds = MicrosecondsSince(connection.start);
    ++(reason.empty() ? _signed : _refused);
    _log.Write(connection.record.ToJson());
    // After an answer nothing is left unread: a plain close ends the stream.
    if (reason.empty())
        ::close(connection.fd);
    else
        DrainAndClose(connection.fd);
    --_open;
}

}  // namespace agent
