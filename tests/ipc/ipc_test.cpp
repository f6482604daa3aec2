// The message queue channel and the FIFO pair to the core.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "ipc_channel.hpp"
#include "osal/log_capture.hpp"

namespace {

// The CLI connector and a client attached to its queues.
class Channel : public testing::Test {
  protected:
    // The creator's open replaces the queues that an earlier test left.
    void SetUp() override {
        ASSERT_EQ(conn.open(&conn, 'c'), 0);
        ASSERT_EQ(client.open(&client, 'u'), 0);
    }
    IpcChannel conn = cli_connector_channel;
    IpcChannel client = cli_client_channel;
    IpcMessage msg{};
};

TEST_F(Channel, EndsMeetCrosswiseThroughTheTokenFiles) {
    EXPECT_EQ(conn.send_key, ftok("/tmp/cli_in_token", 'a'));
    EXPECT_EQ(conn.receive_key, ftok("/tmp/cli_out_token", 'a'));
    EXPECT_EQ(client.send_id, conn.receive_id);
    EXPECT_EQ(client.receive_id, conn.send_id);
    // Made by the first open, with the decimal 777 permission value.
    const mode_t mask = umask(0);
    umask(mask);
    struct stat info {};
    ASSERT_EQ(stat("/tmp/cli_in_token", &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 777 & ~mask);
}

TEST_F(Channel, TextsTravelInFixedRecordsCutAt511Characters) {
    ASSERT_EQ(client.send(&client, "abc", 4321, 7), 1);
    ASSERT_EQ(client.send(&client, std::string(700, 'q').c_str(), 4321, 0), 1);
    // Every record is 516 bytes to the queue calls, whatever the size of long.
    msqid_ds queue{};
    msgctl(conn.receive_id, IPC_STAT, &queue);
    EXPECT_EQ(queue.msg_cbytes, 2 * 516u);
    std::memset(&msg, 0x55, sizeof msg);
    ASSERT_EQ(conn.receive(&conn, &msg, 0), 1);
    EXPECT_EQ(msg.type, 4321);
    EXPECT_EQ(msg.word, 7);
    EXPECT_EQ(std::string(msg.text, sizeof msg.text), "abc" + std::string(509, '\0'));
    ASSERT_EQ(conn.receive(&conn, &msg, 4321), 1);
    EXPECT_EQ(std::string(msg.text, sizeof msg.text), std::string(511, 'q') + '\0');
}

TEST_F(Channel, FailedReceivesAreLogged) {
    LogCapture log;
    EXPECT_EQ(client.receive_retry(&client, &msg, 5, 1, 3), 0);
    EXPECT_EQ(log.take(), report_prefix("ipc_channel", 233) +
                              "error receiving ipc message (/tmp/cli_in_token), errorno: 42\n\n");
    conn.remove(&conn);
    EXPECT_EQ(client.receive(&client, &msg, 5), 0);
    EXPECT_EQ(log.take(), report_prefix("ipc_channel", 201) + "error receiving ipc message\n\n");
}

// A record that is empty or does not fit is never written to the core.
TEST(FdPair, EmptyAndOverlongRecordsAreRefused) {
    FdPair pair = fd_pairs[1];
    char record[CORE_RECORD_LEN] = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(pair.write(&pair, record, sizeof record), -1);
    std::memset(record, 'x', sizeof record);
    EXPECT_EQ(pair.write(&pair, record, sizeof record), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find(
                  "NULL or empty/large message : /tmp/CoreRxCommand1: "),
              0u);
}

// A record that the core's pipe does not take (here: it is full; or the core
// closed its end) is reported and answered with the failed write's result.
TEST(FdPair, AWriteThePipeDoesNotTakeIsReportedAndFails) {
    FdPair pair = fd_pairs[1];
    ASSERT_EQ(pair.create(&pair), 0);
    const int core = open(pair.out_path, O_RDONLY | O_NONBLOCK);
    const int filler = open(pair.out_path, O_WRONLY | O_NONBLOCK);
    char record[CORE_RECORD_LEN] = "<request/>";
    while (write(filler, record, sizeof record) > 0 || write(filler, record, 1) > 0) {
    }
    testing::internal::CaptureStderr();
    EXPECT_LT(pair.write(&pair, record, sizeof record), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind(
                  "Failed to write to fd_pair_out : /tmp/CoreRxCommand1: ", 0),
              0u);
    close(filler);
    close(core);
}

// Where a FIFO of the pair belongs, a regular file would swallow the records
// written into it and hand out whatever it holds; nothing there, the open
// would make one. Either is reported and made a FIFO again.
TEST(FdPair, PathsThatAreNoFifoAreReportedAndMadeFifosAgain) {
    FdPair pair = fd_pairs[1];
    pair.destroy(&pair);
    char record[CORE_RECORD_LEN] = "<server_response client_id=\"CLI\" sub_client_id=\"7\">";
    for (const char* path : {pair.in_path, pair.out_path}) std::ofstream(path) << record;
    testing::internal::CaptureStderr();
    EXPECT_GT(pair.write(&pair, record, sizeof record), 0);
    char read_back[CORE_RECORD_LEN] = {};
    pair.read(&pair, read_back, sizeof read_back);
    EXPECT_STREQ(read_back, "");
    std::remove(pair.out_path);
    EXPECT_GT(pair.write(&pair, record, sizeof record), 0);
    const std::string reports = testing::internal::GetCapturedStderr();
    for (const char* path : {pair.in_path, pair.out_path}) {
        struct stat info {};
        EXPECT_TRUE(stat(path, &info) == 0 && S_ISFIFO(info.st_mode)) << path;
        EXPECT_NE(reports.find(path), std::string::npos) << reports;
    }
}

}  // namespace
