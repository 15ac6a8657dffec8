// The sliding minute of each user's signatures.
#include "rateLimit.h"

namespace agent {

bool RateLimit::Take(long long uid, clock::time_point now)
{
    if (_perMinute == 0) return true;
    std::lock_guard<std::mutex> lock(_mutex);
    std::deque<clock::time_point>& recent = _recent[uid];
    while (!recent.empty() && now - recent.front() >= WINDOW) recent.pop_front();
    if (recent.size() >= _perMinute) return false;
    recent.push_back(now);
    return true;
}

}  // namespace agent
