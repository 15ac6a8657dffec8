// markforge::agentSigner: one bounded exchange per signature.
#include "agentSigner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <sstream>

#include "hexString.h"

namespace markforge {
namespace {

constexpr double MIN_SECONDS = 1e-6;
constexpr double MAX_SECONDS = 1e6;

std::string SecondsText(double seconds)
{
    std::ostringstream text;
    text << seconds;
    return text.str();
}

// A socket closed on every way out.
class boundedSocket {
public:
    explicit boundedSocket(double seconds) : _fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        // The kernel applies the send time-out to connect as well.
        timeval limit{};
        limit.tv_sec = static_cast<time_t>(seconds);
        limit.tv_usec = static_cast<suseconds_t>(std::lround((seconds - std::floor(seconds)) * 1e6));
        if (limit.tv_sec == 0 && limit.tv_usec == 0) limit.tv_usec = 1;
        if (_fd >= 0 && (::setsockopt(_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
                         ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)) {
            ::close(_fd);
            _fd = -1;
        }
    }
    ~boundedSocket()
    {
        if (_fd >= 0) ::close(_fd);
    }
    boundedSocket(const boundedSocket&) = delete;
    boundedSocket& operator=(const boundedSocket&) = delete;

    int Fd() const { return _fd; }

private:
    int _fd;
};

bool TimedOut(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINPROGRESS;
}

}  // namespace

agentSigner::agentSigner(std::string keyName, double seconds, unsigned short port)
    : _keyName(std::move(keyName)), _seconds(seconds), _port(port)
{
    // A socket's time-out is whole seconds and microseconds: anything from
    // a microsecond to about eleven days is kept as it is.
    if (!(_seconds >= MIN_SECONDS)) _seconds = MIN_SECONDS;
    if (_seconds > MAX_SECONDS) _seconds = MAX_SECONDS;
}

std::string agentSigner::Describe() const
{
    return "the signing agent at " + std::string(SIGN_AGENT_ADDRESS) + ":" + std::to_string(_port);
}

signatureResult agentSigner::Sign(const signatureRequest& request)
{
    if (_keyName.size() > signagent::MAX_KEY_NAME)
        return signatureResult::Failed("key name '" + _keyName + "' is longer than the agent takes");
    if (request.toSign.size() > signagent::MAX_DIGEST)
        return signatureResult::Failed("a digest of " + std::to_string(request.toSign.size()) + " bytes is too long");
    const std::string arguments = signagent::ArgumentText(request.fieldF, 0, request.toSign.size(), "");
    const auto start = std::chrono::steady_clock::now();
    signatureResult result = Exchange(signagent::Request(_keyName, request.toSign, arguments));
    if (_trace) {
        const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
        _trace("sign: key " + _keyName + ", " + arguments + " digest " + lockbase::hexString(request.toSign).text +
               ": " + (result.Ok() ? std::to_string(result.signature.size()) + " bytes" : result.failure) + " in " +
               std::to_string(took.count()) + " us");
    }
    return result;
}

signatureResult agentSigner::Exchange(const std::vector<uint8_t>& request) const
{
    const std::string within = " within " + SecondsText(_seconds) + " s (--agent-timeout)";
    boundedSocket agent(_seconds);
    if (agent.Fd() < 0) return signatureResult::Failed(std::string("Unable to create socket: ") + std::strerror(errno));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(_port);
    inet_aton(SIGN_AGENT_ADDRESS, &address.sin_addr);
    if (::connect(agent.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return signatureResult::Failed(TimedOut(errno) ? "the agent did not accept the connection" + within
                                                       : std::string("Unable to connect to sign_agent (") +
                                                             std::strerror(errno) + ")");
    const ssize_t sent = ::send(agent.Fd(), request.data(), request.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(request.size()))
        return signatureResult::Failed(sent < 0 && TimedOut(errno) ? "the agent did not take the request" + within
                                                                   : "Unable to send to sign_agent");
    // The answer is what one read brings, as the protocol has it.
    signatureResult result;
    result.signature.resize(signagent::MAX_ANSWER);
    ssize_t got;
    do {
        got = ::recv(agent.Fd(), result.signature.data(), result.signature.size(), 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        return signatureResult::Failed(TimedOut(errno) ? "the agent did not answer" + within
                                                       : std::string("Failed to read from sign_agent (") +
                                                             std::strerror(errno) + ")");
    if (got == 0) return signatureResult::Failed("Got blank string from sign_agent");
    result.signature.resize(static_cast<size_t>(got));
    return result;
}

}  // namespace markforge
