#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <string>
#include <thread>

#include "osal.hpp"
#include "osal/log_capture.hpp"

namespace {

// What the entry functions below saw, for the test to inspect.
std::atomic<int> entries{0};
std::atomic<int> stale_bytes_seen{-1};

// A well-behaved task: waits on its stop pipe, then clears running.
int stoppable_entry(OsalTaskControl* control) {
    entries.fetch_add(1);
    int fds[1] = {control->stop_fd.load()};
    int ready[1] = {0};
    // Anything already readable here would be a token from an earlier run.
    stale_bytes_seen.store(osal_select_wait_readable(fds, ready, 1, 0));
    while (control->stop_request.load() == 0) {
        (void)osal_select_wait_readable(fds, ready, 1, 50);
    }
    control->running.store(0);
    return 7;
}

std::atomic<bool> release_stubborn{false};

// Ignores stop requests until the test lets it go.
int stubborn_entry(OsalTaskControl* control) {
    while (!release_stubborn.load()) osal_sleep_ms(5);
    control->running.store(0);
    return 0;
}

int join_result(OsalTask& task) {
    void* result = nullptr;
    EXPECT_EQ(pthread_join(task.thread, &result), 0);
    return static_cast<int>(reinterpret_cast<std::intptr_t>(result));
}

TEST(TaskRefusals, BadTasksAreRefusedWithTheirLines) {
    LogCapture log;
    const int tid = osal_gettid();
    OsalTaskControl control;
    control.name = "refused";
    OsalTask task;
    EXPECT_EQ(osal_task_start(nullptr), -1);
    EXPECT_EQ(osal_task_start(&task), -1);  // no entry function
    task.entry = stoppable_entry;
    EXPECT_EQ(osal_task_start(&task), -1);  // no control block
    EXPECT_EQ(log.take(), log_prefix("osal_task", 103, tid) + "\n\n" +
                              log_prefix("osal_task", 108, tid) + "\n\n" +
                              log_prefix("osal_task", 113, tid) + "\n\n");
    // Stopping a task that is not running does nothing and logs nothing.
    task.control = &control;
    EXPECT_EQ(osal_task_stop(&task), -1);
    EXPECT_EQ(log.take(), "");
}

TEST(TaskThreads, StartRunStopAndStaleTokensAreDiscarded) {
    LogCapture log;
    OsalTaskControl control;
    control.name = "osal_test_task";
    OsalTask task;
    task.entry = stoppable_entry;
    task.control = &control;

    // A token left in the pipe by an earlier run; the FIFO keeps it while
    // someone holds it open.
    const int old = osal_queue_open("osal_test_task");
    ASSERT_GE(old, 0);
    ASSERT_EQ(osal_queue_write(old, "tokn", 4), 4);

    entries = 0;
    stale_bytes_seen = -1;
    ASSERT_EQ(osal_task_start(&task), 0);
    EXPECT_EQ(control.running.load(), 1u);
    EXPECT_EQ(osal_task_start(&task), -1);  // already running: no second thread
    // Let the entry function look at its pipe before the stop token arrives.
    while (stale_bytes_seen.load() == -1) osal_sleep_ms(1);

    // stop() polls until the entry function has cleared running.
    EXPECT_EQ(osal_task_stop(&task), 0);
    EXPECT_EQ(join_result(task), 7);
    EXPECT_EQ(entries.load(), 1);
    EXPECT_EQ(stale_bytes_seen.load(), 0);
    EXPECT_EQ(control.stop_request.load(), 1u);
    osal_queue_close(old);

    const std::string records = log.take();
    EXPECT_NE(records.find("osal_task 88 ["), std::string::npos) << records;
    EXPECT_NE(records.find("]:Task osal_test_task running\n\n"), std::string::npos);
    EXPECT_NE(records.find("osal_task 163 [" + std::to_string(getpid()) + ", " +
                           std::to_string(osal_gettid()) + "]:Task osal_test_task stopping\n\n"),
              std::string::npos);
    EXPECT_NE(records.find("]:Task osal_test_task stopped\n\n"), std::string::npos);

    // Once finished it can be started again; start clears the old request.
    ASSERT_EQ(osal_task_start(&task), 0);
    EXPECT_EQ(osal_task_stop(&task), 0);
    EXPECT_EQ(join_result(task), 7);
    EXPECT_EQ(entries.load(), 2);
}

TEST(TaskThreads, StopGivesUpOnATaskThatKeepsRunning) {
    OsalTaskControl control;
    control.name = "osal_stubborn";
    OsalTask task;
    task.entry = stubborn_entry;
    task.control = &control;
    release_stubborn = false;
    ASSERT_EQ(osal_task_start(&task), 0);
    const std::int64_t before = osal_monotonic_us();
    EXPECT_EQ(osal_task_stop(&task), -1);
    EXPECT_GE(osal_monotonic_us() - before, 1000000);  // ten polls 110 ms apart
    EXPECT_EQ(control.running.load(), 1u);
    release_stubborn = true;
    EXPECT_EQ(join_result(task), 0);
}

TEST(TaskThreads, RefusedPriorityIsLoggedAndTheTaskRunsAnyway) {
    LogCapture log;
    OsalTaskControl control;
    control.name = "osal_prio";
    OsalTask task;
    task.entry = stoppable_entry;
    task.control = &control;
    task.priority = 1000;  // beyond any SCHED_FIFO range
    ASSERT_EQ(osal_task_start(&task), 0);
    EXPECT_EQ(osal_task_stop(&task), 0);
    EXPECT_EQ(join_result(task), 7);
    EXPECT_GT(task.kernel_tid.load(), 0);
    EXPECT_NE(task.kernel_tid.load(), osal_gettid());
    const std::string records = log.take();
    EXPECT_NE(records.find("osal_task 62 ["), std::string::npos) << records;
    EXPECT_NE(records.find("]:Task priority not set!!\n\n"), std::string::npos) << records;
}

TEST(ExitThreads, WaitReturnsOnSignalExitAndOnSigterm) {
    ASSERT_EQ(osal_exit_init(), 0);
    std::atomic<bool> woke{false};
    std::thread waiter([&woke] {
        osal_wait_for_exit();
        woke = true;
    });
    osal_sleep_ms(20);
    EXPECT_FALSE(woke.load());
    osal_signal_exit();
    waiter.join();
    EXPECT_TRUE(woke.load());

    // The handler is installed for both signals; raising one ends the wait.
    ASSERT_EQ(osal_exit_init(), 0);
    woke = false;
    std::thread waiter2([&woke] {
        osal_wait_for_exit();
        woke = true;
    });
    ASSERT_EQ(raise(SIGTERM), 0);
    waiter2.join();
    EXPECT_TRUE(woke.load());
    ASSERT_EQ(osal_exit_init(), 0);
    ASSERT_EQ(raise(SIGINT), 0);
    osal_wait_for_exit();  // already requested: returns at once
}

TEST(SmallWrappers, MutexClockAndFree) {
    OsalMutex mutex = osal_mutex_create();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(osal_mutex_lock(mutex.get()), 0);
    EXPECT_EQ(pthread_mutex_trylock(mutex.get()), EBUSY);
    EXPECT_EQ(osal_mutex_unlock(mutex.get()), 0);
    EXPECT_EQ(osal_mutex_lock(nullptr), -1);
    EXPECT_EQ(osal_mutex_unlock(nullptr), -1);

    const std::int64_t a = osal_monotonic_us();
    osal_sleep_ms(2);
    EXPECT_GE(osal_monotonic_us() - a, 2000);

    osal_free(nullptr);
    osal_free(std::malloc(16));
}

}  // namespace
