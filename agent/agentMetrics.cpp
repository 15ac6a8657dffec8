// The monitoring counts and their Prometheus text.
#include "agentMetrics.h"

#include <sstream>

namespace agent {
namespace {

// A label value as the text format wants it: backslash, quote and newline
// escaped.
std::string LabelValue(const std::string& value)
{
    std::string escaped;
    for (const char c : value) {
        if (c == '\\' || c == '"') escaped += '\\';
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        escaped += c;
    }
    return escaped;
}

void Header(std::ostringstream& out, const char* name, const char* type, const char* help)
{
    out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

}  // namespace

void AgentMetrics::Count(const RequestRecord& record, bool keyServed)
{
    const std::string key = keyServed ? record.keyName : "";
    std::lock_guard<std::mutex> lock(_mutex);
    ++_requests;
    if (record.signedIt)
        ++_signatures[key];
    else
        ++_refusals[{record.refusal ? record.refusal : "other", key}];
    if (record.signingMicroseconds < 0) return;
    const double seconds = static_cast<double>(record.signingMicroseconds) / 1e6;
    ++_timed;
    _seconds += seconds;
    for (size_t i = 0; i < BUCKETS.size(); ++i)
        if (seconds <= BUCKETS[i]) {
            ++_buckets[i];
            break;
        }
}

std::string AgentMetrics::Text(size_t openConnections, size_t tokenErrors) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    std::ostringstream out;
    out.precision(9);
    Header(out, "markforge_agent_requests_total", "counter", "Requests answered or refused.");
    out << "markforge_agent_requests_total " << _requests << '\n';
    Header(out, "markforge_agent_signatures_total", "counter", "Signatures given out, by key.");
    for (const auto& entry : _signatures)
        out << "markforge_agent_signatures_total{key=\"" << LabelValue(entry.first) << "\"} " << entry.second << '\n';
    Header(out, "markforge_agent_refusals_total", "counter",
           "Requests refused, by reason and key (empty: a key the agent does not serve).");
    for (const auto& entry : _refusals)
        out << "markforge_agent_refusals_total{reason=\"" << entry.first.first << "\",key=\""
            << LabelValue(entry.first.second) << "\"} " << entry.second << '\n';
    Header(out, "markforge_agent_signing_seconds", "histogram", "Time to make and check one signature.");
    size_t cumulative = 0;
    for (size_t i = 0; i < BUCKETS.size(); ++i) {
        cumulative += _buckets[i];
        out << "markforge_agent_signing_seconds_bucket{le=\"" << BUCKETS[i] << "\"} " << cumulative << '\n';
    }
    out << "markforge_agent_signing_seconds_bucket{le=\"+Inf\"} " << _timed << '\n';
    out << "markforge_agent_signing_seconds_sum " << _seconds << '\n';
    out << "markforge_agent_signing_seconds_count " << _timed << '\n';
    Header(out, "markforge_agent_open_connections", "gauge", "Connections open now.");
    out << "markforge_agent_open_connections " << openConnections << '\n';
    Header(out, "markforge_agent_token_errors_total", "counter", "Signatures a PKCS#11 token failed to make.");
    out << "markforge_agent_token_errors_total " << tokenErrors << '\n';
    return out.str();
}

}  // namespace agent
