// Load generator for markforge-agent: C clients on 127.0.0.1, each sending
// one request per connection back to back for a fixed time; prints the
// signature rate and the mean round trip as key=value words.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Settings {
    unsigned short port = 8001;
    int clients = 1;
    double seconds = 10;
    std::string key = "bench";
    size_t digestLength = 32;
};

std::vector<uint8_t> Request(const Settings& settings)
{
    const size_t area = settings.digestLength == 32 ? 32 : 64;
    std::vector<uint8_t> request(32 + area + 64, 0);
    std::memcpy(request.data(), settings.key.c_str(), std::min<size_t>(settings.key.size(), 31));
    for (size_t i = 0; i < settings.digestLength; ++i) request[32 + i] = static_cast<uint8_t>(i * 7 + 1);
    const std::string arguments = "F=bench.bin;C=1;S=" + std::to_string(settings.digestLength) + ";";
    std::memcpy(request.data() + 32 + area, arguments.c_str(), arguments.size());
    return request;
}

// One request on a new connection, as the library's signer makes it; true
// when a signature came back.
bool SignOnce(const sockaddr_in& address, const std::vector<uint8_t>& request)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool answered = false;
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        uint8_t answer[1024];
        answered = ::read(fd, answer, sizeof answer) > 0;
    }
    if (fd >= 0) ::close(fd);
    return answered;
}

bool ParseArguments(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i], value = argv[i + 1];
        if (name == "--port") settings.port = static_cast<unsigned short>(std::atoi(value.c_str()));
        else if (name == "--clients") settings.clients = std::atoi(value.c_str());
        else if (name == "--seconds") settings.seconds = std::atof(value.c_str());
        else if (name == "--key") settings.key = value;
        else if (name == "--digest-length") settings.digestLength = static_cast<size_t>(std::atoi(value.c_str()));
        else return false;
    }
    return argc % 2 == 1 && settings.clients > 0 && settings.seconds > 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (!ParseArguments(argc, argv, settings)) {
        std::fprintf(stderr, "usage: agent_load [--port N] [--clients N] [--seconds S] [--key NAME] [--digest-length 32|48|64]\n");
        return 2;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(settings.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::vector<uint8_t> request = Request(settings);

    std::atomic<long> done{0}, failed{0}, busyMicroseconds{0};
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(settings.seconds);
    std::vector<std::thread> clients;
    for (int i = 0; i < settings.clients; ++i)
        clients.emplace_back([&] {
            while (std::chrono::steady_clock::now() < end) {
                const auto before = std::chrono::steady_clock::now();
                const bool answered = SignOnce(address, request);
                const auto spent = std::chrono::steady_clock::now() - before;
                ++(answered ? done : failed);
                busyMicroseconds += std::chrono::duration_cast<std::chrono::microseconds>(spent).count();
            }
        });
    for (auto& client : clients) client.join();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long total = done + failed;
    std::printf("signatures=%ld failed=%ld seconds=%.3f rate=%.1f mean_us=%.1f\n", done.load(), failed.load(), elapsed,
                done / elapsed, total ? static_cast<double>(busyMicroseconds) / total : 0.0);
    return failed == 0 && done > 0 ? 0 : 1;
}
