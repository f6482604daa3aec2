// Reads what osal_log wrote into /tmp/osal_log, as the device's log collector
// would.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "osal.hpp"

struct LogCapture {
    const int fd = (mkfifo("/tmp/osal_log", 0666), open("/tmp/osal_log", O_RDONLY | O_NONBLOCK));
    // Everything written since the last call.
    std::string take() {
        std::string out;
        char chunk[4096];
        for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;)
            out.append(chunk, static_cast<std::size_t>(n));
        return out;
    }
    LogCapture() { take(); }
    ~LogCapture() { close(fd); }
};

// The prefix that osal_report writes from this thread for the source and line.
inline std::string report_prefix(const char* source, int line) {
    return std::string(source) + " " + std::to_string(line) + " [" + std::to_string(getpid()) +
           ", " + std::to_string(osal_gettid()) + "]:";
}
