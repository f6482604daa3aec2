#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "osal.hpp"

namespace {

constexpr const char* kSource = "osal_exit";
constexpr long kRecheckNs = 50L * 1000 * 1000;

pthread_mutex_t exit_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t exit_condition = PTHREAD_COND_INITIALIZER;
// Raised before every wake-up, so a waiter that was not waiting yet (or a
// wake-up that got lost) still sees the request. Lock-free, so the signal
// handler may set it; atomic, because other threads read it.
std::atomic<int> exit_requested{0};
static_assert(std::atomic<int>::is_always_lock_free);

// pthread condition calls are not async-signal-safe: the handler only raises
// the flag, and the waiter re-checks it at a short interval.
void exit_signal_handler(int, siginfo_t*, void*) {
    exit_requested.store(1);
}

}  // namespace

int osal_exit_init() {
    if (pthread_mutex_init(&exit_mutex, nullptr) != 0) {
        osal_report(kSource, 91, "\n");
        return -1;
    }
    if (pthread_cond_init(&exit_condition, nullptr) != 0) {
        osal_report(kSource, 95, "\n");
        return -1;
    }
    exit_requested.store(0);
    struct sigaction action {};
    action.sa_sigaction = exit_signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    if (sigaction(SIGINT, &action, nullptr) != 0) {
        osal_report(kSource, 109, "\n");
        return -1;
    }
    if (sigaction(SIGTERM, &action, nullptr) != 0) {
        osal_report(kSource, 113, "\n");
        return -1;
    }
    return 0;
}

void osal_signal_exit() {
    pthread_mutex_lock(&exit_mutex);
    exit_requested.store(1);
    pthread_cond_broadcast(&exit_condition);
    pthread_mutex_unlock(&exit_mutex);
}

void osal_wait_for_exit() {
    pthread_mutex_lock(&exit_mutex);
    while (exit_requested.load() == 0) {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += kRecheckNs;
        if (until.tv_nsec >= 1000000000L) {
            until.tv_sec += 1;
            until.tv_nsec -= 1000000000L;
        }
        (void)pthread_cond_timedwait(&exit_condition, &exit_mutex, &until);
    }
    pthread_mutex_unlock(&exit_mutex);
}
