// One thread's loop: accepting, reading with deadlines, signing, answering.
#include "servingLoop.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hexText.h"

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

bool AddToEpoll(int epoll, int fd, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
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
    record.digestHex = markforge::LowerHex(request.digest);
}

}  // namespace

ServingLoop::ServingLoop(ServerShared& shared) : _shared(shared) {}

ServingLoop::~ServingLoop()
{
    for (auto& entry : _reading) ::close(entry.first);
    if (_epoll >= 0) ::close(_epoll);
}

bool ServingLoop::Watch(int stopFd, std::string& error)
{
    _stopFd = stopFd;
    _epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (_epoll < 0 || !AddToEpoll(_epoll, stopFd, EPOLLIN)) {
        error = std::string("epoll: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void ServingLoop::Run()
{
    epoll_event events[MAX_EVENTS];
    while (!_stopping || !_reading.empty()) {
        if (!_stopping) WatchListener(_shared.open < _shared.settings.maxConnections);
        const int ready = ::epoll_wait(_epoll, events, MAX_EVENTS, static_cast<int>(UntilNextDeadline().count()));
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd == _stopFd) {
                _stopping = true;
                WatchListener(false);
                ::epoll_ctl(_epoll, EPOLL_CTL_DEL, _stopFd, nullptr);
            } else if (fd == _shared.listener) {
                if (!_stopping) AcceptOne();
            } else {
                ReadFrom(fd);
            }
        }
        DropExpired();
    }
}

// Every loop watches the listener; EPOLLEXCLUSIVE wakes one waiting loop
// per new connection instead of all of them.
void ServingLoop::WatchListener(bool on)
{
    if (on == _listening) return;
    if (on)
        AddToEpoll(_epoll, _shared.listener, EPOLLIN | EPOLLEXCLUSIVE);
    else
        ::epoll_ctl(_epoll, EPOLL_CTL_DEL, _shared.listener, nullptr);
    _listening = on;
}

std::chrono::milliseconds ServingLoop::UntilNextDeadline() const
{
    auto wait = _shared.settings.readTimeout;
    if (!_stopping && !_listening) wait = std::min(wait, CAP_RECHECK);
    const auto now = std::chrono::steady_clock::now();
    for (const auto& entry : _reading) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(entry.second->deadline - now) +
                          std::chrono::milliseconds(1);
        wait = std::min(wait, std::max(left, std::chrono::milliseconds(0)));
    }
    return wait;
}

// One connection per call: a loop that took several at once would sign
// them one after another while another loop stood idle.
void ServingLoop::AcceptOne()
{
    // The place among the open connections is taken before the accept, so
    // that loops accepting at the same moment never pass the cap together.
    if (_shared.open.fetch_add(1) >= _shared.settings.maxConnections) {
        --_shared.open;
        return;
    }
    auto connection = std::make_unique<Connection>();
    sockaddr_in client{};
    socklen_t length = sizeof client;
    connection->fd =
        ::accept4(_shared.listener, reinterpret_cast<sockaddr*>(&client), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (connection->fd < 0) {  // another loop was quicker
        --_shared.open;
        return;
    }
    connection->start = std::chrono::steady_clock::now();
    connection->deadline = connection->start + _shared.settings.readTimeout;
    connection->record.clientPort = ntohs(client.sin_port);
    const std::string refusal = Admit(*connection, client);
    if (!refusal.empty()) {
        Turn(*connection, refusal);
        return;
    }
    // A client writes its request right after connecting, so it has
    // mostly arrived already: such a connection never enters the loop.
    ParseResult parsed;
    const Next next = Judge(*connection, Receive(*connection), parsed);
    if (next == Next::Wait) {
        AddToEpoll(_epoll, connection->fd, EPOLLIN | EPOLLRDHUP);
        _reading.emplace(connection->fd, std::move(connection));
    } else {
        Conclude(std::move(connection), next, std::move(parsed));
    }
}

std::string ServingLoop::Admit(Connection& connection, const sockaddr_in& client)
{
    uid_t uid = 0;
    std::string error;
    const bool known = _peers.Lookup(client, _shared.address, uid, error);
    if (known) connection.record.uid = uid;
    if (!known && _shared.ownersKnown) {
        connection.record.refusal = refusals::OWNER_UNKNOWN;
        return "owner unknown: " + error;
    }
    const auto& allowed = _shared.settings.allowedUsers;
    if (!allowed.empty() && (!known || !allowed.count(uid))) {
        connection.record.refusal = refusals::USER;
        return "user not allowed";
    }
    if (!known) return "";
    if (!_shared.TakeUserSlot(uid)) {
        connection.record.refusal = refusals::USER_SHARE;
        return "user holds its share of " + std::to_string(_shared.UserShare()) + " connections";
    }
    connection.holdsUserSlot = true;
    return "";
}

std::unique_ptr<ServingLoop::Connection> ServingLoop::Release(int fd)
{
    auto found = _reading.find(fd);
    std::unique_ptr<Connection> connection = std::move(found->second);
    _reading.erase(found);
    ::epoll_ctl(_epoll, EPOLL_CTL_DEL, fd, nullptr);
    return connection;
}

void ServingLoop::ReadFrom(int fd)
{
    const auto found = _reading.find(fd);
    if (found == _reading.end()) return;
    ParseResult parsed;
    const Next next = Judge(*found->second, Receive(*found->second), parsed);
    if (next != Next::Wait) Conclude(Release(fd), next, std::move(parsed));
}

bool ServingLoop::Receive(Connection& connection)
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

ServingLoop::Next ServingLoop::Judge(Connection& connection, bool ended, ParseResult& parsed)
{
    parsed = ParseSignRequest(connection.bytes.data(), connection.bytes.size());
    NoteRequest(connection.record, parsed.request);
    if (parsed.status == ParseStatus::Complete) return Next::Sign;
    if (parsed.status == ParseStatus::Invalid) {
        connection.record.refusal = refusals::MALFORMED;
        return Next::Refuse;
    }
    if (!ended) return Next::Wait;
    connection.record.refusal = refusals::INCOMPLETE;
    parsed.reason = connection.bytes.empty()
                        ? "closed without a request"
                        : "closed after " + std::to_string(connection.bytes.size()) + " bytes of a request";
    return Next::Refuse;
}

void ServingLoop::Conclude(std::unique_ptr<Connection> connection, Next next, ParseResult parsed)
{
    if (next == Next::Sign)
        Serve(*connection, parsed.request);
    else
        Finish(*connection, parsed.reason);
}

void ServingLoop::DropExpired()
{
    const auto now = std::chrono::steady_clock::now();
    std::vector<int> expired;
    for (const auto& entry : _reading)
        if (entry.second->deadline <= now) expired.push_back(entry.first);
    for (const int fd : expired) {
        const size_t received = _reading[fd]->bytes.size();
        _reading[fd]->record.refusal = refusals::TIMEOUT;
        Finish(*Release(fd), "no complete request within " + std::to_string(_shared.settings.readTimeout.count()) +
                                 " ms (" + std::to_string(received) + " bytes)");
    }
}

void ServingLoop::Serve(Connection& connection, const SignRequest& request)
{
    // The policy first, then the key, then the user's allowance: a refused
    // request takes nothing of it.
    const long long uid = connection.record.uid;
    const AgentKey* key = _shared.keys.Find(request.keyName);
    const char*& kind = connection.record.refusal;
    std::string reason = _shared.policy.Refusal(request.keyName, uid);
    if (!reason.empty()) kind = refusals::POLICY;
    if (reason.empty() && !key) {
        kind = refusals::UNKNOWN_KEY;
        reason = "unknown key";
    }
    if (reason.empty() && !_shared.rate.Take(uid)) {
        kind = refusals::RATE_LIMIT;
        reason = "rate limit: more than " + std::to_string(_shared.rate.PerMinute()) + " signatures in a minute for " +
                 (uid < 0 ? std::string("unknown owners") : "user " + std::to_string(uid));
    }
    if (reason.empty()) SignAndSend(connection, *key, request.digest, reason);
    Finish(connection, reason);
}

void ServingLoop::SignAndSend(Connection& connection, const AgentKey& key, const std::vector<uint8_t>& digest,
                              std::string& reason)
{
    std::vector<uint8_t> signature;
    const auto start = std::chrono::steady_clock::now();
    const bool made = key.Sign(digest, signature, reason);
    connection.record.signingMicroseconds = MicrosecondsSince(start);
    if (!made) {
        connection.record.refusal = refusals::SIGNING;
    } else if (::send(connection.fd, signature.data(), signature.size(), MSG_NOSIGNAL) !=
               static_cast<ssize_t>(signature.size())) {
        connection.record.refusal = refusals::SENDING;
        reason = std::string("sending the signature failed: ") + std::strerror(errno);
    }
}

// The line is written, and the connection's slots given back, before it
// closes: whoever sees the close can already read why, and connect again.
void ServingLoop::Record(Connection& connection, const std::string& reason)
{
    connection.record.signedIt = reason.empty();
    connection.record.reason = reason;
    connection.record.microseconds = MicrosecondsSince(connection.start);
    ++(reason.empty() ? _shared.signedCount : _shared.refusedCount);
    _shared.metrics.Count(connection.record, _shared.keys.Find(connection.record.keyName) != nullptr);
    _shared.log.Write(connection.record.ToJson());
    if (connection.holdsUserSlot) _shared.ReleaseUserSlot(static_cast<uid_t>(connection.record.uid));
    connection.holdsUserSlot = false;
    --_shared.open;
}

void ServingLoop::Finish(Connection& connection, const std::string& reason)
{
    Record(connection, reason);
    // After an answer nothing is left unread: a plain close ends the stream.
    if (reason.empty())
        ::close(connection.fd);
    else
        DrainAndClose(connection.fd);
}

// Nothing of a connection refused at the door is read, not even to drain it.
void ServingLoop::Turn(Connection& connection, const std::string& reason)
{
    Record(connection, reason);
    ::close(connection.fd);
}

}  // namespace agent
