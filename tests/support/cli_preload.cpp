// Preloaded into cli by the end-to-end tests. Its standard output is made
// unbuffered, as on a terminal, so that a test sees each line when it is
// printed, and its clock reads 5 ms into every second, so that printed time
// stamps can be compared. With TX_CALL_LOG set, the calls by which the client
// acts on the world (msgsnd, kill, the history save) are written to that file
// in the order it makes them: a peer cannot tell that order when a signal and
// a message leave microseconds apart.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "queue.hpp"

extern char* program_invocation_short_name;

namespace {

// Only the client itself: not the shells of its "pidof" lookups.
bool in_client() {
    return std::strcmp(program_invocation_short_name, "cli") == 0;
}

// The definition that this library hides.
#define NEXT(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

// No allocation: calls may come from any thread of the client, at any moment.
template <typename... Args>
void log_call(const char* format, Args... args) {
    const char* path = std::getenv("TX_CALL_LOG");
    if (path == nullptr || !in_client()) return;
    const int saved_errno = errno;
    char line[700];
    const int length = std::snprintf(line, sizeof line, format, args...);
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (fd >= 0 && length > 0) static_cast<void>(!write(fd, line, static_cast<size_t>(length)));
    if (fd >= 0) close(fd);
    errno = saved_errno;
}

__attribute__((constructor)) void prepare_client() {
    if (!in_client()) return;
    unsetenv("LD_PRELOAD");
    std::setvbuf(stdout, nullptr, _IONBF, 0);
}

}  // namespace

extern "C" int kill(pid_t pid, int signo) {
    static const auto real = NEXT(kill);
    log_call("kill %d %s\n", static_cast<int>(pid), sigabbrev_np(signo));
    return real(pid, signo);
}

extern "C" int msgsnd(int id, const void* message, size_t size, int flags) {
    static const auto real = NEXT(msgsnd);
    const auto* record = static_cast<const tx::test::QueueRecord*>(message);
    log_call("send %ld %.*s\n", record->type, static_cast<int>(sizeof record->text), record->text);
    return real(id, message, size, flags);
}

extern "C" int gl_save_history(void* editor, const char* path, const char* comment, int lines) {
    static const auto real = NEXT(gl_save_history);
    log_call("save-history\n");
    return real(editor, path, comment, lines);
}

extern "C" int gettimeofday(timeval* now, void* zone) noexcept {
    static const auto real = NEXT(gettimeofday);
    const int result = real(now, zone);
    if (in_client()) now->tv_usec = 5000;
    return result;
}
