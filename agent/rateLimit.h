// The per-user rate limit of --rate-limit: at most N signatures in any 60
// seconds per user (one bucket for connections whose owner is unknown).
// Safe to call from every serving loop.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>

namespace agent {

class RateLimit {
public:
    using clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds WINDOW{60};

    // 0: no limit.
    explicit RateLimit(size_t perMinute) : _perMinute(perMinute) {}

    // Takes one signature of `uid`'s allowance at `now`; false when it has
    // had its share in the last minute.
    bool Take(long long uid, clock::time_point now = clock::now());
    size_t PerMinute() const { return _perMinute; }

private:
    size_t _perMinute;
    std::mutex _mutex;
    std::map<long long, std::deque<clock::time_point>> _recent;
};

}  // namespace agent
