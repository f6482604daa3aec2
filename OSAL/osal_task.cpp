#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdint>

#include "osal.hpp"

namespace {

constexpr const char* kSource = "osal_task";
constexpr int kStopPolls = 10;
constexpr useconds_t kStopPollUs = 110000;
constexpr std::size_t kStopToken = 4;

const char* name_of(const OsalTaskControl* control) {
    return control->name != nullptr ? control->name : "";
}

// Tokens written into the stop pipe before the task ran would stop it at
// once; they belong to an earlier run and are thrown away.
void discard_stale_tokens(int fd) {
    if (osal_queue_set_nonblocking(fd) != 0) return;
    char byte = 0;
    while (osal_queue_read(fd, &byte, 1) == 1) {
    }
    (void)osal_queue_set_blocking(fd);
}

void* task_body(void* argument) {
    auto* task = static_cast<OsalTask*>(argument);
    OsalTaskControl* control = task->control;

    if (task->priority > 0) {
        const int tid = osal_gettid();
        task->kernel_tid.store(tid);
        sched_param param{};
        param.sched_priority = task->priority;
        if (sched_setscheduler(tid, SCHED_FIFO, &param) != 0) {
            osal_report(kSource, 62, "Task priority not set!!\n");
        }
    }

    const int stop_fd = osal_queue_open(control->name);
    control->stop_fd.store(stop_fd);
    if (stop_fd < 0) {
        osal_report(kSource, 71, "Task will not be stopped!!\n");
    } else {
        discard_stale_tokens(stop_fd);
    }

    osal_report(kSource, 88, "Task %s running\n", name_of(control));
    const int result = task->entry(control);
    osal_report(kSource, 90, "Task %s stopped\n", name_of(control));
    if (stop_fd >= 0) (void)osal_queue_close(stop_fd);
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(result));
}

}  // namespace

int osal_task_start(OsalTask* task) {
    if (task == nullptr) {
        osal_report(kSource, 103, "\n");
        return -1;
    }
    if (task->entry == nullptr) {
        osal_report(kSource, 108, "\n");
        return -1;
    }
    if (task->control == nullptr) {
        osal_report(kSource, 113, "\n");
        return -1;
    }
    OsalTaskControl* control = task->control;
    // Only one thread per control block; the entry function clears the flag.
    std::uint32_t idle = 0;
    if (!control->running.compare_exchange_strong(idle, 1)) return -1;
    control->stop_request.store(0);
    if (pthread_create(&task->thread, nullptr, task_body, task) != 0) {
        control->running.store(0);
        osal_report(kSource, 137, "\n");
        return -1;
    }
    return 0;
}

int osal_task_stop(OsalTask* task) {
    if (task == nullptr || task->control == nullptr) return -1;
    OsalTaskControl* control = task->control;
    if (control->running.load() == 0) return -1;
    osal_report(kSource, 163, "Task %s stopping\n", name_of(control));

    control->stop_request.store(1);
    // The token's content means nothing: the readable bytes wake the task.
    const int fd = osal_queue_open(control->name);
    if (fd >= 0) {
        const std::uint32_t token = 0;
        (void)osal_queue_write(fd, &token, kStopToken);
    }
    // Never joins: the caller gets an answer within about 1.1 seconds.
    int result = -1;
    for (int poll = 0; poll < kStopPolls; ++poll) {
        if (control->running.load() == 0) {
            result = 0;
            break;
        }
        usleep(kStopPollUs);
    }
    if (fd >= 0) (void)osal_queue_close(fd);
    return result;
}
