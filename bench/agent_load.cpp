// Load generator for markforge-agent: N clients on 127.0.0.1, each sending
// one request per connection back to back for a fixed time, as the
// library's signer does; prints the signature rate, the mean round trip and
// the generator's own CPU time per request as key=value words.
//
// The clients are N connections kept in flight by one thread on epoll, not
// N threads: the generator shares the machine's cores with the agent, and a
// thread per client would spend them on waking threads instead of signing.
// For the same reason it runs as a batch task (SCHED_BATCH): an answer that
// wakes it then does not take the core from a signing thread at once; it
// runs when a core is free or at the next tick, and takes every answer that
// has come in since.
//
// With --expect-refusal the key is one the agent does not serve: every
// connection is closed without an answer, which is what a request costs
// the agent and the generator without the signing.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "signAgentProtocol.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    unsigned short port = markforge::SIGN_AGENT_PORT;
    int clients = 1;
    double seconds = 10;
    std::string key = "bench";
    size_t digestLength = 32;
    bool expectRefusal = false;
};

struct Totals {
    long answered = 0;
    long refused = 0;
    long failed = 0;
    long long roundTripMicroseconds = 0;
};

// One client: its connection in flight and when that request began.
struct Client {
    int fd = -1;
    Clock::time_point start;
};

// The request the library's signer sends, laid out by the shared protocol.
std::vector<uint8_t> Request(const Settings& settings)
{
    std::vector<uint8_t> digest(settings.digestLength);
    for (size_t i = 0; i < digest.size(); ++i) digest[i] = static_cast<uint8_t>(i * 7 + 1);
    return markforge::signagent::Request(settings.key, digest,
                                         markforge::signagent::ArgumentText("bench.bin", 1, digest.size(), ""));
}

// Every request signs a different digest: its first eight bytes count up.
void NumberRequest(std::vector<uint8_t>& request, unsigned long long number)
{
    std::memcpy(request.data() + markforge::signagent::KEY_FIELD_SIZE, &number, sizeof number);
}

class LoadGenerator {
public:
    LoadGenerator(const Settings& settings, int epoll)
        : _settings(settings), _epoll(epoll), _request(Request(settings)), _clients(settings.clients)
    {
        _address.sin_family = AF_INET;
        _address.sin_port = htons(settings.port);
        _address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    Totals Run()
    {
        const auto end = Clock::now() + std::chrono::duration<double>(_settings.seconds);
        int inFlight = 0;
        for (size_t i = 0; i < _clients.size(); ++i) inFlight += Begin(i);
        epoll_event events[64];
        while (inFlight > 0) {
            const int ready = ::epoll_wait(_epoll, events, 64, 1000);
            if (ready < 0 && errno != EINTR) break;
            const bool more = Clock::now() < end;
            for (int i = 0; i < ready; ++i) {
                const size_t index = events[i].data.u64;
                Finish(index);
                --inFlight;
                if (more) inFlight += Begin(index);
            }
        }
        return _totals;
    }

private:
    // Connects client `index` and sends its request; 1 when it is now in
    // flight, 0 when that failed (counted).
    int Begin(size_t index)
    {
        Client& client = _clients[index];
        client.start = Clock::now();
        NumberRequest(_request, _next++);
        client.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = index;
        if (client.fd >= 0 &&
            ::connect(client.fd, reinterpret_cast<const sockaddr*>(&_address), sizeof _address) == 0 &&
            ::send(client.fd, _request.data(), _request.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(_request.size()) &&
            ::epoll_ctl(_epoll, EPOLL_CTL_ADD, client.fd, &event) == 0)
            return 1;
        Close(client);
        ++_totals.failed;
        return 0;
    }

    // The answer of client `index` has arrived (or the agent hung up).
    void Finish(size_t index)
    {
        Client& client = _clients[index];
        uint8_t answer[1024];
        const ssize_t got = ::recv(client.fd, answer, sizeof answer, MSG_DONTWAIT);
        if (got > 0)
            ++_totals.answered;
        else
            ++(got == 0 ? _totals.refused : _totals.failed);
        _totals.roundTripMicroseconds +=
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - client.start).count();
        Close(client);
    }

    static void Close(Client& client)
    {
        if (client.fd >= 0) ::close(client.fd);  // also leaves the epoll set
        client.fd = -1;
    }

    const Settings& _settings;
    const int _epoll;
    std::vector<uint8_t> _request;
    std::vector<Client> _clients;
    sockaddr_in _address{};
    unsigned long long _next = 0;
    Totals _totals;
};

bool ParseArguments(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--expect-refusal") {
            settings.expectRefusal = true;
            continue;
        }
        if (i + 1 == argc) return false;
        const std::string value = argv[++i];
        if (name == "--port") settings.port = static_cast<unsigned short>(std::atoi(value.c_str()));
        else if (name == "--clients") settings.clients = std::atoi(value.c_str());
        else if (name == "--seconds") settings.seconds = std::atof(value.c_str());
        else if (name == "--key") settings.key = value;
        else if (name == "--digest-length") settings.digestLength = static_cast<size_t>(std::atoi(value.c_str()));
        else return false;
    }
    // The request is laid out for these lengths only.
    const size_t length = settings.digestLength;
    return settings.clients > 0 && settings.seconds > 0 && (length == 32 || length == 48 || length == 64);
}

// Batch scheduling needs no privilege; without it the run is still valid,
// only the generator then costs the agent more.
void RunAsBatchTask()
{
    sched_param priority{};
    if (::sched_setscheduler(0, SCHED_BATCH, &priority) != 0) std::perror("agent_load: SCHED_BATCH");
}

double CpuSeconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (!ParseArguments(argc, argv, settings)) {
        std::fprintf(stderr, "usage: agent_load [--port N] [--clients N] [--seconds S] [--key NAME] "
                             "[--digest-length 32|48|64] [--expect-refusal]\n");
        return 2;
    }
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) {
        std::perror("agent_load: epoll_create1");
        return 1;
    }
    RunAsBatchTask();
    const auto start = Clock::now();
    const Totals totals = LoadGenerator(settings, epoll).Run();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const long requests = totals.answered + totals.refused + totals.failed;
    const long expected = settings.expectRefusal ? totals.refused : totals.answered;
    const long unexpected = requests - expected;
    std::printf("signatures=%ld refused=%ld failed=%ld seconds=%.3f rate=%.1f mean_us=%.1f client_cpu_us=%.1f\n",
                totals.answered, totals.refused, totals.failed, elapsed, expected / elapsed,
                requests ? static_cast<double>(totals.roundTripMicroseconds) / requests : 0.0,
                requests ? CpuSeconds() * 1e6 / requests : 0.0);
    ::close(epoll);
    return unexpected == 0 && expected > 0 ? 0 : 1;
}
