#include "process.hpp"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace tx::test {

namespace {

constexpr std::string_view kReportPrefix = "sanitizer-report";

// The emulator launcher of a cross build, "" when programs run natively.
std::string emulator() {
    const char* launcher = std::getenv("TX_EMULATOR");
    return launcher != nullptr ? launcher : "";
}

// Sanitized programs write their reports to files of their own, whatever
// they do with standard error. cli's signal handler works in signal context
// on purpose, and a preloaded library may come before the sanitizer runtime.
void add_sanitizer_options() {
    const std::string log = "log_path=/tmp/" + std::string(kReportPrefix);
    for (const auto& [name, extra] :
         {std::pair{"ASAN_OPTIONS", ":verify_asan_link_order=0"}, std::pair{"UBSAN_OPTIONS", ""},
          std::pair{"TSAN_OPTIONS", ":report_signal_unsafe=0"}}) {
        const char* current = std::getenv(name);
        const std::string before =
            current != nullptr && *current != '\0' ? current + std::string(":") : "";
        setenv(name, (before + log + extra).c_str(), 1);
    }
}

// Runs in the child between fork and exec: a fresh process with default
// signal dispositions (a test started in the background ignores SIGINT),
// its own files and user, then the program.
[[noreturn]] void exec_child(const std::vector<std::string>& argv, const std::string& log,
                             std::vector<std::string>& env, int input, uid_t uid) {
    for (int signo = 1; signo < NSIG; ++signo) ::signal(signo, SIG_DFL);
    add_sanitizer_options();
    for (std::string& entry : env) {
        // The emulator hands a preloaded target library to the emulated loader.
        if (!emulator().empty() && entry.starts_with("LD_PRELOAD="))
            entry = "TX_TARGET_PRELOAD" + entry.substr(entry.find('='));
        putenv(entry.data());
    }
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const int err = open((log + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (input < 0) input = open("/dev/null", O_RDONLY);
    if (dup2(input, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(125);
    if (uid != 0 && (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0))
        _exit(126);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

}  // namespace

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

std::vector<std::string> target(const std::string& path) {
    if (emulator().empty()) return {path};
    return {emulator(), path};
}

std::string bin(std::string_view name) {
    const char* dir = std::getenv("TX_BIN_DIR");
    return std::string(dir != nullptr ? dir : "build/bin") + "/" + std::string(name);
}

bool uid_usable(uid_t uid) {
    unsigned long first = 0, outside = 0, count = 0;
    std::ifstream("/proc/self/uid_map") >> first >> outside >> count;
    return uid == 0 || (geteuid() == 0 && first == 0 && uid < count);
}

std::string sanitizer_reports() {
    std::string reports;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        if (entry.path().filename().string().starts_with(kReportPrefix))
            reports += read_file(entry.path());
    }
    return reports;
}

Process::Process(const std::vector<std::string>& argv, std::string log,
                 std::vector<std::string> env, bool input, uid_t uid)
    : log_(std::move(log)) {
    ::signal(SIGPIPE, SIG_IGN);  // a program that ended early must not end the test
    int pipe_fds[2] = {-1, -1};
    if (input && pipe2(pipe_fds, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) exec_child(argv, log_, env, pipe_fds[0], uid);
    if (pipe_fds[0] >= 0) close(pipe_fds[0]);
    input_ = pipe_fds[1];
}

Process::~Process() {
    close_input();
    for (const int signo : {SIGTERM, SIGKILL}) {
        if (wait(0ms) == -1) signal(signo);
        wait(2s);
    }
}

// Inputs are far below a pipe's capacity: one write takes them.
void Process::write(std::string_view text) {
    static_cast<void>(!::write(input_, text.data(), text.size()));
}

void Process::close_input() {
    if (input_ >= 0) close(input_);
    input_ = -1;
}

void Process::signal(int signo) const {
    if (pid_ > 0 && status_ == -1) kill(pid_, signo);
}

int Process::wait(std::chrono::milliseconds limit) {
    wait_until(
        [&] {
            int status = 0;
            if (status_ == -1 && pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_ != -1 || pid_ <= 0;
        },
        limit);
    return status_;
}

}  // namespace tx::test
