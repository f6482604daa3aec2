#include "processes.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace soak {

pid_t spawn(const std::vector<std::string>& argv, int in_fd, int out_fd) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    // The driver ignores what would end it; its children must not inherit that.
    for (const int sig : {SIGPIPE, SIGUSR2, SIGINT, SIGTERM}) signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null_fd = open("/dev/null", O_RDWR);
    dup2(in_fd >= 0 ? in_fd : null_fd, STDIN_FILENO);
    dup2(out_fd >= 0 ? out_fd : null_fd, STDOUT_FILENO);
    dup2(out_fd >= 0 ? out_fd : null_fd, STDERR_FILENO);
    execv(args[0], args.data());
    _exit(127);
}

int open_log(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

std::string describe_status(int status) {
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace soak
