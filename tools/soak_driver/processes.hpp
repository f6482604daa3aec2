// The soak driver's view of the processes it starts (with tx::spawn).
#pragma once

#include <sys/types.h>

#include <string>

namespace soak {

// Opens a log file for appending; -1 on failure.
int open_log(const std::string& path);

// How a process ended: "exit status 0", "signal 13".
std::string describe_status(int status);

}  // namespace soak
