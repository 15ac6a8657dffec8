// The audit log: one JSON line per request or event, on standard error or
// appended to a file, flushed line by line, each line chained to the one
// before it by its hash (auditChain.h). Safe to call from any thread.
#pragma once

#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace agent {

// What the log says about one request.
struct RequestRecord {
    unsigned clientPort = 0;
    long long uid = -1;  // -1: the kernel did not say
    std::string keyName;
    std::string fieldF;
    std::string digestHex;
    size_t digestLength = 0;
    bool signedIt = false;
    std::string reason;  // why it was refused
    // What kind of refusal it was, one of the names below, for the counts
    // by reason (the log line has the whole reason instead).
    const char* refusal = nullptr;
    long long microseconds = 0;
    long long signingMicroseconds = -1;  // the signature alone; -1: none made

    nlohmann::ordered_json ToJson() const;
};

// The kinds of refusal.
namespace refusals {
constexpr const char* OWNER_UNKNOWN = "owner-unknown";
constexpr const char* USER = "user-not-allowed";
constexpr const char* USER_SHARE = "user-connections";
constexpr const char* MALFORMED = "malformed";
constexpr const char* INCOMPLETE = "incomplete";
constexpr const char* TIMEOUT = "timeout";
constexpr const char* POLICY = "key-policy";
constexpr const char* UNKNOWN_KEY = "unknown-key";
constexpr const char* RATE_LIMIT = "rate-limit";
constexpr const char* SIGNING = "signing-failed";
constexpr const char* SENDING = "send-failed";
}  // namespace refusals

class AuditLog {
public:
    AuditLog() = default;
    ~AuditLog();
    AuditLog(const AuditLog&) = delete;
    AuditLog& operator=(const AuditLog&) = delete;

    // Appends to `path`; empty means standard error. The chain goes on from
    // the file's last line. False with the reason in `error` when the file
    // cannot be opened.
    bool Open(const std::string& path, std::string& error);
    // Opens the file again by its path, for log rotation: lines after this
    // go to whatever file now has that name. Nothing to do on standard
    // error. False with the reason in `error`; the old file is kept then.
    bool Reopen(std::string& error);
    // Writes `line` (a "time" member is put first, "prev" last) and
    // flushes.
    void Write(const nlohmann::ordered_json& line);

    // The current time as UTC ISO 8601 text with microseconds.
    static std::string Now();

private:
    std::mutex _mutex;
    std::string _path;
    FILE* _file = stderr;
    std::string _last;  // the hash of the last line written; empty before the first
};

}  // namespace agent
