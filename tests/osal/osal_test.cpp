// Logging, which every part of the system uses, and one smoke test for each
// group of wrappers that only library users call.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <thread>

#include "osal/log_capture.hpp"

namespace {

using namespace std::chrono_literals;

TEST(Log, RecordsAreTheFormattedTextAndANewlineCutAt1022Characters) {
    LogCapture log;
    std::string bare;  // from a thread whose id differs from the process id
    std::thread([&bare] {
        osal_report("osal_file", 45, "\n");
        bare = report_prefix("osal_file", 45) + "\n\n";
    }).join();
    osal_log(0, "%s:%s: ipc send error %d", "cli_client", "cli_clear_roomcontrol", 0);
    char byte = 0;
    osal_queue_write(1, &byte, -1);  // refused with its own line
    EXPECT_EQ(log.take(), bare + "cli_client:cli_clear_roomcontrol: ipc send error 0\n" +
                              report_prefix("osal_queue", 92) + "\n\n");

    osal_log(0, "%s", std::string(1022, 'b').c_str());
    EXPECT_EQ(log.take(), std::string(1022, 'b') + "\n");
    // The prefix is part of the text that is cut.
    osal_report("src", 1, "%s", std::string(2000, 'a').c_str());
    EXPECT_EQ(log.take(),
              (report_prefix("src", 1) + std::string(1022, 'a')).substr(0, 1022) + '\0' + '\n');

    // Nobody drains the pipe: records are dropped whole, and logging never blocks.
    for (int i = 0; i < 5000; ++i) osal_log(0, "%s", std::string(99, 'r').c_str());
    const std::string kept = log.take();
    EXPECT_EQ(kept.size() % 100, 0u);  // whole records only
    EXPECT_LT(kept.size(), 500000u);
}

// A wrapper refuses what it cannot use with -1 and, where it says so, one
// record naming its source and line; none of them ends the process.
TEST(Smoke, RefusalsAnswerMinusOneAndNameTheirSourceLine) {
    LogCapture log;
    OsalNetAddress none{};  // no family
    OsalNetAddress bad{};   // a family, but not its address length
    bad.family = OSAL_NET_IPV6;
    OsalNetAddress other{};  // a family this layer does not know
    other.family = 9;
    char text[64];
    const int fds[1] = {-1};
    int ready[1];
    struct Case {
        const char* source;
        int line;  // 0: refused without a record
        std::function<long()> call;
    };
    const Case cases[] = {
        {"osal_file", 45, [] { return osal_file_open(nullptr, 0); }},
        {"osal_file", 0, [] { return osal_file_open("/tmp/absent/file", OSAL_FILE_CREATE); }},
        {"osal_file", 96, [] { return osal_file_read(0, nullptr, 1); }},
        {"osal_file", 111, [] { return osal_file_write(1, nullptr, 1); }},
        {"osal_file", 143, [] { return osal_file_unmap(nullptr, 1); }},
        {"osal_file", 0, [] { return osal_random_bytes(nullptr, 1); }},
        {"osal_queue", 42, [] { return osal_queue_open(nullptr); }},
        {"osal_queue", 76, [&] { return osal_queue_read(0, text, -1); }},
        {"osal_queue", 0, [] { return osal_queue_set_nonblocking(-1); }},
        {"osal_select", 53, [&] { return osal_select_wait_readable(fds, nullptr, 1, 0); }},
        {"osal_select", 82, [&] { return osal_select_wait_readable(fds, ready, 1, 0); }},
        {"osal_task", 103, [] { return osal_task_start(nullptr); }},
        {"osal_task", 108,
         [] {
             OsalTask t{};
             return osal_task_start(&t);
         }},
        {"osal_task", 0,
         [] {
             OsalTaskControl c{};
             OsalTask t{.control = &c};
             return osal_task_stop(&t);
         }},
        {"osal_net", 188, [] { return osal_net_socket(7); }},
        {"osal_net", 102, [&] { return osal_net_address_from_text("::1", &other); }},
        {"osal_net", 151, [&] { return osal_net_address_to_text(text, &other, sizeof text); }},
        {"osal_net", 54, [&] { return osal_net_resolve("localhost", &none); }},
        {"osal_net", 386, [&] { return osal_net_bind(0, &none); }},
        {"osal_net", 498, [&] { return osal_net_receive_from(0, &none, text, 1); }},
        {"osal_net", 435, [&] { return osal_net_send_to(0, &none, text, 1); }},
        {"osal_net", 0, [] { return osal_net_set_option(0, 99, 1); }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.call(), -1) << c.source << " " << c.line;
        EXPECT_EQ(log.take(), c.line == 0 ? "" : report_prefix(c.source, c.line) + "\n\n")
            << c.source << " " << c.line;
    }
    // The family's own lines: an IPv6 record with an IPv4-sized address.
    bad.length = 4;
    EXPECT_EQ(osal_net_send_to(0, &bad, text, 1), -1);
    EXPECT_EQ(osal_net_address_to_text(text, &bad, sizeof text), -1);
    EXPECT_EQ(log.take(),
              report_prefix("osal_net", 423) + "\n\n" + report_prefix("osal_net", 143) + "\n\n");
}

int stoppable(OsalTaskControl* control) {
    while (control->stop_request.load() == 0) osal_sleep_ms(1);
    control->running.store(0);
    return 7;
}

TEST(Smoke, TaskStartsOnceAndStops) {
    OsalTaskControl control{.name = "osal_smoke_task"};
    OsalTask task{.entry = stoppable, .control = &control};
    ASSERT_EQ(osal_task_start(&task), 0);
    EXPECT_EQ(osal_task_start(&task), -1);
    EXPECT_EQ(osal_task_stop(&task), 0);
    void* result = nullptr;
    pthread_join(task.thread, &result);
    EXPECT_EQ(result, reinterpret_cast<void*>(7));
}

// SIGTERM, here from another thread while the main one waits, ends the wait.
TEST(Exit, SigtermEndsTheWaitForExit) {
    ASSERT_EQ(osal_exit_init(), 0);
    std::promise<void> ended;
    std::future<void> waited = ended.get_future();
    std::thread waiter([&ended] {
        osal_wait_for_exit();
        ended.set_value();
    });
    EXPECT_EQ(waited.wait_for(100ms), std::future_status::timeout) << "ended before the signal";
    kill(getpid(), SIGTERM);
    EXPECT_EQ(waited.wait_for(5s), std::future_status::ready) << "SIGTERM did not end the wait";
    osal_signal_exit();  // lets the waiter go if the signal did not
    waiter.join();
}

TEST(Smoke, MutexLocksAndUnlocks) {
    const OsalMutex mutex = osal_mutex_create();
    ASSERT_EQ(osal_mutex_lock(mutex.get()), 0);
    bool taken_elsewhere = true;
    std::thread([&] { taken_elsewhere = pthread_mutex_trylock(mutex.get()) == 0; }).join();
    EXPECT_FALSE(taken_elsewhere);
    EXPECT_EQ(osal_mutex_unlock(mutex.get()), 0);
    EXPECT_EQ(osal_mutex_lock(nullptr), -1);
    EXPECT_EQ(osal_mutex_unlock(nullptr), -1);
}

// A timeout below a second is kept in full (its milliseconds are not lost to
// the seconds), and a negative one waits until a descriptor is ready.
TEST(Select, TimeoutsBelowASecondAreWaitedAndNegativeOnesWaitForData) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    int ready[1] = {9};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(osal_select_wait_readable(pipe_fds, ready, 1, 150), 0);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, 150ms);
    EXPECT_LT(waited, 900ms);
    EXPECT_EQ(ready[0], 0);
    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(write(pipe_fds[1], "x", 1), 1);
    });
    EXPECT_EQ(osal_select_wait_readable(pipe_fds, ready, 1, -1), 1);
    EXPECT_EQ(ready[0], 1);
    writer.join();
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(Smoke, FilesAndSelect) {
    const int fd = osal_file_open("/tmp/osal_smoke", OSAL_FILE_RDWR_TRUNC | OSAL_FILE_CREATE);
    ASSERT_EQ(osal_file_write(fd, "mapped", 6), 6);
    void* map = osal_file_map(fd, 0, 6);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(std::string(static_cast<char*>(map), 6), "mapped");
    EXPECT_EQ(osal_file_unmap(map, 6), 0);
    const int fds[2] = {-1, fd};
    int ready[2] = {9, 9};
    EXPECT_EQ(osal_select_wait_readable(fds, ready, 2, 0), 1);
    EXPECT_EQ(ready[0], 0);
    EXPECT_EQ(ready[1], 1);
    EXPECT_EQ(osal_file_close(fd), 0);
}

TEST(Smoke, UdpLoopbackRoundTrip) {
    const int socket = osal_net_socket(OSAL_NET_IPV4);
    OsalNetAddress address{};
    address.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_address_from_text("127.0.0.1", &address), 0);
    ASSERT_EQ(osal_net_bind(socket, &address), 0);
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &length);
    address.port = ntohs(bound.sin_port);
    ASSERT_EQ(osal_net_send_to(socket, &address, "ping", 5), 5);
    OsalNetAddress from{};
    from.family = OSAL_NET_IPV4;
    char text[8] = {};
    EXPECT_EQ(osal_net_receive_from(socket, &from, text, sizeof text), 5);
    EXPECT_STREQ(text, "ping");
    EXPECT_EQ(osal_net_close(socket, &address), 0);
}

}  // namespace
