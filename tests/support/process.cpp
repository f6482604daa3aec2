#include "process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "spawn.hpp"

namespace tx::test {

namespace {

constexpr std::string_view kReportPrefix = "sanitizer-report";

// The emulator launcher of a cross build, "" when programs run natively.
std::string emulator() {
    const char* launcher = std::getenv("TX_EMULATOR");
    return launcher != nullptr ? launcher : "";
}

// Sanitized programs write their reports to files of their own, whatever
// they do with standard error; a preloaded library may come before the
// sanitizer runtime.
std::vector<std::string> sanitizer_options() {
    const std::string log = "log_path=/tmp/" + std::string(kReportPrefix);
    std::vector<std::string> env;
    for (const auto& [name, extra] :
         {std::pair{"ASAN_OPTIONS", ":verify_asan_link_order=0"}, std::pair{"UBSAN_OPTIONS", ""},
          std::pair{"TSAN_OPTIONS", ""}}) {
        const char* current = std::getenv(name);
        const std::string before =
            current != nullptr && *current != '\0' ? current + std::string(":") : "";
        env.push_back(std::string(name) + "=" + before + log + extra);
    }
    return env;
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
    SpawnOptions options;
    options.env = sanitizer_options();
    options.uid = uid;
    for (std::string& entry : env) {
        // The emulator hands a preloaded target library to the emulated loader.
        if (!emulator().empty() && entry.starts_with("LD_PRELOAD="))
            entry = "TX_TARGET_PRELOAD" + entry.substr(entry.find('='));
        options.env.push_back(entry);
    }
    int pipe_fds[2] = {-1, -1};
    if (input && pipe2(pipe_fds, O_CLOEXEC) != 0) return;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    options.in_fd = pipe_fds[0];
    options.out_fd = open(log_.c_str(), kFlags, 0666);
    options.err_fd = open((log_ + ".err").c_str(), kFlags, 0666);
    pid_ = spawn(argv, options);
    for (const int fd : {pipe_fds[0], options.out_fd, options.err_fd}) {
        if (fd >= 0) close(fd);
    }
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
