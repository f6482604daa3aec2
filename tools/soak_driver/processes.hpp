// Starting the stack's processes from the soak driver.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace soak {

// Starts argv with standard input from in_fd and standard output from out_fd
// (-1: /dev/null; standard error goes where standard output goes), with the
// signal dispositions and mask a process gets from a shell. -1 on failure.
pid_t spawn(const std::vector<std::string>& argv, int in_fd, int out_fd);

// Opens a log file for appending; -1 on failure.
int open_log(const std::string& path);

// How a process ended: "exit status 0", "signal 13".
std::string describe_status(int status);

}  // namespace soak
