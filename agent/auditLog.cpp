// The audit log writer.
#include "auditLog.h"

#include "auditChain.h"

#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace agent {

nlohmann::ordered_json RequestRecord::ToJson() const
{
    nlohmann::ordered_json line;
    line["event"] = "request";
    line["client_port"] = clientPort;
    line["uid"] = uid < 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(uid);
    line["key"] = keyName;
    line["F"] = fieldF;
    line["digest_length"] = digestLength;
    line["digest"] = digestHex;
    line["result"] = signedIt ? "signed" : "refused";
    if (!signedIt) line["reason"] = reason;
    line["microseconds"] = microseconds;
    return line;
}

AuditLog::~AuditLog()
{
    if (_file && _file != stderr) std::fclose(_file);
}

bool AuditLog::Open(const std::string& path, std::string& error)
{
    if (path.empty()) return true;
    bool cut = false;
    _last = AuditChain::LastHashOf(path, cut);
    FILE* file = std::fopen(path.c_str(), "ae");
    if (!file) {
        error = "cannot open the audit log " + path + ": " + std::strerror(errno);
        return false;
    }
    // A line cut short (the machine stopped mid-write) stays a line of its
    // own, which the chain names as it is.
    if (cut) std::fputc('\n', file);
    _file = file;
    _path = path;
    return true;
}

bool AuditLog::Reopen(std::string& error)
{
    if (_path.empty()) return true;
    FILE* file = std::fopen(_path.c_str(), "ae");
    if (!file) {
        error = "cannot open the audit log " + _path + ": " + std::strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> lock(_mutex);
    std::fclose(_file);
    _file = file;
    return true;
}

void AuditLog::Write(const nlohmann::ordered_json& line)
{
    nlohmann::ordered_json stamped{{"time", Now()}};
    stamped.update(line);
    std::lock_guard<std::mutex> lock(_mutex);
    stamped["prev"] = _last.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(_last);
    // Replacement, not an exception, for bytes that are not UTF-8: a client
    // must never be able to stop the log.
    const std::string text = stamped.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    _last = AuditChain::HashOf(text);
    std::fwrite(text.data(), 1, text.size(), _file);
    std::fputc('\n', _file);
    std::fflush(_file);
}

std::string AuditLog::Now()
{
    timeval now{};
    ::gettimeofday(&now, nullptr);
    std::tm utc{};
    ::gmtime_r(&now.tv_sec, &utc);
    char text[40];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%06ldZ", static_cast<long>(now.tv_usec));
    return text;
}

}  // namespace agent
