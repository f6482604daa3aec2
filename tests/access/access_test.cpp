// Rows of categories 0 and 11 are root's alone: every accepted example line of
// those rows, typed by the operator account, must get the plain syntax error
// and send nothing, while root gets the same line accepted. Help is refused to
// the operator on every topic.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli_client.hpp"
#include "command_table/command_examples.hpp"
#include "ipc_channel.hpp"
#include "matcher_detail.hpp"

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kOperator = 1001;

std::vector<std::string> sent;

int record_send(IpcChannel*, const char* text, long, int) {
    sent.emplace_back(text);
    return 1;
}

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return lines;
}

class RootOnlyRows : public testing::Test {
  protected:
    void SetUp() override {
        // VoIP rows check the device's capability before anything else.
        cmdline_ = testing::TempDir() + "access_cmdline_" + std::to_string(getpid());
        if (FILE* f = std::fopen(cmdline_.c_str(), "w")) {
            std::fputs("console=ttyS0 voip_capable=1\n", f);
            std::fclose(f);
        }
        setenv("PLATFORM_CMDLINE", cmdline_.c_str(), 1);
        saved_ = cli_channel;
        fake_ = {};
        fake_.send = record_send;
        cli_channel = &fake_;
        cli_set_prompt(false);
        sent.clear();
    }
    void TearDown() override {
        cli_channel = saved_;
        unsetenv("PLATFORM_CMDLINE");
        std::remove(cmdline_.c_str());
    }

    std::string cmdline_;
    IpcChannel* saved_ = nullptr;
    IpcChannel fake_ = {};
};

// The accepted example lines of every root-only row.
std::vector<std::string> root_only_lines(int& rows) {
    std::vector<std::string> lines;
    rows = 0;
    for (const command_example& example : command_examples()) {
        if (example.category != 0 && example.category != 11) continue;
        ++rows;
        for (std::string& line : lines_of(example.accepted)) lines.push_back(std::move(line));
    }
    return lines;
}

TEST_F(RootOnlyRows, EveryAcceptedExampleIsRefusedToTheOperator) {
    int rows = 0;
    const std::vector<std::string> lines = root_only_lines(rows);
    EXPECT_EQ(rows, 91 + 50);
    const auto& matcher = tx::grammar::command_matcher();
    for (const std::string& line : lines) {
        RequestRecord record{};
        testing::internal::CaptureStdout();
        EXPECT_EQ(matcher.match(line.c_str(), line.size(), &record, kRoot), 1) << line;
        std::memset(&record, 0x5a, sizeof record);
        EXPECT_EQ(matcher.match(line.c_str(), line.size(), &record, kOperator), 0) << line;
        EXPECT_EQ(testing::internal::GetCapturedStdout().find(line), std::string::npos);
        const RequestRecord empty{};
        EXPECT_EQ(std::memcmp(&record, &empty, sizeof record), 0) << line;
    }
}

// The client's dispatcher asks the matcher with the process's own uid, so the
// operator's view needs a process that runs as the operator.
TEST_F(RootOnlyRows, TheClientPrintsTheSyntaxErrorAndSendsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become uid 1001";
    int rows = 0;
    const std::vector<std::string> lines = root_only_lines(rows);
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    std::fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        // Everything the dispatcher prints goes to the report pipe.
        dup2(report[1], STDOUT_FILENO);
        if (setgid(kOperator) != 0 || setuid(kOperator) != 0) _exit(3);
        for (const std::string& line : lines) {
            if (cli_send_command(line.c_str(), line.size(), kOperator) != 0)
                std::printf("accepted: %s\n", line.c_str());
        }
        for (const std::string& text : sent) std::printf("sent: %s\n", text.c_str());
        std::fflush(stdout);
        _exit(0);
    }
    close(report[1]);
    std::string printed;
    char buffer[4096];
    for (ssize_t n; (n = read(report[0], buffer, sizeof buffer)) > 0;)
        printed.append(buffer, static_cast<std::size_t>(n));
    close(report[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    std::string expected;
    for (std::size_t i = 0; i < lines.size(); ++i) expected += "command syntax error\n\r";
    EXPECT_EQ(printed, expected);
}

TEST_F(RootOnlyRows, HelpIsRefusedToTheOperatorOnEveryTopic) {
    for (const char* topic : {"", " all", " audio", " bt", " bm64", " ble", " call", " cam", " net",
                              " sys", " voip", " hidden", " nothing"}) {
        testing::internal::CaptureStdout();
        tx::grammar::print_help(command_table, topic, kOperator);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "command syntax error\n") << topic;
    }
    testing::internal::CaptureStdout();
    tx::grammar::print_help(command_table, " audio", kRoot);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("\"get mute\""), std::string::npos);
}

}  // namespace
