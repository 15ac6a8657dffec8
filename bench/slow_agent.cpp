// A stand-in signing agent for the benchmark: listens on 127.0.0.1:PORT and
// answers every request after DELAY milliseconds with a real signature by
// the markforge key file KEY, each connection on a thread of its own, so
// that requests in flight together are answered together.
//   usage: slow_agent KEY.markforge DELAY-MS [PORT]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "digestStream.h"
#include "keyFileSigner.h"
#include "signAgentProtocol.h"

namespace {

using namespace markforge;

// Reads one whole request: 160 bytes, or 128 when the digest is 32 bytes.
std::vector<uint8_t> ReadRequest(int fd)
{
    std::vector<uint8_t> request(signagent::LONG_REQUEST);
    size_t got = 0;
    while (got < request.size()) {
        const ssize_t n = ::recv(fd, request.data() + got, request.size() - got, 0);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
        const char* arguments =
            reinterpret_cast<const char*>(request.data() + signagent::KEY_FIELD_SIZE + signagent::SHORT_DIGEST_AREA);
        if (got == signagent::SHORT_REQUEST && std::strstr(arguments, "S=32;")) break;
    }
    request.resize(got);
    return request;
}

void Serve(int fd, keyFileSigner& key, std::chrono::milliseconds delay)
{
    const std::vector<uint8_t> request = ReadRequest(fd);
    const size_t length = request.size() == signagent::SHORT_REQUEST ? 32 : 64;
    signatureRequest asked;
    if (request.size() >= signagent::KEY_FIELD_SIZE + length) {
        asked.toSign.assign(request.begin() + signagent::KEY_FIELD_SIZE,
                            request.begin() + signagent::KEY_FIELD_SIZE + static_cast<long>(length));
        // A long area holds 48 or 64 bytes; the argument text says which.
        const std::string arguments(reinterpret_cast<const char*>(request.data()) + request.size() - signagent::ARG_FIELD_SIZE);
        if (length == 64 && arguments.find("S=48;") != std::string::npos) asked.toSign.resize(48);
        asked.hashId = digestStream::IdForLength(asked.toSign.size());
    }
    std::this_thread::sleep_for(delay);
    const signatureResult signature = key.Sign(asked);
    if (signature.Ok()) (void)!::send(fd, signature.signature.data(), signature.signature.size(), MSG_NOSIGNAL);
    ::close(fd);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: slow_agent KEY.markforge DELAY-MS [PORT]\n");
        return 2;
    }
    keyFileSigner key;
    std::string reason;
    if (!key.Load(argv[1], reason)) {
        std::fprintf(stderr, "slow_agent: %s\n", reason.c_str());
        return 1;
    }
    const std::chrono::milliseconds delay(std::atoi(argv[2]));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(argc > 3 ? static_cast<unsigned short>(std::atoi(argv[3])) : SIGN_AGENT_PORT);
    inet_aton(SIGN_AGENT_ADDRESS, &address.sin_addr);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 64) != 0) {
        std::perror("slow_agent: listen");
        return 1;
    }
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) std::thread(Serve, fd, std::ref(key), delay).detach();
    }
}
