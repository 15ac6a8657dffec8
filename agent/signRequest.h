// The signing agent's request: its fixed layout and the parser that decides,
// from the bytes received so far, whether a request is complete and valid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "signAgentProtocol.h"

namespace agent {

// The layout every party to the protocol shares.
using markforge::signagent::ARG_FIELD_SIZE;
using markforge::signagent::KEY_FIELD_SIZE;
using markforge::signagent::LONG_DIGEST_AREA;
using markforge::signagent::LONG_REQUEST;
using markforge::signagent::SHORT_DIGEST_AREA;
using markforge::signagent::SHORT_REQUEST;

// One request as the client laid it out.
struct SignRequest {
    std::string keyName;
    std::vector<uint8_t> digest;  // 32, 48 or 64 bytes
    std::string arguments;        // the argument text as sent
    std::string fieldF;           // value of the F= item, empty when absent
    size_t length = 0;            // 128 or 160
};

enum class ParseStatus { Incomplete, Complete, Invalid };

struct ParseResult {
    ParseStatus status = ParseStatus::Incomplete;
    SignRequest request;  // filled as far as read, also for an invalid one
    std::string reason;   // why it is invalid
};

// Parses the bytes received so far. Incomplete means more bytes may make a
// request; bytes past the request's length make it invalid.
ParseResult ParseSignRequest(const uint8_t* data, size_t size);

// True for a name a key may have: 1 to 31 visible ASCII characters, no '/',
// not starting with '.'.
bool IsValidKeyName(const std::string& name);

}  // namespace agent
