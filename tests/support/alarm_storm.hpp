// Ends a storm of SIGALRM ticks that a test started with setitimer: the
// timer is stopped, a tick still pending (valgrind delivers signals late)
// is taken while SIGALRM is blocked, and only then is the action the test
// saved put back, so that no late tick meets a default action that would end
// the test program.
#pragma once

#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

namespace qx_test {

inline void end_alarm_storm(const struct sigaction &saved) {
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigset_t alarm, old;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, &old);
    const timespec no_wait{};
    while (sigtimedwait(&alarm, nullptr, &no_wait) == SIGALRM) {
    }
    sigaction(SIGALRM, &saved, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

} // namespace qx_test
