// Counts for monitoring, written as Prometheus text (the format
// node_exporter's textfile collector reads): requests, signatures by key,
// refusals by kind and key, signing time in buckets, open connections and
// token errors. Safe to call from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "auditLog.h"

namespace agent {

class AgentMetrics {
public:
    // Upper bounds of the signing time buckets, in seconds.
    static constexpr std::array<double, 12> BUCKETS{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                    0.05,   0.1,   0.25,   0.5,   1,    2.5};

    // Counts one finished request. Its key is named in the labels only when
    // `keyServed`: names a client made up would otherwise grow the series
    // without end.
    void Count(const RequestRecord& record, bool keyServed);
    // The whole text, with the gauges given.
    std::string Text(size_t openConnections, size_t tokenErrors) const;

private:
    mutable std::mutex _mutex;
    size_t _requests = 0;
    std::map<std::string, size_t> _signatures;                             // by key
    std::map<std::pair<std::string, std::string>, size_t> _refusals;       // by kind, key
    std::array<size_t, BUCKETS.size()> _buckets{};                          // not cumulative
    size_t _timed = 0;
    double _seconds = 0;
};

}  // namespace agent
