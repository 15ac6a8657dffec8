// A stand-in signing agent for tests: a TCP server on 127.0.0.1, port 8001,
// served from a thread of its own, that records every request byte for byte
// and answers the way the test asks.
//
// The port is one per machine, while several test runs (other build folders)
// may go on at once, beyond the reach of ctest's resource locks, and an
// installed markforge-agent may hold it. Where it can (as root), the test
// process first moves into a network namespace of its own, whose port 8001
// nothing else can touch. Elsewhere a peer takes a machine-wide lock (a
// bound Unix socket name) and keeps it until it stops; a test that needs
// nothing listening takes the same lock through ReservePort.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class SignAgentPeer {
public:
    SignAgentPeer();
    ~SignAgentPeer();
    SignAgentPeer(const SignAgentPeer&) = delete;
    SignAgentPeer& operator=(const SignAgentPeer&) = delete;

    // Takes the machine-wide port lock (waiting a bounded time for other
    // test runs) and checks that nothing listens on 127.0.0.1:8001. False,
    // with the reason in `error`, otherwise.
    bool ReservePort(std::string& error);
    // Reserves the port, listens on it and starts serving. False, with the
    // reason in `error`, when the port cannot be had.
    bool Start(std::string& error);
    // Stops serving and releases the port and the lock; also done by the
    // destructor.
    void Stop();

    // How each following connection is answered (the default is an empty
    // answer, which is the same as CloseWithoutAnswer):
    // reads the request, sends `answer` in one piece, closes.
    void AnswerWith(std::vector<uint8_t> answer);
    // reads the request, closes without a byte of answer.
    void CloseWithoutAnswer();
    // waits for the request, then drops the connection with a reset without
    // reading it.
    void ResetWithoutReading();
    // reads the request, sends what `answer` makes of it, closes.
    void AnswerBy(std::function<std::vector<uint8_t>(const std::vector<uint8_t>&)> answer);
    // reads the request and keeps the connection open without a byte of
    // answer until the peer stops.
    void NeverAnswer();

    // Like a real agent under load: every following connection is served on
    // a thread of its own and answered only after `delay`.
    void AnswerEachAfter(std::chrono::milliseconds delay);
    // The most connections that were being served at once.
    size_t MostInFlight() const { return _mostInFlight; }

    // The exact bytes received on each connection so far, in order.
    std::vector<std::vector<uint8_t>> Requests() const;

private:
    enum class Mode { Answer, Reset, Compute, Silent };

    void Serve();
    void Handle(int connection);
    static std::vector<uint8_t> ReadRequest(int connection);

    int _lock;
    int _listener;
    std::atomic<bool> _stopping;
    std::thread _thread;
    mutable std::mutex _mutex;
    Mode _mode;
    std::vector<uint8_t> _answer;
    std::function<std::vector<uint8_t>(const std::vector<uint8_t>&)> _compute;
    std::vector<std::vector<uint8_t>> _requests;
    std::chrono::milliseconds _delay{0};
    std::vector<std::thread> _servers;
    std::atomic<size_t> _inFlight{0};
    std::atomic<size_t> _mostInFlight{0};
};

}  // namespace testsupport
