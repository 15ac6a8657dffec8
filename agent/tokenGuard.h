// What the keys of one PKCS#11 module share: whether the module can sign at
// all, and a lock that signatures take together and the module's recovery
// takes alone, while it loads the module anew and gives each key its new
// private half.
#pragma once

#include <atomic>
#include <functional>
#include <shared_mutex>
#include <string>

namespace agent {

class TokenGuard {
public:
    // `lost` is told the reason when a signature fails; it runs at most once
    // until the module is back.
    explicit TokenGuard(std::function<void(const std::string&)> lost) : _lost(std::move(lost)) {}

    std::shared_mutex& Mutex() { return _mutex; }
    bool Up() const { return _up; }

    // A signature failed: the module serves nothing until it is back.
    void Lost(const std::string& reason);
    // Called with the lock held alone, once every key has its private half.
    void Back();

private:
    std::shared_mutex _mutex;
    std::atomic<bool> _up{true};
    std::atomic<bool> _told{false};
    std::function<void(const std::string&)> _lost;
};

}  // namespace agent
