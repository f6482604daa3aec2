// Starting, watching and stopping the stack's processes from a test that runs
// as the sandbox's first process.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "target_command.hpp"

namespace stack {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline std::string bin(const std::string& name) {
    const char* dir = std::getenv("TX_BIN_DIR");
    return std::string(dir != nullptr ? dir : "build/bin") + "/" + name;
}

inline bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (Clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return done();
}

inline std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A child process. Its standard output (and error) is collected when asked
// for; otherwise it goes to a log file.
class Process {
  public:
    Process(std::vector<std::string> argv, bool interactive, const std::string& log_path = "") {
        int in_pipe[2] = {-1, -1};
        int out_pipe[2] = {-1, -1};
        if (interactive && (pipe(in_pipe) != 0 || pipe(out_pipe) != 0)) return;
        pid_ = fork();
        if (pid_ == 0) {
            if (interactive) {
                dup2(in_pipe[0], 0);
                dup2(out_pipe[1], 1);
                dup2(out_pipe[1], 2);
                close(in_pipe[1]);
                close(out_pipe[0]);
            } else {
                const int null_in = open("/dev/null", O_RDONLY);
                dup2(null_in, 0);
                const int log = open(log_path.empty() ? "/dev/null" : log_path.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
                dup2(log, 1);
                dup2(log, 2);
            }
            // A fresh process: default dispositions, nothing blocked.
            ::signal(SIGPIPE, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            std::vector<char*> args;
            for (auto& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        if (interactive) {
            close(in_pipe[0]);
            close(out_pipe[1]);
            in_fd_ = in_pipe[1];
            out_fd_ = out_pipe[0];
            reader_ = std::thread([this] { collect(); });
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        stop();
        if (in_fd_ >= 0) close(in_fd_);
        if (reader_.joinable()) reader_.join();
        if (out_fd_ >= 0) close(out_fd_);
    }

    pid_t pid() const { return pid_; }

    void type(const std::string& line) {
        const std::string text = line + "\n";
        (void)!write(in_fd_, text.data(), text.size());
    }

    std::string output() {
        std::lock_guard lock(mutex_);
        return output_;
    }

    bool wait_for_output(const std::string& text, std::chrono::milliseconds limit = 5000ms) {
        return wait_until([&] { return output().find(text) != std::string::npos; }, limit);
    }

    // Waits for the process to end by itself; returns its wait status or -1.
    int wait_exit(std::chrono::milliseconds limit = 5000ms) {
        if (pid_ <= 0) return status_;
        const auto end = Clock::now() + limit;
        while (Clock::now() < end) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                status_ = status;
                return status;
            }
            std::this_thread::sleep_for(10ms);
        }
        return -1;
    }

    // Waits for the end of the process and of its output.
    std::string finish(std::chrono::milliseconds limit = 5000ms) {
        wait_exit(limit);
        if (pid_ <= 0 && reader_.joinable()) reader_.join();
        return output();
    }

    void signal(int sig) {
        if (pid_ > 0) kill(pid_, sig);
    }

    // SIGTERM, then SIGKILL if it does not go.
    int stop() {
        if (pid_ <= 0) return status_;
        kill(pid_, SIGTERM);
        if (wait_exit(3000ms) != -1) return status_;
        kill(pid_, SIGKILL);
        return wait_exit(3000ms);
    }

  private:
    void collect() {
        char buffer[4096];
        for (;;) {
            const ssize_t n = read(out_fd_, buffer, sizeof buffer);
            if (n <= 0) break;
            std::lock_guard lock(mutex_);
            output_.append(buffer, static_cast<std::size_t>(n));
        }
    }

    pid_t pid_ = -1;
    int status_ = -1;
    int in_fd_ = -1;
    int out_fd_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::string output_;
};

inline int queue_id(const char* token) {
    const key_t key = ftok(token, 'a');
    return key == -1 ? -1 : msgget(key, 0);
}

inline bool queue_exists(const char* token) {
    return queue_id(token) >= 0;
}

// Messages waiting on the queue keyed by token.
inline long queue_depth(const char* token) {
    const int id = queue_id(token);
    if (id < 0) return -1;
    msqid_ds ds{};
    if (msgctl(id, IPC_STAT, &ds) != 0) return -1;
    return static_cast<long>(ds.msg_qnum);
}

inline constexpr const char* kReportDir = "/tmp";
inline constexpr const char* kReportPrefix = "/tmp/sanitizer-report";

inline std::vector<std::string> sanitizer_report_files() {
    std::vector<std::string> files;
    if (DIR* dir = opendir(kReportDir)) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.starts_with("sanitizer-report"))
                files.push_back(std::string(kReportDir) + "/" + name);
        }
        closedir(dir);
    }
    return files;
}

inline void remove_sanitizer_report_files() {
    for (const std::string& file : sanitizer_report_files()) unlink(file.c_str());
}

// What the stack's processes (cli included) reported so far.
inline std::string sanitizer_report_texts() {
    std::string texts;
    for (const std::string& file : sanitizer_report_files()) {
        std::ifstream in(file);
        std::stringstream s;
        s << in.rdbuf();
        texts += file + ":\n" + s.str().substr(0, 4000);
    }
    return texts;
}

// The environment every stack process runs in: voice features enabled, home
// and history inside the sandbox's /tmp.
inline void prepare_environment() {
    std::ofstream("/tmp/cmdline") << "console=ttyS0 voip_capable=1\n";
    setenv("PLATFORM_CMDLINE", "/tmp/cmdline", 1);
    setenv("HOME", "/tmp", 1);
    // The unbuffering library is preloaded ahead of the sanitizer runtime of
    // a sanitized cli, which the runtime refuses by default.
    std::string asan = std::getenv("ASAN_OPTIONS") != nullptr ? std::getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS",
           (asan.empty() ? "" : asan + ":").append("verify_asan_link_order=0").c_str(), 1);
    // Every child's sanitizer reports land in files of their own, whatever
    // the child does with its standard error.
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* current = std::getenv(name);
        std::string options = current != nullptr && current[0] != '\0' ? current : "";
        if (options.find("log_path=") != std::string::npos) continue;
        if (!options.empty()) options += ':';
        options.append("log_path=").append(kReportPrefix);
        // cli's SIGINT/SIGTERM handler looks up the connector and exits from
        // signal context on purpose.
        if (std::string_view(name) == "TSAN_OPTIONS") options += ":report_signal_unsafe=0";
        setenv(name, options.c_str(), 1);
    }
    remove_sanitizer_report_files();
    signal(SIGPIPE, SIG_IGN);
    for (const char* log : {"/tmp/coresim.log", "/tmp/cliconn.log", "/tmp/cgiconn.log"})
        unlink(log);
}

inline std::unique_ptr<Process> start_coresim(const std::vector<std::string>& options = {}) {
    unlink("/tmp/coresim.log");
    std::vector<std::string> argv = tx::test::target_command({bin("coresim"), "-v"});
    argv.insert(argv.end(), options.begin(), options.end());
    auto p = std::make_unique<Process>(argv, false, "/tmp/coresim.log");
    wait_until(
        [] { return read_file("/tmp/coresim.log").find("coresim: ready") != std::string::npos; },
        5000ms);
    return p;
}

inline std::unique_ptr<Process> start_cliconn() {
    auto p = std::make_unique<Process>(tx::test::target_command({bin("cliconn")}), false,
                                       "/tmp/cliconn.log");
    wait_until(
        [] { return queue_exists("/tmp/cli_in_token") && queue_exists("/tmp/cli_out_token"); },
        5000ms);
    return p;
}

inline std::unique_ptr<Process> start_cgiconn() {
    auto p = std::make_unique<Process>(tx::test::target_command({bin("cgiconn")}), false,
                                       "/tmp/cgiconn.log");
    wait_until(
        [] { return queue_exists("/tmp/cgi_in_token") && queue_exists("/tmp/cgi_out_token"); },
        5000ms);
    return p;
}

// cli's own diagnostics go through stdio, which buffers them fully on a pipe;
// a preloaded library unbuffers them so they show up when they are printed.
inline std::vector<std::string> cli_command() {
    std::vector<std::string> cli = tx::test::target_command({bin("cli")});
    cli.insert(
        cli.begin(),
        {"/usr/bin/env", tx::test::target_environment({"LD_PRELOAD=" UNBUFFERED_STDOUT}).front()});
    return cli;
}

inline std::unique_ptr<Process> interactive_cli(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = cli_command();
    argv.insert(argv.end(), options.begin(), options.end());
    return std::make_unique<Process>(argv, true);
}

// A sanitized build reports into the processes' logs; none may hold a report.
inline std::string sanitizer_reports(const std::string& log_path) {
    const std::string log = read_file(log_path);
    for (const char* marker :
         {"AddressSanitizer", "LeakSanitizer", "ThreadSanitizer", "runtime error:"}) {
        const auto at = log.find(marker);
        if (at != std::string::npos) return log.substr(at > 200 ? at - 200 : 0, 2000);
    }
    return {};
}

// Runs `cli -c"command"` to its end and returns what it printed.
inline std::string one_shot(const std::string& command) {
    std::vector<std::string> argv = cli_command();
    argv.push_back("-c" + command);
    Process p(argv, true);
    return p.finish();
}

}  // namespace stack
