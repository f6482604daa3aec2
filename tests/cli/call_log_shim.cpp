// Preloaded into the client by the end-to-end tests: writes every kill() and
// msgsnd() of the client, in the order the client makes them, to the file
// named by TX_CALL_LOG. A receiving peer cannot tell that order when a signal
// and a message leave a few microseconds apart.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ipc_channel.hpp"

extern char* program_invocation_short_name;

namespace {

void log_line(const char* head, std::string_view text) {
    const char* path = std::getenv("TX_CALL_LOG");
    if (path == nullptr) return;
    const int saved_errno = errno;
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (fd >= 0) {
        char line[700];
        const int n = std::snprintf(line, sizeof line, "%s %.*s\n", head,
                                    static_cast<int>(text.size()), text.data());
        if (n > 0) {
            const ssize_t ignored = write(fd, line, static_cast<std::size_t>(n));
            static_cast<void>(ignored);
        }
        close(fd);
    }
    errno = saved_errno;
}

// Only the client itself is watched: the shells of its "pidof" lookups and
// a privilege-dropping launcher pass through untouched.
__attribute__((constructor)) void forget_preload_in_client() {
    if (std::strcmp(program_invocation_short_name, "cli") == 0) unsetenv("LD_PRELOAD");
}

}  // namespace

extern "C" int kill(pid_t pid, int signo) {
    using Kill = int (*)(pid_t, int);
    static const auto real = reinterpret_cast<Kill>(dlsym(RTLD_NEXT, "kill"));
    if (std::strcmp(program_invocation_short_name, "cli") == 0) {
        char text[32];
        std::snprintf(text, sizeof text, "%d", signo);
        log_line("kill", text);
    }
    return real(pid, signo);
}

extern "C" int msgsnd(int id, const void* message, size_t size, int flags) {
    using Send = int (*)(int, const void*, size_t, int);
    static const auto real = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "msgsnd"));
    if (std::strcmp(program_invocation_short_name, "cli") == 0 && message != nullptr) {
        const auto* record = static_cast<const IpcMessage*>(message);
        log_line("msgsnd", std::string_view(record->text, strnlen(record->text, IPC_TEXT_LEN)));
    }
    return real(id, message, size, flags);
}
