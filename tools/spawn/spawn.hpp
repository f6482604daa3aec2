// Starting a program of the system from the tests, the soak and the
// benchmarks: one way, so that each starts its children alike.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tx {

struct SpawnOptions {
    int in_fd = -1;                // standard input; -1: /dev/null
    int out_fd = -1;               // standard output; -1: /dev/null
    int err_fd = -1;               // standard error; -1: where standard output goes
    std::vector<std::string> env;  // NAME=value entries on top of this process's own
    uid_t uid = 0;                 // taken (with its group) before the program starts
};

// Starts argv[0] with the arguments argv, as a shell would: with the default
// signal dispositions and an empty signal mask whatever this process ignores
// or blocks. Descriptors other than the three are the caller's to mark
// close-on-exec. The child's process id,
// or -1 when none could be made. A program that cannot be started ends its
// child with status 127 (126: the user could not be taken).
pid_t spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});

}  // namespace tx
