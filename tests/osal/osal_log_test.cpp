#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "osal.hpp"
#include "osal/log_capture.hpp"

namespace {

TEST(OsalLog, RecordIsTheFormattedTextPlusOneNewline) {
    LogCapture log;
    ASSERT_TRUE(log.ok());
    osal_log(0, "%s %d [%d, %d]:\n", "osal_file", 45, 812, 815);
    EXPECT_EQ(log.take(), "osal_file 45 [812, 815]:\n\n");
    osal_log(0, "%s:%s: ipc send error %d", "cli", "send", 3);
    EXPECT_EQ(log.take(), "cli:send: ipc send error 3\n");
    osal_log(0, "%s", "");
    EXPECT_EQ(log.take(), "\n");

    // The pipe is a FIFO under /tmp and is reused as it is.
    struct stat info {};
    ASSERT_EQ(stat("/tmp/osal_log", &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
}

TEST(OsalLog, LongTextsAreCutTo1022CharactersNulAndNewline) {
    LogCapture log;
    const std::string expected_cut = std::string(1022, 'a') + std::string(1, '\0') + "\n";

    osal_log(0, "%s", std::string(2000, 'a').c_str());
    EXPECT_EQ(log.take(), expected_cut);

    osal_log(0, "%s", std::string(1023, 'a').c_str());
    EXPECT_EQ(log.take(), expected_cut);

    // 1022 characters fit exactly and get their newline right after them.
    osal_log(0, "%s", std::string(1022, 'b').c_str());
    EXPECT_EQ(log.take(), std::string(1022, 'b') + "\n");
}

TEST(OsalLog, ThresholdDropsLowerLevels) {
    LogCapture log;
    osal_set_log_threshold(1);
    osal_log(0, "dropped");
    osal_log(1, "kept at %d", 1);
    osal_log(2, "kept at %d", 2);
    osal_set_log_threshold(0);
    osal_log(0, "back");
    osal_log(-1, "below");
    EXPECT_EQ(log.take(), "kept at 1\nkept at 2\nback\n");
}

TEST(OsalLog, FullPipeDropsRecordsSilentlyAndKeepsEarlierOnes) {
    LogCapture log;
    const std::string line(99, 'r');
    // Far more than a pipe holds: the writer never blocks.
    for (int i = 0; i < 5000; ++i) osal_log(0, "%s", line.c_str());
    const std::string got = log.take();
    ASSERT_FALSE(got.empty());
    EXPECT_LT(got.size(), 5000u * 100u);
    EXPECT_EQ(got.size() % 100, 0u);  // only whole records
    EXPECT_EQ(got.substr(0, 100), line + "\n");
    // Once drained, logging works again.
    osal_log(0, "after");
    EXPECT_EQ(log.take(), "after\n");
}

TEST(OsalLogThreads, ConcurrentRecordsNeverInterleave) {
    LogCapture log;
    constexpr int kThreads = 4;
    constexpr int kRecords = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string body(200, static_cast<char>('A' + t));
            for (int i = 0; i < kRecords; ++i) osal_log(0, "%s", body.c_str());
        });
    }
    std::string got;
    for (auto& thread : threads) thread.join();
    got = log.take();
    ASSERT_EQ(got.size() % 201, 0u);
    for (std::size_t at = 0; at < got.size(); at += 201) {
        const char c = got[at];
        ASSERT_EQ(got.substr(at, 201), std::string(200, c) + "\n");
    }
}

}  // namespace
