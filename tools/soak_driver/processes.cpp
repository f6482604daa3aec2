#include "processes.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace soak {

int open_log(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

std::string describe_status(int status) {
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace soak
