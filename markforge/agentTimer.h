// markforge::agentTimer: bounds how long the program waits for the signing
// agent, whose client calls block without a time-out of their own.
#pragma once

#include <signal.h>

namespace markforge {

class agentTimer {
public:
    // Installs the alarm handler; nothing is armed yet.
    explicit agentTimer(double seconds);
    // Disarms and puts the previous handler back.
    ~agentTimer();
    agentTimer(const agentTimer&) = delete;
    agentTimer& operator=(const agentTimer&) = delete;

    // Starts the bound for one exchange with the agent. When it runs out,
    // the blocked socket call returns with EINTR (the handler is installed
    // without SA_RESTART), and keeps doing so every tenth of a second until
    // Disarm, so that a later call of the same exchange cannot block either.
    void Arm();
    void Disarm();
    // True once the bound ran out since construction.
    bool Expired() const;
    double Seconds() const { return _seconds; }

    // Threads other than the waiting one must not take the alarm: call this
    // on each of them.
    static void BlockInThisThread();

private:
    double _seconds;
    struct sigaction _previous;
};

}  // namespace markforge
