// The stand-in signing agent. Every wait is bounded, so a test that goes
// wrong fails instead of hanging.
#include "signAgentPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>

#include "privateNetwork.h"
#include "signAgentProtocol.h"

namespace testsupport {
namespace {

constexpr unsigned short AGENT_PORT = markforge::SIGN_AGENT_PORT;
constexpr int ACCEPT_POLL_MS = 50;
constexpr int FIRST_BYTE_TIMEOUT_MS = 5000;
// A request is written in one piece; once bytes stop arriving for this long
// the request is complete.
constexpr int IDLE_TIMEOUT_MS = 150;
constexpr size_t MAX_RECORDED = 65536;
constexpr auto LOCK_TIMEOUT = std::chrono::seconds(120);
constexpr auto LOCK_RETRY = std::chrono::milliseconds(50);

// The machine-wide lock on the port: a Unix socket bound to a name in the
// abstract namespace, held by its open descriptor; -1 with the reason in
// `error` when it cannot be had in time. Unlike a lock file it leaves nothing
// behind and does not depend on TMPDIR, which each test run may set to a
// folder of its own while runs in other folders still share the port.
int LockPort(std::string& error)
{
    // In a network namespace of its own (as root) the port, and the lock's
    // abstract socket name with it, belong to this test process alone; the
    // lock then only stands in for itself.
    EnterPrivateNetwork();
    static const char NAME[] = "markforge-sign-agent-8001.lock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, NAME, sizeof NAME - 1);
    const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + sizeof NAME - 1);
    const auto deadline = std::chrono::steady_clock::now() + LOCK_TIMEOUT;
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            error = std::string("cannot create the port lock's socket: ") + std::strerror(errno);
            return -1;
        }
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd;
        const int reason = errno;
        ::close(fd);
        if (reason != EADDRINUSE) {
            error = std::string("cannot take the port lock: ") + std::strerror(reason);
            return -1;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            error = "another test run held the lock on port 8001 for too long";
            return -1;
        }
        std::this_thread::sleep_for(LOCK_RETRY);
    }
}

bool WaitReadable(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&p, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// A listening socket on 127.0.0.1:8001, or -1 with the reason in `error`.
int Listen(std::string& error)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(AGENT_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 8) != 0) {
        error = "cannot listen on 127.0.0.1:8001 (is another process using the port?): " +
                std::string(std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

void SendAll(int fd, const std::vector<uint8_t>& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return;
        done += static_cast<size_t>(sent);
    }
}

// A whole request as the protocol lays it out: 160 bytes, or 128 whose
// argument field says the digest is 32 bytes. Anything else is read until
// the client goes quiet.
bool LooksWhole(const std::vector<uint8_t>& request)
{
    using namespace markforge::signagent;
    if (request.size() == LONG_REQUEST) return true;
    if (request.size() != SHORT_REQUEST) return false;
    const char* arguments = reinterpret_cast<const char*>(request.data() + KEY_FIELD_SIZE + SHORT_DIGEST_AREA);
    return std::string(arguments, strnlen(arguments, ARG_FIELD_SIZE)).find("S=32;") != std::string::npos;
}

}  // namespace

SignAgentPeer::SignAgentPeer() : _lock(-1), _listener(-1), _stopping(false), _mode(Mode::Answer) {}

SignAgentPeer::~SignAgentPeer()
{
    Stop();
}

bool SignAgentPeer::ReservePort(std::string& error)
{
    if (_lock < 0) _lock = LockPort(error);
    if (_lock < 0) return false;
    const int probe = Listen(error);
    if (probe < 0) return false;
    ::close(probe);
    return true;
}

bool SignAgentPeer::Start(std::string& error)
{
    if (_listener >= 0) return true;
    if (_lock < 0) _lock = LockPort(error);
    if (_lock < 0) return false;
    _listener = Listen(error);
    if (_listener < 0) return false;
    _stopping = false;
    _thread = std::thread([this] { Serve(); });
    return true;
}

void SignAgentPeer::Stop()
{
    _stopping = true;
    if (_thread.joinable()) _thread.join();
    if (_listener >= 0) ::close(_listener);
    _listener = -1;
    if (_lock >= 0) ::close(_lock);
    _lock = -1;
}

void SignAgentPeer::AnswerWith(std::vector<uint8_t> answer)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = Mode::Answer;
    _answer = std::move(answer);
}

void SignAgentPeer::CloseWithoutAnswer()
{
    AnswerWith({});
}

void SignAgentPeer::ResetWithoutReading()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = Mode::Reset;
}

void SignAgentPeer::AnswerBy(std::function<std::vector<uint8_t>(const std::vector<uint8_t>&)> answer)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = Mode::Compute;
    _compute = std::move(answer);
}

void SignAgentPeer::NeverAnswer()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = Mode::Silent;
}

std::vector<std::vector<uint8_t>> SignAgentPeer::Requests() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _requests;
}

void SignAgentPeer::Serve()
{
    while (!_stopping) {
        if (!WaitReadable(_listener, ACCEPT_POLL_MS)) continue;
        const int connection = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        std::chrono::milliseconds delay;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            delay = _delay;
        }
        if (delay.count() == 0) {
            Handle(connection);
            continue;
        }
        _servers.emplace_back([this, connection, delay] {
            const size_t now = ++_inFlight;
            for (size_t most = _mostInFlight; now > most && !_mostInFlight.compare_exchange_weak(most, now);) {
            }
            std::this_thread::sleep_for(delay);
            Handle(connection);
            --_inFlight;
        });
    }
    for (std::thread& server : _servers) server.join();
    _servers.clear();
}

void SignAgentPeer::AnswerEachAfter(std::chrono::milliseconds delay)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _delay = delay;
}

void SignAgentPeer::Handle(int connection)
{
    Mode mode;
    std::vector<uint8_t> answer;
    std::function<std::vector<uint8_t>(const std::vector<uint8_t>&)> compute;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        mode = _mode;
        answer = _answer;
        compute = _compute;
    }
    if (mode == Mode::Reset) {
        // Unread data plus a zero linger time makes close() send a reset.
        WaitReadable(connection, FIRST_BYTE_TIMEOUT_MS);
        const linger abort{1, 0};
        ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        ::close(connection);
        return;
    }
    std::vector<uint8_t> request = ReadRequest(connection);
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _requests.push_back(request);
    }
    if (mode == Mode::Silent) {
        // Holds the client until the peer stops; the client must give up
        // on its own.
        uint8_t scratch[256];
        while (!_stopping) {
            if (!WaitReadable(connection, ACCEPT_POLL_MS)) continue;
            if (::recv(connection, scratch, sizeof scratch, 0) <= 0) break;
        }
        ::close(connection);
        return;
    }
    SendAll(connection, mode == Mode::Compute ? compute(request) : answer);
    ::close(connection);
}

std::vector<uint8_t> SignAgentPeer::ReadRequest(int connection)
{
    std::vector<uint8_t> request;
    uint8_t chunk[4096];
    int timeout = FIRST_BYTE_TIMEOUT_MS;
    while (request.size() < MAX_RECORDED && !LooksWhole(request) && WaitReadable(connection, timeout)) {
        const ssize_t got = ::recv(connection, chunk, sizeof chunk, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        request.insert(request.end(), chunk, chunk + got);
        timeout = IDLE_TIMEOUT_MS;
    }
    return request;
}

}  // namespace testsupport
