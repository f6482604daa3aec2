// The client's parts in-process: options, time text, prompt, the dispatcher,
// the clean-up request and the receiver, over a channel that records sends
// and replays canned messages.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <regex>
#include <string>
#include <vector>

#include "cli_client.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"

namespace {

struct Sent {
    std::string text;
    long type;
    int word;
};

std::vector<Sent> sent;
int send_result = 1;
std::deque<std::string> inbox;
std::vector<long> receive_types;

int fake_send(IpcChannel*, const char* text, long type, int word) {
    sent.push_back({text, type, word});
    return send_result;
}

// Replays the inbox, then fails like a removed queue.
int fake_receive(IpcChannel*, IpcMessage* buffer, long type) {
    receive_types.push_back(type);
    if (inbox.empty()) return 0;
    buffer->type = type;
    tx::copy_bounded(buffer->text, inbox.front());
    inbox.pop_front();
    return 1;
}

class ClientParts : public testing::Test {
  protected:
    void SetUp() override {
        saved_ = cli_channel;
        fake_ = {};
        fake_.send = fake_send;
        fake_.receive = fake_receive;
        cli_channel = &fake_;
        sent.clear();
        inbox.clear();
        receive_types.clear();
        send_result = 1;
        roomcontrol_active = 0;
        cli_set_prompt(false);
    }
    void TearDown() override {
        cli_channel = saved_;
        cli_set_prompt(false);
    }

    // Runs the receiver thread's body on this thread until the inbox is empty.
    static std::string receive_all(int timestamps) {
        testing::internal::CaptureStdout();
        cli_receiver_thread(std::make_unique<int>(timestamps).release());
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    IpcChannel* saved_ = nullptr;
    IpcChannel fake_ = {};
};

struct Parsed {
    bool ok;
    CliOptions options;
};

Parsed parse(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    optind = 0;  // a fresh scan for every call
    opterr = 0;
    Parsed result{};
    result.ok = cli_parse_options(static_cast<int>(args.size()), argv.data(), &result.options);
    return result;
}

constexpr const char* kGetMute = "<request><action property=\"audio.mute\">get</action></request>";
constexpr const char* kDisconnect =
    "<request><action property=\"sys.dialer-connection-mode\">set</action>"
    "<p name=\"default\">disconnected</p></request>";

}  // namespace

TEST(Options, FlagsAndOneShotBuffer) {
    Parsed p = parse({"cli", "-t", "-r"});
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.options.timestamps_enabled, 1);
    EXPECT_EQ(p.options.register_first, 1);
    EXPECT_FALSE(p.options.one_shot_command);

    p = parse({"cli", "-c", "get mute"});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.options.timestamps_enabled, 0);
    ASSERT_TRUE(p.options.one_shot_command);
    EXPECT_STREQ(p.options.one_shot_command.get(), "get mute\n");

    // The last -c wins; words that are not options are ignored.
    p = parse({"cli", "-cfirst", "extra", "-c", "second", "-t"});
    ASSERT_TRUE(p.ok);
    EXPECT_STREQ(p.options.one_shot_command.get(), "second\n");
    EXPECT_EQ(p.options.timestamps_enabled, 1);
}

TEST(Options, LongOneShotLosesItsNewline) {
    const std::string fits(126, 'a');
    Parsed p = parse({"cli", "-c", fits});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(std::string(p.options.one_shot_command.get()), fits + "\n");

    const std::string too_long(200, 'b');
    p = parse({"cli", "-c", too_long});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(std::string(p.options.one_shot_command.get()), std::string(127, 'b'));
}

TEST(Options, UsageErrors) {
    EXPECT_FALSE(parse({"cli", "-x"}).ok);
    EXPECT_FALSE(parse({"cli", "-t", "-c"}).ok);
    EXPECT_FALSE(parse({"cli", "-r", "-?"}).ok);
}

TEST(TimeText, CtimeCutAfterSecondsWithMilliseconds) {
    setenv("TZ", "UTC", 1);
    tzset();
    char out[32] = {};
    cli_time_text(0, 5000, out);
    EXPECT_STREQ(out, "Thu Jan  1 00:00:00.005");
    cli_time_text(1447595093, 123999, out);
    EXPECT_STREQ(out, "Sun Nov 15 13:44:53.123");
    cli_time_text(1447595093, 999999, out);
    EXPECT_STREQ(out, "Sun Nov 15 13:44:53.999");
    char small[8] = {};
    cli_time_text(0, 0, small);
    EXPECT_STREQ(small, "Thu Jan");
}

TEST_F(ClientParts, PromptStartsEmptyAndToggles) {
    char prompt[CLI_PROMPT_LEN] = {};
    cli_prompt_text(prompt);
    EXPECT_STREQ(prompt, "");
    cli_set_prompt(true);
    cli_prompt_text(prompt);
    EXPECT_STREQ(prompt, "cli> ");
    char small[3] = {};
    cli_prompt_text(small);
    EXPECT_STREQ(small, "cl");
    cli_set_prompt(false);
    cli_prompt_text(prompt);
    EXPECT_STREQ(prompt, "");
}

TEST_F(ClientParts, DispatcherIgnoresRejectsAndSends) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(cli_send_command("", 0, 0), 0);
    EXPECT_EQ(cli_send_command("x", 1, 0), 0);
    EXPECT_EQ(cli_send_command("xy", 2, 0), 0);
    cli_set_prompt(true);
    EXPECT_EQ(cli_send_command("no such command", 15, 0), 0);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "command syntax error\n\rcommand syntax error\n\rcli> ");
    EXPECT_TRUE(sent.empty());

    testing::internal::CaptureStdout();
    EXPECT_EQ(cli_send_command("get mute", 8, 0), 1);
    send_result = 0;
    EXPECT_EQ(cli_send_command("get mute", 8, 1001), 0);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cli_client:439: error sending cli command. \n");
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].text, kGetMute);
    EXPECT_EQ(sent[0].type, getpid());
    EXPECT_EQ(sent[0].word, 0);
}

TEST_F(ClientParts, RoomControlFollowsOperatorOnly) {
    const std::string rc = "set dialer-connection-mode rc";
    const std::string off = "set dialer-connection-mode disconnected";
    cli_send_command(rc.c_str(), rc.size(), 0);
    EXPECT_EQ(roomcontrol_active.load(), 0);
    cli_send_command(rc.c_str(), rc.size(), 1001);
    EXPECT_EQ(roomcontrol_active.load(), 1);
    cli_send_command(off.c_str(), off.size(), 0);
    EXPECT_EQ(roomcontrol_active.load(), 1);
    cli_send_command("get mute", 8, 1001);
    EXPECT_EQ(roomcontrol_active.load(), 1);
    cli_send_command(off.c_str(), off.size(), 1001);
    EXPECT_EQ(roomcontrol_active.load(), 0);
    EXPECT_EQ(sent.size(), 5U);
}

TEST_F(ClientParts, CleanUpRequest) {
    cli_clear_roomcontrol();
    send_result = 0;
    cli_clear_roomcontrol();  // a failed send is only logged
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].text, kDisconnect);
    EXPECT_EQ(sent[0].type, getpid());
    EXPECT_EQ(sent[0].word, 0);
}

TEST_F(ClientParts, ReceiverShowsNotificationsAndResponses) {
    inbox = {
        "<response><action property=\"audio.mute\">get</action><v>0</v></response>",
        "<notify event=\"call.status\" target=\"1\"><v>connected</v></notify>",
        "<server_response><action>get</action><v>1</v></server_response>",
        "<response><v name=\"a\"></v><v></v></response>",
        "garbage",
        // Both tags: a notification.
        "<notify event=\"e\"><response/><v>1</v></notify>",
    };
    cli_set_prompt(true);
    const std::string shown = receive_all(0);
    EXPECT_EQ(shown,
              "val mute 0\n\rcli> notify call.status 1 connected\n\rcli> notify e 1\n\rcli> ");
    ASSERT_FALSE(receive_types.empty());
    for (long type : receive_types) EXPECT_EQ(type, getpid());
}

TEST_F(ClientParts, ReceiverStampsNotificationsOnly) {
    inbox = {
        "<notify event=\"call.status\" target=\"2\"><v>idle</v></notify>",
        "<response><action property=\"audio.mute\">get</action><v>1</v></response>",
    };
    const std::string shown = receive_all(1);
    const std::regex stamped(
        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
        "notify call\\.status 2 idle\n\rval mute 1\n\r");
    EXPECT_TRUE(std::regex_match(shown, stamped)) << shown;
}

TEST(FindPid, ByProcessName) {
    EXPECT_EQ(find_pid_by_name("no-such-process-here"), -1);
    char name[64] = {};
    FILE* comm = std::fopen("/proc/self/comm", "r");
    ASSERT_NE(comm, nullptr);
    ASSERT_NE(std::fgets(name, sizeof name, comm), nullptr);
    std::fclose(comm);
    name[std::strcspn(name, "\n")] = '\0';
    EXPECT_EQ(find_pid_by_name(name), getpid());
}
