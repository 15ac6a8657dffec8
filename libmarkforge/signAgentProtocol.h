// The signing agent's protocol, as every party to it speaks it: one request
// per TCP connection to 127.0.0.1:8001 (a 32-byte key field, a 32- or 64-byte
// digest area and a 64-byte argument field, each zero-padded; no length
// prefix), answered by the raw signature. The signer, the agent and the
// benchmark's load generator all take the layout from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

// The signing agent listens on 127.0.0.1 at this port.
static constexpr unsigned short SIGN_AGENT_PORT = 8001;
static constexpr const char* SIGN_AGENT_ADDRESS = "127.0.0.1";

namespace signagent {

constexpr size_t KEY_FIELD_SIZE = 32;
constexpr size_t KEY_FIELD_BOUND = 31;  // bytes written, terminator included
constexpr size_t MAX_KEY_NAME = 31;     // longer names are refused; 31 are cut to 30
constexpr size_t SHORT_DIGEST_AREA = 32;
constexpr size_t LONG_DIGEST_AREA = 64;
constexpr size_t MAX_DIGEST = LONG_DIGEST_AREA;
constexpr size_t ARG_FIELD_SIZE = 64;
constexpr size_t ARG_FIELD_BOUND = 63;  // bytes written, terminator included
constexpr size_t SHORT_REQUEST = KEY_FIELD_SIZE + SHORT_DIGEST_AREA + ARG_FIELD_SIZE;  // 128
constexpr size_t LONG_REQUEST = KEY_FIELD_SIZE + LONG_DIGEST_AREA + ARG_FIELD_SIZE;    // 160
// The signer takes one read of at most this many bytes as the answer.
constexpr size_t MAX_ANSWER = 1024;

// The digest area for a digest of `length` bytes: 32 for exactly 32, else 64.
inline size_t DigestArea(size_t length)
{
    return length == SHORT_DIGEST_AREA ? SHORT_DIGEST_AREA : LONG_DIGEST_AREA;
}

// "F=<fieldF>;" when given, "C=1;" when fieldC is set, "S=<length>;", then
// the extra arguments as they stand.
std::string ArgumentText(const std::string& fieldF, int fieldC, size_t digestLength, const std::string& extraArgs);

// The request bytes; the key name and the argument text are cut to their
// fields' bounds. The digest must be at most MAX_DIGEST bytes.
std::vector<uint8_t> Request(const std::string& keyName, const std::vector<uint8_t>& digest,
                             const std::string& arguments);

}  // namespace signagent
}  // namespace markforge
