// markforge::sign: local and signing-agent signatures.
#include "sign.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <vector>

#include "hexString.h"
#include "keyname.h"
#include "lbHashId.h"
#include "lbMd.h"
#include "lbRsa.h"
#include "lbSteps.h"
#include "markforgeVersion.h"
#include "signAgentProtocol.h"

namespace markforge {
namespace {

constexpr size_t DEFAULT_LINE_WIDTH = 128;

bool IsChecksumLength(size_t length)
{
    return length == 64 || length == 96 || length == 128;
}

// The hash identifier for the digest of a checksum text of this length: the
// SHA-2 whose hex text is that long, any other length SHA-256.
unsigned DigestIdForText(size_t length)
{
    return lbHashId::Kept(lbHashId::ForDigestLength(length / 2));
}

string UpperCased(string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

void Complain(const char* message)
{
    std::cerr << message << std::endl;
}

// The hex text of `bytes`, broken after every line-width characters; a
// partial last line gets its line end too.
void PrintHexLines(std::ostream& out, const std::vector<uint8_t>& bytes)
{
    const lockbase::hexString hex(bytes);
    const size_t width = hex.lineWidth ? hex.lineWidth : DEFAULT_LINE_WIDTH;
    for (size_t at = 0; at < hex.text.size(); at += width) out << hex.text.substr(at, width) << '\n';
}

// Closes the agent connection on every way out of sign_hsm.
class AgentSocket {
public:
    AgentSocket() : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {}
    ~AgentSocket()
    {
        if (_fd >= 0) ::close(_fd);
    }
    AgentSocket(const AgentSocket&) = delete;
    AgentSocket& operator=(const AgentSocket&) = delete;

    bool Created() const { return _fd >= 0; }

    bool Connect()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(SIGN_AGENT_PORT);
        if (!inet_aton(SIGN_AGENT_ADDRESS, &address.sin_addr)) return false;
        return ::connect(_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    // One send of the whole request. An agent that has already hung up
    // yields an error here, never SIGPIPE.
    bool SendAll(const std::vector<uint8_t>& request)
    {
        const ssize_t sent = ::send(_fd, request.data(), request.size(), MSG_NOSIGNAL);
        return sent == static_cast<ssize_t>(request.size());
    }

    // One read of at most `limit` bytes (retried only when a signal cut it
    // short before any data arrived).
    ssize_t ReadOnce(uint8_t* into, size_t limit)
    {
        ssize_t got;
        do {
            got = ::read(_fd, into, limit);
        } while (got < 0 && errno == EINTR);
        return got;
    }

private:
    int _fd;
};

}  // namespace

bool sign::Open()
{
    return true;
}

bool sign::Close()
{
    return true;
}

bool sign::Sign(const string& checksum, const string& keyName, const string& mode, const string& fieldF,
                int isDigest, int fieldC, const string& extraArgs)
{
    LB_FUNCTION("bool markforge::sign::Sign(const string&, const string&, const string&, const string&, int, int, const string&)");
    // A wrong length is the caller's input error: it goes on the trail as a
    // note but does not stop the rest of the run.
    if (!IsChecksumLength(checksum.size())) {
        addMessage("*** Invalid input size for checksum  : \n"
                   "--- Expected 64/96/128 bytes received       : %zu\n",
                   checksum.size());
        return false;
    }

    lbBytes digest;
    if (!MakeDigest(lbFunction, UpperCased(checksum), isDigest, digest)) return false;

    // The mode is looked at only once the digest exists.
    if (mode == "production") return sign_hsm(digest, keyName, fieldF, fieldC, extraArgs) == 0;
    if (mode == "development") return SignWithKeyFile(lbFunction, keyName, digest);
    std::cerr << "*** Invalid value for --mode: " << mode << std::endl;
    return false;
}

bool sign::MakeDigest(const char* lbFunction, const string& text, int isDigest, lbBytes& digest)
{
    if (isDigest) {
        digest.ImportFromV(lockbase::hexString(text).bytes);
        return true;
    }
    // The digest of the hex text itself, not of the value it spells: what
    // the tool set has always signed.
    lbHashId id;
    LB_OPEN_WITH(id, id.Open(DigestIdForText(text.size())));
    lbMd md;
    LB_OPEN_WITH(md, md.Open(id));
    LB_CLOSE(id);
    LB_CHECK(md.Init());
    LB_CHECK(md.Update(text.data(), static_cast<unsigned>(text.size())));
    LB_CHECK(md.Final());
    LB_CHECK(md.GetBytes(digest));
    LB_CLOSE(md);
    return true;
}

bool sign::SignWithKeyFile(const char* lbFunction, const string& keyName, const lbBytes& digest)
{
    keyname names;
    LB_OPEN_WITH(names, names.Open(keyName, true));
    string path;
    LB_CHECK(names.GetKeyName(path));
    LB_CLOSE(names);

    lbRsa rsa;
    LB_OPEN(rsa);
    LB_CHECK(rsa.ReadKeyFromDisk(path));
    LB_CHECK(SignInternal(digest, rsa));
    LB_CLOSE(rsa);
    return true;
}

bool sign::SignInternal(const lbBytes& digest, lbRsa& key)
{
    LB_FUNCTION("bool markforge::sign::SignInternal(const lbBytes&, lbRsa&)");
    LB_CHECK(key.Sign(digest, signature));
    return true;
}

int sign::sign_hsm(const lbBytes& digest, const string& keyName, const string& fieldF, int fieldC,
                   const string& extraArgs)
{
    if (keyName.size() > signagent::MAX_KEY_NAME) {
        Complain("sign_hsm: keyname is too long");
        return -1;
    }
    if (digest.buffer.size() > signagent::MAX_DIGEST) {
        Complain("sign_hsm: digest is too long");
        return -1;
    }
    const string args = signagent::ArgumentText(fieldF, fieldC, digest.buffer.size(), extraArgs);
    const std::vector<uint8_t> request = signagent::Request(keyName, digest.buffer, args);

    // The trace shows the key name and the argument text whole, even where
    // the request's fields cut them.
    std::cout << "CCA sign: key:" << keyName << " data:";
    PrintHexLines(std::cout, digest.buffer);
    std::cout << "CCA args: " << args << std::endl;

    AgentSocket agent;
    if (!agent.Created()) {
        Complain("Unable to create socket");
        return -1;
    }
    if (!agent.Connect()) {
        Complain("Unable to connect to sign_agent");
        return -1;
    }
    // A short send is reported but the answer is still awaited.
    if (!agent.SendAll(request)) Complain("Unable to send to sign_agent");

    uint8_t answer[signagent::MAX_ANSWER];
    const ssize_t got = agent.ReadOnce(answer, sizeof answer);
    if (got < 0) {
        Complain("Failed to read from sign_agent");
        return -1;
    }
    if (got == 0) {
        Complain("Got blank string from sign_agent");
        return -1;
    }
    signature.buffer.assign(answer, answer + got);

    std::cout << "CCA sign: signature :";
    PrintHexLines(std::cout, signature.buffer);
    std::cout.flush();
    return 0;
}

bool sign::GetSignature(lbBytes& out)
{
    out.buffer = signature.buffer;
    return true;
}

}  // namespace markforge
