// A raw client of the signing agent for tests: builds requests byte for byte
// and reads the answer with bounded waits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agenttest {

using Bytes = std::vector<uint8_t>;

// A request as the library lays it out: 32-byte key field, 32- or 64-byte
// digest area, 64-byte argument field.
Bytes MakeRequest(const std::string& keyName, const Bytes& digest, const std::string& arguments);
// The usual arguments for a digest of this length.
std::string Arguments(size_t digestLength);
// `length` bytes counting up from `first`.
Bytes Pattern(size_t length, uint8_t first = 1);

// Whether the kernel names the owner of a loopback connection here (it does
// not under qemu's user mode); false with the reason in `why`.
bool OwnerLookupWorks(std::string& why);

// An open connection to 127.0.0.1:port.
class AgentConnection {
public:
    explicit AgentConnection(unsigned short port);
    ~AgentConnection();
    AgentConnection(const AgentConnection&) = delete;
    AgentConnection& operator=(const AgentConnection&) = delete;

    bool Connected() const { return _fd >= 0; }
    // One write of all the bytes.
    bool Send(const Bytes& bytes);
    // Reads until the agent closes (true) or `seconds` pass (false).
    bool ReadToEnd(Bytes& answer, double seconds = 20);
    // True when the agent has neither answered nor closed yet.
    bool StillOpen();
    // Hangs up at once.
    void Close();

private:
    int _fd;
};

// Sends `request` on a new connection and reads the whole answer; empty when
// the agent refused (or did not answer in time: `closed` tells).
Bytes Exchange(unsigned short port, const Bytes& request, bool* closed = nullptr);

}  // namespace agenttest
