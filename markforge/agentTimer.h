// markforge::agentTimer: bounds how long the program waits for the signing
// agent, whose client calls block without a time-out of their own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace markforge {

class agentTimer {
public:
    // Starts the watching thread; nothing is armed yet.
    explicit agentTimer(double seconds);
    // Stops the watching thread.
    ~agentTimer();
    agentTimer(const agentTimer&) = delete;
    agentTimer& operator=(const agentTimer&) = delete;

    // Starts the bound for one exchange with the agent. When it runs out,
    // the program's connections to the agent are shut down, so that the
    // blocked read returns as if the agent had hung up; that is repeated
    // until Disarm, so no later call of the exchange can block either.
    void Arm();
    void Disarm();
    // True once the bound ran out since construction.
    bool Expired() const;
    double Seconds() const { return _seconds; }

private:
    void Watch();

    const double _seconds;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    bool _armed = false;
    bool _expired = false;
    bool _stopping = false;
    std::chrono::steady_clock::time_point _deadline;
    std::thread _thread;
};

}  // namespace markforge
