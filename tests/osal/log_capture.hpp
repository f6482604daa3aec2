// Test helper: reads what osal_log wrote into /tmp/osal_log, as the device's
// log collector would.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string>

class LogCapture {
  public:
    LogCapture() {
        (void)mkfifo("/tmp/osal_log", 0666);
        fd_ = open("/tmp/osal_log", O_RDONLY | O_NONBLOCK);
        (void)take();
    }
    ~LogCapture() {
        if (fd_ >= 0) close(fd_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool ok() const { return fd_ >= 0; }

    // Everything written since the last call.
    std::string take() {
        std::string out;
        std::array<char, 4096> chunk{};
        for (;;) {
            const ssize_t n = read(fd_, chunk.data(), chunk.size());
            if (n <= 0) break;
            out.append(chunk.data(), static_cast<std::size_t>(n));
        }
        return out;
    }

  private:
    int fd_ = -1;
};

// The "%s %d [%d, %d]:" prefix as this process and thread would write it.
inline std::string log_prefix(const char* source, int line, int tid) {
    return std::string(source) + " " + std::to_string(line) + " [" + std::to_string(getpid()) +
           ", " + std::to_string(tid) + "]:";
}
