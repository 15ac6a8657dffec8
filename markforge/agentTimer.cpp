// markforge::agentTimer: SIGALRM through setitimer.
#include "agentTimer.h"

#include <pthread.h>
#include <sys/time.h>

#include <cmath>

namespace markforge {
namespace {

volatile sig_atomic_t g_expired = 0;

void OnAlarm(int)
{
    g_expired = 1;
}

timeval ToTimeval(double seconds)
{
    timeval value;
    value.tv_sec = static_cast<time_t>(seconds);
    value.tv_usec = static_cast<suseconds_t>(std::lround((seconds - std::floor(seconds)) * 1e6));
    if (value.tv_usec >= 1000000) {
        value.tv_sec += 1;
        value.tv_usec -= 1000000;
    }
    return value;
}

constexpr double REPEAT_SECONDS = 0.1;

}  // namespace

agentTimer::agentTimer(double seconds) : _seconds(seconds)
{
    g_expired = 0;
    struct sigaction action = {};
    action.sa_handler = OnAlarm;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the blocked call must give up
    sigaction(SIGALRM, &action, &_previous);
}

agentTimer::~agentTimer()
{
    Disarm();
    sigaction(SIGALRM, &_previous, nullptr);
}

void agentTimer::Arm()
{
    itimerval timer;
    timer.it_value = ToTimeval(_seconds);
    timer.it_interval = ToTimeval(REPEAT_SECONDS);
    if (timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0) timer.it_value.tv_usec = 1;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void agentTimer::Disarm()
{
    itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
}

bool agentTimer::Expired() const
{
    return g_expired != 0;
}

void agentTimer::BlockInThisThread()
{
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
}

}  // namespace markforge
