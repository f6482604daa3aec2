// The cli executable end to end, against a stand-in connector named cliconn.
// Runs inside the sandbox as PID 1, which a kill(-1) from the client spares;
// every other process started here handles SIGUSR2 or is the client itself.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "target_command.hpp"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kWork = "/tmp/cli_e2e";
constexpr uid_t kOperator = 1001;

constexpr const char* kGetMute = "<request><action property=\"audio.mute\">get</action></request>";
constexpr const char* kRegnotify = "<request><action>client_register_notify</action></request>";
constexpr const char* kKeepAlive = "<request><action>cli_keep_alive</action></request>";
constexpr const char* kSetRc =
    "<request><action property=\"sys.dialer-connection-mode\">set</action>"
    "<p name=\"default\">rc</p></request>";
constexpr const char* kDisconnect =
    "<request><action property=\"sys.dialer-connection-mode\">set</action>"
    "<p name=\"default\">disconnected</p></request>";
constexpr const char* kMuteResponse =
    "<response><action property=\"audio.mute\">get</action><v>0</v></response>";

int next_id() {
    static int id = 0;
    return ++id;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

void make_dir(const std::string& path) {
    mkdir(path.c_str(), 0777);
    chmod(path.c_str(), 0777);
}

// Queues outlive their creator; each test starts without any.
void remove_queues() {
    for (const char* token : {"/tmp/cli_out_token", "/tmp/cli_in_token"}) {
        const key_t key = ftok(token, 'a');
        if (key == -1) continue;
        const int id = msgget(key, 0);
        if (id >= 0) msgctl(id, IPC_RMID, nullptr);
    }
}

// The operator account needs root in a namespace that maps uid 1001.
bool operator_account_usable() {
    if (geteuid() != 0) return false;
    std::ifstream map("/proc/self/uid_map");
    for (unsigned long inside = 0, outside = 0, count = 0; map >> inside >> outside >> count;) {
        if (inside <= kOperator && kOperator - inside < count) return true;
    }
    return false;
}

std::vector<std::string> as_user(uid_t uid, std::vector<std::string> argv) {
    if (uid == 0) return argv;
    const std::string id = std::to_string(uid);
    std::vector<std::string> wrapped = {"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id,
                                        "--clear-groups"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

bool has_override(const std::vector<std::string>& env, std::string_view name) {
    for (const auto& e : env) {
        if (e.starts_with(name)) return true;
    }
    return false;
}

// Starts argv with stdin from input_fd (or /dev/null) and stdout and stderr
// into files.
pid_t spawn(const std::vector<std::string>& argv, int input_fd, const std::string& out_path,
            const std::vector<std::string>& extra_env) {
    std::vector<std::string> env_text;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string_view entry = *e;
        if (entry.starts_with("HOME=") || entry.starts_with("TSAN_OPTIONS=")) continue;
        if (entry.starts_with("ASAN_OPTIONS=") && has_override(extra_env, "ASAN_OPTIONS="))
            continue;
        env_text.emplace_back(entry);
    }
    // The client's signal handler works in signal context on purpose.
    const char* tsan = std::getenv("TSAN_OPTIONS");
    env_text.push_back(std::string("TSAN_OPTIONS=") + (tsan != nullptr ? tsan : "") +
                       " report_signal_unsafe=0");
    env_text.insert(env_text.end(), extra_env.begin(), extra_env.end());

    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> env;
    for (auto& e : env_text) env.push_back(e.data());
    env.push_back(nullptr);

    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int in = input_fd >= 0 ? input_fd : open("/dev/null", O_RDONLY);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const int err = open((out_path + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (in < 0 || out < 0 || err < 0) _exit(120);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execve(args[0], args.data(), env.data());
    _exit(121);
}

// Exit status, or -1 when the process had to be killed or died of a signal.
int wait_status(pid_t pid, std::chrono::milliseconds limit = 10s) {
    int status = 0;
    const bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ADD_FAILURE() << "process " << pid << " did not end in time";
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Peer {
  public:
    explicit Peer(std::vector<std::string> replies = {}, uid_t uid = 0)
        : record_(kWork + "/peer" + std::to_string(next_id()) + ".rec") {
        const int fd = open(record_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        fchmod(fd, 0666);
        close(fd);
        std::vector<std::string> argv = tx::test::target_command({PEER_BINARY, record_});
        argv.insert(argv.end(), replies.begin(), replies.end());
        pid_ = spawn(as_user(uid, argv), -1, record_ + ".out", {});
        ready_ = wait_until([&] { return read_file(record_).starts_with("READY\n"); }, 5s);
        EXPECT_TRUE(ready_) << read_file(record_);
    }
    ~Peer() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        remove_queues();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    std::vector<std::string> events() const {
        std::vector<std::string> lines = lines_of(read_file(record_));
        if (!lines.empty() && lines.front() == "READY") lines.erase(lines.begin());
        return lines;
    }
    // Waits until `count` events are recorded, then returns them all.
    std::vector<std::string> events(std::size_t count, std::chrono::milliseconds limit = 3s) const {
        wait_until([&] { return events().size() >= count; }, limit);
        return events();
    }

  private:
    std::string record_;
    pid_t pid_ = -1;
    bool ready_ = false;
};

// TX_CLI_WRAPPER, split at blanks, runs in front of every client (for
// example "/usr/bin/valgrind --error-exitcode=99 -q"): a wrapper that fails
// the client fails its test through the exit status.
constexpr int kWrapperFailed = 99;
std::vector<std::string> cli_wrapper() {
    std::vector<std::string> words;
    const char* wrapper = std::getenv("TX_CLI_WRAPPER");
    std::istringstream in(wrapper != nullptr ? wrapper : "");
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

// A wrapped client takes longer to get going (valgrind: a second or two).
std::chrono::milliseconds start_up_slack() {
    return cli_wrapper().empty() ? 0ms : 3000ms;
}

std::string msg(pid_t from, std::string_view text) {
    return "MSG " + std::to_string(from) + " " + std::string(text);
}

class Cli {
  public:
    // With keep_open the input pipe stays open until close_input().
    // With log_calls the client's kill() and msgsnd() calls are logged in order.
    Cli(std::vector<std::string> args, std::string_view input, bool keep_open = false,
        uid_t uid = 0, bool log_calls = false)
        : home_(kWork + "/home" + std::to_string(next_id())),
          out_(home_ + ".out"),
          calls_(home_ + ".calls") {
        make_dir(home_);
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        std::vector<std::string> argv = cli_wrapper();
        argv.push_back(CLI_BINARY);
        argv.insert(argv.end(), args.begin(), args.end());
        argv = tx::test::target_command(argv);
        std::vector<std::string> env = {"HOME=" + home_};
        if (log_calls) {
            const char* asan = std::getenv("ASAN_OPTIONS");
            env.push_back("LD_PRELOAD=" CALL_LOG_SHIM);
            env.push_back("TX_CALL_LOG=" + calls_);
            env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                          ":verify_asan_link_order=0");
        }
        pid_ = spawn(as_user(uid, argv), fds[0], out_, tx::test::target_environment(env));
        close(fds[0]);
        input_ = fds[1];
        write_input(input);
        if (!keep_open) close_input();
    }
    ~Cli() {
        close_input();
        if (!reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Cli(const Cli&) = delete;
    Cli& operator=(const Cli&) = delete;

    void write_input(std::string_view text) {
        while (!text.empty()) {
            const ssize_t n = write(input_, text.data(), text.size());
            if (n <= 0) break;
            text.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    void close_input() {
        if (input_ >= 0) close(input_);
        input_ = -1;
    }
    int status(std::chrono::milliseconds limit = 10s) {
        reaped_ = true;
        const int status = wait_status(pid_, limit);
        if (status == kWrapperFailed && !cli_wrapper().empty())
            ADD_FAILURE() << "the wrapper found errors:\n" << read_file(out_ + ".err");
        return status;
    }
    void signal(int signo) const { kill(pid_, signo); }
    pid_t pid() const { return pid_; }
    std::string output() const { return read_file(out_); }
    std::vector<std::string> calls() const { return lines_of(read_file(calls_)); }
    bool has_history() const { return access((home_ + "/.cli_history").c_str(), F_OK) == 0; }

  private:
    std::string home_;
    std::string out_;
    std::string calls_;
    pid_t pid_ = -1;
    int input_ = -1;
    bool reaped_ = false;
};

class CliEndToEnd : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        // SIGUSR2 from a client that finds no connector must not end the run.
        signal(SIGUSR2, SIG_IGN);
        make_dir(kWork);
    }
    void SetUp() override { remove_queues(); }
};

}  // namespace

TEST_F(CliEndToEnd, OneShotSendsOneRequestAndLeaves) {
    {
        Peer peer({"audio.mute", kMuteResponse});
        // The input stays open: a one-shot run must not read it.
        Cli cli({"-c", "get mute"}, "", true);
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kGetMute), "SIGUSR2"}));
        EXPECT_EQ(cli.output(), "val mute 0\n\r");
        EXPECT_TRUE(cli.has_history());
    }
    {
        // The one-shot command wins over the registration.
        Peer peer;
        Cli cli({"-r", "-c", "get mute"}, "", true);
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kGetMute), "SIGUSR2"}));
    }
}

TEST_F(CliEndToEnd, RegistrationComesFirst) {
    Peer peer;
    Cli cli({"-r"}, "get mute\n");
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(peer.events(3), (std::vector<std::string>{msg(cli.pid(), kRegnotify),
                                                        msg(cli.pid(), kGetMute), "SIGUSR2"}));
    EXPECT_EQ(cli.output(), "");
}

TEST_F(CliEndToEnd, UsageErrors) {
    Peer peer;
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-x"}, std::vector<std::string>{"-t", "-c"}}) {
        Cli cli(args, "get mute\n");
        EXPECT_EQ(cli.status(), 1);
        EXPECT_EQ(cli.output(),
                  std::string("Usage: ") + CLI_BINARY + " [-t] [-r] [-c\"command\"]\n");
    }
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(peer.events().empty());
}

TEST_F(CliEndToEnd, RepliesAndNotificationsWithPrompt) {
    Peer peer(
        {"audio.mute", kMuteResponse,  //
         "audio.mute", "<notify event=\"call.status\" target=\"1\"><v>connected</v></notify>",
         "audio.mute", "<server_response><v>1</v></server_response>", "audio.mute",
         "<response><v name=\"a\"></v><v></v></response>", "speaker-volume",
         "<response><action property=\"audio.speaker-volume\">get</action><v>9</v></response>"});
    Cli cli({},
            "get mute\n"
            "set prompt 1\n"
            "get speaker-volume\n"
            "xy\n"
            "x\n"
            "set prompt 0\n"
            "xy\n");
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(cli.output(),
              "val mute 0\n\r"
              "notify call.status 1 connected\n\r"
              "val speaker-volume 9\n\rcli> "
              "command syntax error\n\rcli> "
              "command syntax error\n\r");
    const std::vector<std::string> events = peer.events(3);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events.back(), "SIGUSR2");
}

TEST_F(CliEndToEnd, TimestampedNotifications) {
    Peer peer({"audio.mute", "<notify event=\"audio.mute\"><v>1</v></notify>",  //
               "audio.mute", kMuteResponse});
    Cli cli({"-t", "-c", "get mute"}, "");
    EXPECT_EQ(cli.status(), 0);
    const std::string out = cli.output();
    const std::regex expected(
        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
        "notify audio\\.mute 1\n\rval mute 0\n\r");
    EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

TEST_F(CliEndToEnd, HelpIsForRootAndBannerForOperator) {
    {
        Peer peer;
        Cli root({}, "help\nhelp foo\n");
        EXPECT_EQ(root.status(), 0);
        const std::string listing = root.output();
        EXPECT_NE(listing.find("\"get mute\" - Query mute state.\n"), std::string::npos);
        EXPECT_NE(listing.find("\n\nhelp usage:\n"), std::string::npos);
        EXPECT_EQ(listing.find("Welcome"), std::string::npos);
    }
    if (!operator_account_usable()) GTEST_SKIP() << "uid 1001 not available here";
    {
        Peer peer({}, kOperator);
        // Root-only rows (categories 0 and 11) are refused like unknown lines.
        Cli op({}, "help\nget md5-password\nset all-mic-mute 1\n", false, kOperator);
        EXPECT_EQ(op.status(), 0);
        EXPECT_EQ(op.output(),
                  "Welcome to the TX-416 IP Management Interface\n\ncommand syntax error\n"
                  "command syntax error\n\rcommand syntax error\n\r");
        EXPECT_EQ(peer.events(1), std::vector<std::string>{"SIGUSR2"});
    }
}

TEST_F(CliEndToEnd, EndOfInputAndExit) {
    {
        Peer peer;
        Cli cli({}, "get mute\n");
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kGetMute), "SIGUSR2"}));
        EXPECT_TRUE(cli.has_history());
    }
    {
        // "exit " is not the built-in; the lines after "exit" are never read.
        Peer peer;
        Cli cli({}, "exit \nget mute\nexit\nget mute\n");
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kGetMute), "SIGUSR2"}));
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(peer.events().size(), 2U);
        EXPECT_EQ(cli.output(), "command syntax error\n\r");
        EXPECT_FALSE(cli.has_history());
    }
}

TEST_F(CliEndToEnd, InterruptAndTerminateEndWithStatusOne) {
    for (const int signo : {SIGINT, SIGTERM}) {
        Peer peer;
        Cli cli({}, "get mute\n", true);
        peer.events(1);
        cli.signal(signo);
        EXPECT_EQ(cli.status(), 1) << signo;
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kGetMute), "SIGUSR2"}))
            << signo;
    }
}

TEST_F(CliEndToEnd, RoomControlCleanUpOnEachWayOut) {
    if (!operator_account_usable()) GTEST_SKIP() << "uid 1001 not available here";
    const std::string send_rc = std::string("msgsnd ") + kSetRc;
    const std::string send_off = std::string("msgsnd ") + kDisconnect;
    const std::string signal_peer = "kill " + std::to_string(SIGUSR2);
    {
        // Interrupted: the clean-up request goes before the signal.
        Peer peer({}, kOperator);
        Cli cli({}, "set dialer-connection-mode rc\n", true, kOperator, true);
        peer.events(1);
        cli.signal(SIGINT);
        EXPECT_EQ(cli.status(), 1);
        EXPECT_EQ(cli.calls(), (std::vector<std::string>{send_rc, send_off, signal_peer}));
        EXPECT_EQ(peer.events(3),
                  (std::vector<std::string>{msg(cli.pid(), kSetRc), msg(cli.pid(), kDisconnect),
                                            "SIGUSR2"}));
    }
    {
        // "exit": the signal first, the clean-up request right after it (too
        // close for the peer to tell the order; the client's log tells it).
        Peer peer({}, kOperator);
        Cli cli({}, "set dialer-connection-mode rc\nexit\n", false, kOperator, true);
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(cli.calls(), (std::vector<std::string>{send_rc, signal_peer, send_off}));
        std::vector<std::string> events = peer.events(3);
        std::vector<std::string> expected = {msg(cli.pid(), kSetRc), msg(cli.pid(), kDisconnect),
                                             "SIGUSR2"};
        std::sort(events.begin(), events.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(events, expected);
    }
    {
        // End of input: no clean-up at all.
        Peer peer({}, kOperator);
        Cli cli({}, "set dialer-connection-mode rc\n", false, kOperator, true);
        EXPECT_EQ(cli.status(), 0);
        EXPECT_EQ(cli.calls(), (std::vector<std::string>{send_rc, signal_peer}));
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kSetRc), "SIGUSR2"}));
    }
    {
        // Disarmed again, or set by root: nothing extra on the way out.
        Peer peer({}, kOperator);
        Cli cli({}, "set dialer-connection-mode rc\nset dialer-connection-mode disconnected\n",
                true, kOperator, true);
        peer.events(2);
        cli.signal(SIGINT);
        EXPECT_EQ(cli.status(), 1);
        EXPECT_EQ(cli.calls(), (std::vector<std::string>{send_rc, send_off, signal_peer}));
    }
    {
        Peer peer;
        Cli cli({}, "set dialer-connection-mode rc\n", true, 0, true);
        peer.events(1);
        cli.signal(SIGINT);
        EXPECT_EQ(cli.status(), 1);
        EXPECT_EQ(cli.calls(), (std::vector<std::string>{send_rc, signal_peer}));
        EXPECT_EQ(peer.events(2), (std::vector<std::string>{msg(cli.pid(), kSetRc), "SIGUSR2"}));
    }
}

TEST_F(CliEndToEnd, StartsWithoutQueues) {
    Cli one_shot({"-c", "get mute"}, "");
    EXPECT_EQ(one_shot.status(), 0);
    EXPECT_EQ(one_shot.output(),
              "cli_client:184: error access queue. \n"
              "cli_client:439: error sending cli command. \n");

    Cli interactive({}, "set prompt 1\nxy\n");
    EXPECT_EQ(interactive.status(), 0);
    EXPECT_EQ(interactive.output(),
              "cli_client:184: error access queue. \ncommand syntax error\n\rcli> ");
}

TEST_F(CliEndToEnd, LongLinesAreCutNotOverrun) {
    // The 127th character of a line is dropped (it stands where the newline
    // of a full-length line would be); the 126th is kept. A line longer than
    // the editor takes is one line all the same, and the script goes on.
    const std::string dropped = "set prompt" + std::string(116, ' ') + "1\n";
    const std::string kept = "set prompt" + std::string(115, ' ') + "1\n";
    Peer peer;
    Cli cli({}, dropped + "xy\n" + kept + "xy\n" + std::string(450, 'z') + "\n" +
                    std::string(1200, 'z') + "\nxy\n");
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(cli.output(),
              "command syntax error\n\r"
              "command syntax error\n\rcli> "
              "command syntax error\n\rcli> "
              "command syntax error\n\rcli> "
              "command syntax error\n\rcli> ");
}

TEST_F(CliEndToEnd, KeepAliveAfterTenSecondsUntilASendFails) {
    // Started before any queue exists, this client can never send.
    Cli orphan({}, "", true);
    std::this_thread::sleep_for(300ms + start_up_slack());
    Peer peer;
    const auto start = Clock::now();
    Cli cli({}, "", true);

    const std::string keep_alive = msg(cli.pid(), kKeepAlive);
    const auto has_keep_alive = [&] {
        for (const auto& e : peer.events()) {
            if (e == keep_alive) return true;
        }
        return false;
    };
    EXPECT_FALSE(wait_until(has_keep_alive, 9500ms));
    EXPECT_TRUE(wait_until(has_keep_alive, 1500ms + start_up_slack()));
    EXPECT_LT(Clock::now() - start, 11500ms + start_up_slack());

    // One after the other: two SIGUSR2 pending at once would merge into one.
    cli.close_input();
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(peer.events(2), (std::vector<std::string>{keep_alive, "SIGUSR2"}));
    orphan.close_input();
    EXPECT_EQ(orphan.status(), 0);
    EXPECT_EQ(orphan.output(),
              "cli_client:184: error access queue. \n"
              "cli_client:348: error sending cli keep alive. \n");
    EXPECT_EQ(peer.events(3), (std::vector<std::string>{keep_alive, "SIGUSR2", "SIGUSR2"}));
}

// Threads the process runs now.
static int thread_count(pid_t pid) {
    int count = 0;
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str())) {
        while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
        closedir(dir);
    }
    return count;
}

TEST_F(CliEndToEnd, RemovedQueuesEndTheReceiverSilentlyAndTheKeepAliveOnce) {
    Peer peer({"audio.mute", kMuteResponse});
    const auto start = Clock::now();
    Cli cli({}, "get mute\n", true);
    ASSERT_TRUE(wait_until([&] { return cli.output() == "val mute 0\n\r"; }, 3s)) << cli.output();
    const int threads = thread_count(cli.pid());

    remove_queues();
    EXPECT_TRUE(wait_until([&] { return thread_count(cli.pid()) == threads - 1; }, 3s))
        << thread_count(cli.pid()) << " of " << threads;
    EXPECT_EQ(cli.output(), "val mute 0\n\r");
    cli.write_input("get mute\n");
    EXPECT_TRUE(wait_until([&] { return thread_count(cli.pid()) == threads - 2; }, 12s))
        << thread_count(cli.pid()) << " of " << threads;
    EXPECT_LT(Clock::now() - start, 12s);
    cli.close_input();
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(cli.output(),
              "val mute 0\n\r"
              "cli_client:439: error sending cli command. \n"
              "cli_client:348: error sending cli keep alive. \n");
}

TEST_F(CliEndToEnd, FullOutgoingQueueReportsTheSend) {
    // Queues that nobody reads, the client's outgoing one filled to the brim.
    std::vector<int> ids;
    for (const char* token : {"/tmp/cli_out_token", "/tmp/cli_in_token"}) {
        close(open(token, O_WRONLY | O_CREAT, 0666));
        ids.push_back(msgget(ftok(token, 'a'), IPC_CREAT | 0666));
        ASSERT_GE(ids.back(), 0) << token;
    }
    struct {
        long type;
        char text[516];
    } filler = {1, {}};
    int queued = 0;
    while (msgsnd(ids[0], &filler, sizeof filler.text, IPC_NOWAIT) == 0) ++queued;
    ASSERT_EQ(errno, EAGAIN);
    ASSERT_GT(queued, 0);

    Cli cli({"-c", "get mute"}, "");
    EXPECT_EQ(cli.status(), 0);
    EXPECT_EQ(cli.output(), "cli_client:439: error sending cli command. \n");
    msqid_ds ds{};
    ASSERT_EQ(msgctl(ids[0], IPC_STAT, &ds), 0);
    EXPECT_EQ(static_cast<int>(ds.msg_qnum), queued);  // nothing lost, nothing added
    remove_queues();
}
