#include "spawn.hpp"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <unistd.h>

#include <string_view>

extern char** environ;

namespace tx {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (std::string& text : texts) out.push_back(text.data());
    out.push_back(nullptr);
    return out;
}

// The environment with `extra` in place of the entries of the same names.
std::vector<std::string> environment(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view current(*entry);
        const std::string_view name = current.substr(0, current.find('=') + 1);
        bool replaced = false;
        for (const std::string& e : extra) replaced = replaced || e.starts_with(name);
        if (!replaced) env.emplace_back(current);
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

// Between fork and exec only async-signal-safe calls: everything the child
// needs was made before the fork.
[[noreturn]] void become(char* const* argv, char* const* envp, const SpawnOptions& o, int null_fd) {
    struct sigaction fresh {};
    fresh.sa_handler = SIG_DFL;
    for (int signo = 1; signo < NSIG; ++signo) sigaction(signo, &fresh, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int out = o.out_fd >= 0 ? o.out_fd : null_fd;
    if (dup2(o.in_fd >= 0 ? o.in_fd : null_fd, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
        dup2(o.err_fd >= 0 ? o.err_fd : out, STDERR_FILENO) < 0)
        _exit(127);
    if (o.uid != 0 && (setgroups(0, nullptr) != 0 || setgid(o.uid) != 0 || setuid(o.uid) != 0))
        _exit(126);
    execve(argv[0], argv, envp);
    _exit(127);
}

}  // namespace

pid_t spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
    if (argv.empty()) return -1;
    std::vector<std::string> args = argv;
    std::vector<std::string> env = environment(options.env);
    const std::vector<char*> arg_pointers = pointers(args);
    const std::vector<char*> env_pointers = pointers(env);
    const int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    const pid_t pid = fork();
    if (pid == 0) become(arg_pointers.data(), env_pointers.data(), options, null_fd);
    if (null_fd >= 0) close(null_fd);
    return pid;
}

}  // namespace tx
