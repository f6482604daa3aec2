#include "ipc_channel.hpp"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "osal.hpp"
#include "osal/log_capture.hpp"

namespace {

long queued_messages(int id) {
    msqid_ds info{};
    if (msgctl(id, IPC_STAT, &info) != 0) return -1;
    return static_cast<long>(info.msg_qnum);
}

unsigned long queued_bytes(int id) {
    msqid_ds info{};
    if (msgctl(id, IPC_STAT, &info) != 0) return 0;
    return info.msg_cbytes;
}

// A connector (creator) and a client attached to its queues.
class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        conn_ = cli_connector_channel;
        client_ = cli_client_channel;
        ASSERT_EQ(conn_.open(&conn_, 'c'), 0);
        ASSERT_EQ(client_.open(&client_, 'u'), 0);
    }
    void TearDown() override { (void)conn_.remove(&conn_); }

    IpcChannel conn_{};
    IpcChannel client_{};
    IpcMessage msg_{};
};

TEST_F(ChannelTest, EndsMeetCrosswiseThroughTheTokenFiles) {
    EXPECT_EQ(client_.send_key, conn_.receive_key);
    EXPECT_EQ(client_.receive_key, conn_.send_key);
    EXPECT_EQ(client_.send_id, conn_.receive_id);
    EXPECT_EQ(client_.receive_id, conn_.send_id);
    EXPECT_EQ(conn_.send_key, ftok("/tmp/cli_in_token", 'a'));
    EXPECT_EQ(conn_.receive_key, ftok("/tmp/cli_out_token", 'a'));
    EXPECT_NE(conn_.send_id, conn_.receive_id);
}

TEST_F(ChannelTest, TextsUpTo511CharactersArriveWholeAndLongerOnesAreCut) {
    const std::string longest(511, 'q');
    ASSERT_EQ(client_.send(&client_, longest.c_str(), 4321, 0), 1);
    EXPECT_EQ(queued_bytes(conn_.receive_id), IPC_PAYLOAD_LEN);
    std::memset(&msg_, 0x55, sizeof msg_);
    ASSERT_EQ(conn_.receive(&conn_, &msg_, 0), 1);
    EXPECT_EQ(msg_.type, 4321);
    EXPECT_EQ(msg_.word, 0);
    EXPECT_EQ(std::string(msg_.text), longest);

    const std::string too_long(700, 'z');
    ASSERT_EQ(client_.send(&client_, too_long.c_str(), 4321, 7), 1);
    ASSERT_EQ(conn_.receive(&conn_, &msg_, 4321), 1);
    EXPECT_EQ(msg_.word, 7);
    EXPECT_EQ(std::string(msg_.text), std::string(511, 'z'));

    // A short text is terminated and zero-filled up to the end of the record.
    ASSERT_EQ(client_.send(&client_, "abc", 4321, 0), 1);
    std::memset(&msg_, 0x55, sizeof msg_);
    ASSERT_EQ(conn_.receive(&conn_, &msg_, 4321), 1);
    EXPECT_STREQ(msg_.text, "abc");
    for (std::size_t i = 3; i < IPC_TEXT_LEN; ++i) ASSERT_EQ(msg_.text[i], '\0') << i;
}

TEST_F(ChannelTest, NullAndEmptyTextsSendAFullSizedEmptyMessage) {
    ASSERT_EQ(client_.send(&client_, nullptr, 77, 0), 1);
    EXPECT_EQ(queued_bytes(conn_.receive_id), IPC_PAYLOAD_LEN);
    ASSERT_EQ(client_.send(&client_, "", 77, 0), 1);
    EXPECT_EQ(queued_bytes(conn_.receive_id), 2 * IPC_PAYLOAD_LEN);
    for (int i = 0; i < 2; ++i) {
        std::memset(&msg_, 0x55, sizeof msg_);
        ASSERT_EQ(conn_.receive(&conn_, &msg_, 77), 1);
        EXPECT_EQ(msg_.text[0], '\0');
        EXPECT_EQ(msg_.text[IPC_TEXT_LEN - 1], '\0');
    }
}

TEST_F(ChannelTest, EachClientReceivesOnlyItsOwnType) {
    IpcChannel other = cli_client_channel;
    ASSERT_EQ(other.open(&other, 'u'), 0);
    ASSERT_EQ(conn_.send(&conn_, "for 1001 a", 1001, 0), 1);
    ASSERT_EQ(conn_.send(&conn_, "for 1002", 1002, 0), 1);
    ASSERT_EQ(conn_.send(&conn_, "for 1001 b", 1001, 0), 1);

    ASSERT_EQ(other.receive(&other, &msg_, 1002), 1);
    EXPECT_STREQ(msg_.text, "for 1002");
    EXPECT_EQ(other.receive_retry(&other, &msg_, 1002, 1, 1), 0);

    ASSERT_EQ(client_.receive(&client_, &msg_, 1001), 1);
    EXPECT_STREQ(msg_.text, "for 1001 a");
    ASSERT_EQ(client_.receive_retry(&client_, &msg_, 1001, 1, 2), 1);
    EXPECT_STREQ(msg_.text, "for 1001 b");
    EXPECT_EQ(queued_messages(conn_.send_id), 0);
}

TEST_F(ChannelTest, ReceiveWithRetriesOnAnEmptyQueueLogsErrno42Once) {
    LogCapture log;
    ASSERT_TRUE(log.ok());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client_.receive_retry(&client_, &msg_, getpid(), 20, 3), 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(40));  // two pauses between three attempts
    EXPECT_EQ(log.take(), log_prefix("ipc_channel", 233, osal_gettid()) +
                              "error receiving ipc message (/tmp/cli_in_token), errorno: 42\n\n");

    // No attempt at all: nothing received, nothing logged.
    EXPECT_EQ(client_.receive_retry(&client_, &msg_, getpid(), 20, 0), 0);
    EXPECT_EQ(log.take(), "");

    // A message that is already waiting is taken on the first attempt.
    ASSERT_EQ(conn_.send(&conn_, "here", getpid(), 0), 1);
    EXPECT_EQ(client_.receive_retry(&client_, &msg_, getpid(), 20, 3), 1);
    EXPECT_STREQ(msg_.text, "here");
    EXPECT_EQ(log.take(), "");
}

TEST_F(ChannelTest, FlushEmptiesOnlyTheOwnSendQueueByType) {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(conn_.send(&conn_, "a", 1001, 0), 1);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(conn_.send(&conn_, "b", 1002, 0), 1);
    ASSERT_EQ(client_.send(&client_, "request", 1001, 0), 1);

    EXPECT_EQ(conn_.flush(&conn_, 1001), 0);
    EXPECT_EQ(queued_messages(conn_.send_id), 2);
    EXPECT_EQ(client_.receive_retry(&client_, &msg_, 1001, 1, 1), 0);
    ASSERT_EQ(client_.receive(&client_, &msg_, 1002), 1);
    EXPECT_STREQ(msg_.text, "b");

    EXPECT_EQ(conn_.flush(&conn_, 0), 0);
    EXPECT_EQ(queued_messages(conn_.send_id), 0);
    // The peer's queue (the connector's incoming one) is untouched.
    EXPECT_EQ(queued_messages(conn_.receive_id), 1);
    EXPECT_EQ(conn_.flush(&conn_, 0), 0);  // already empty: returns at once
}

TEST_F(ChannelTest, RemoveDestroysBothQueuesAndLaterUseFails) {
    const int send_id = conn_.send_id;
    const int receive_id = conn_.receive_id;
    ASSERT_EQ(conn_.remove(&conn_), 0);
    EXPECT_EQ(queued_messages(send_id), -1);
    EXPECT_EQ(queued_messages(receive_id), -1);
    EXPECT_EQ(conn_.remove(&conn_), -1);
    EXPECT_EQ(client_.send(&client_, "late", 1, 0), 0);

    LogCapture log;
    EXPECT_EQ(client_.receive(&client_, &msg_, 1), 0);
    EXPECT_EQ(log.take(),
              log_prefix("ipc_channel", 201, osal_gettid()) + "error receiving ipc message\n\n");

    // Reopening as creator makes fresh queues; the stale client stays broken.
    ASSERT_EQ(conn_.open(&conn_, 'c'), 0);
    EXPECT_EQ(client_.send(&client_, "late", 1, 0), 0);
}

TEST_F(ChannelTest, FullQueueRefusesTheSendWithoutWaiting) {
    int sent = 0;
    while (client_.send(&client_, "fill", 5, 0) == 1) {
        ++sent;
        ASSERT_LT(sent, 100000);
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(queued_messages(conn_.receive_id), sent);
}

TEST(ChannelOpen, ClientNeedsTheCreatorAndTokenFilesAreMadeOnce) {
    IpcChannel conn = cgi_connector_channel;
    IpcChannel client{cgi_connector_channel};
    client.send_token_path = "/tmp/cgi_out_token";
    client.receive_token_path = "/tmp/cgi_in_token";
    (void)unlink("/tmp/cgi_in_token");
    (void)unlink("/tmp/cgi_out_token");

    // Before the connector exists there are no queues to attach to.
    EXPECT_EQ(client.open(&client, 'u'), -1);

    // The failed open still left the token files behind, with the decimal
    // 777 permission value minus the umask.
    const mode_t mask = umask(0);
    umask(mask);
    struct stat info {};
    ASSERT_EQ(stat("/tmp/cgi_in_token", &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, static_cast<mode_t>(777) & ~mask);
    const ino_t inode = info.st_ino;

    ASSERT_EQ(conn.open(&conn, 'c'), 0);
    EXPECT_EQ(client.open(&client, 'u'), 0);
    EXPECT_EQ(client.send_id, conn.receive_id);

    // An existing token file is reused, so the key stays the same.
    ASSERT_EQ(stat("/tmp/cgi_in_token", &info), 0);
    EXPECT_EQ(info.st_ino, inode);
    const key_t key = conn.send_key;

    // A restarting connector replaces the queues it finds.
    const int old_send = conn.send_id;
    ASSERT_EQ(conn.open(&conn, 'c'), 0);
    EXPECT_EQ(conn.send_key, key);
    EXPECT_EQ(queued_messages(old_send), -1);
    EXPECT_EQ(conn.remove(&conn), 0);
    EXPECT_EQ(client.open(&client, 'u'), -1);
}

TEST(ChannelOpen, StaleQueueRemovalIgnoresMissingQueues) {
    const key_t key = ftok("/tmp", 'z');
    const int id = msgget(key, IPC_CREAT | 0600);
    ASSERT_GE(id, 0);
    ipc_remove_stale_queue(key);
    EXPECT_EQ(msgget(key, 0), -1);
    ipc_remove_stale_queue(key);  // nothing left: no effect, no failure
}

// Two senders (the command loop and the keep-alive thread of a client) share
// one channel while the connector drains it.
TEST(ChannelThreads, ConcurrentSendersLoseNothingAndKeepTheirOrder) {
    IpcChannel conn = cli_connector_channel;
    IpcChannel client = cli_client_channel;
    ASSERT_EQ(conn.open(&conn, 'c'), 0);
    ASSERT_EQ(client.open(&client, 'u'), 0);
    constexpr int kPerSender = 300;

    auto sender = [&client](long type) {
        for (int i = 0; i < kPerSender; ++i) {
            const std::string text = std::to_string(i);
            while (client.send(&client, text.c_str(), type, 0) != 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    };
    std::thread a(sender, 11);
    std::thread b(sender, 22);

    int next_a = 0;
    int next_b = 0;
    IpcMessage msg{};
    for (int i = 0; i < 2 * kPerSender; ++i) {
        ASSERT_EQ(conn.receive(&conn, &msg, 0), 1);
        int& next = msg.type == 11 ? next_a : next_b;
        ASSERT_TRUE(msg.type == 11 || msg.type == 22);
        EXPECT_EQ(std::string(msg.text), std::to_string(next));
        ++next;
    }
    a.join();
    b.join();
    EXPECT_EQ(next_a, kPerSender);
    EXPECT_EQ(next_b, kPerSender);
    EXPECT_EQ(conn.remove(&conn), 0);
}

}  // namespace

namespace {

IpcChannel* farewell_channel = nullptr;
std::atomic<int> farewells{0};

// What the client's SIGINT handler does: one more send on the same channel.
// A failed send sets errno, so the handler keeps the interrupted code's.
void send_farewell(int) {
    const int saved = errno;
    (void)farewell_channel->send(farewell_channel, "farewell", 99, 0);
    farewells.fetch_add(1);
    errno = saved;
}

// A signal that lands while its thread is inside a send must not deadlock
// on the channel lock that the interrupted send holds.
TEST(ChannelThreads, SendFromASignalHandlerInterruptingASendCompletes) {
    IpcChannel conn = cli_connector_channel;
    IpcChannel client = cli_client_channel;
    ASSERT_EQ(conn.open(&conn, 'c'), 0);
    ASSERT_EQ(client.open(&client, 'u'), 0);
    farewell_channel = &client;
    farewells = 0;
    struct sigaction action {};
    action.sa_handler = send_farewell;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

    std::atomic<bool> done{false};
    std::thread sender([&] {
        for (int i = 0; i < 20000; ++i) {
            (void)client.send(&client, "busy", 11, 0);
            if (i % 64 == 0) (void)conn.flush(&conn, 0);
        }
        done = true;
    });
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int signals = 0;
    while (!done.load()) {
        if (std::chrono::steady_clock::now() > give_up) {
            ADD_FAILURE() << "sender stuck after " << signals << " signals";
            std::fflush(nullptr);
            std::_Exit(1);  // the stuck thread cannot be joined
        }
        pthread_kill(sender.native_handle(), SIGUSR1);
        ++signals;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    sender.join();
    signal(SIGUSR1, SIG_DFL);
    EXPECT_GT(farewells.load(), 0);
    EXPECT_EQ(conn.remove(&conn), 0);
}

}  // namespace
