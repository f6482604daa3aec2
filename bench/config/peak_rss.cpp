// peak_rss PROGRAM [ARG...]: runs the program and prints its peak resident
// memory in KiB on standard error, then exits with its status.
//
// The kernel counts a child's peak from its fork on, when it is still a copy
// of its parent: measured from a bench, the bench's own size would count.
// This launcher is linked statically and holds next to nothing, so the peak
// it reports is the program's own.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "spawn.hpp"

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    tx::SpawnOptions options;
    options.in_fd = STDIN_FILENO;
    options.out_fd = STDOUT_FILENO;
    options.err_fd = STDERR_FILENO;
    const pid_t pid = tx::spawn({argv + 1, argv + argc}, options);
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return 2;
    std::fprintf(stderr, "%ld\n", usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}
