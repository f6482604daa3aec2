#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "osal.hpp"

namespace {

constexpr std::size_t kRecordBuffer = 1024;

std::atomic<int> log_threshold{0};
std::atomic<int> log_fd{-1};

// The log pipe is opened on the first record that gets through and kept for
// the life of the process. Two threads racing here both open it; the loser
// closes its own descriptor so nothing leaks.
int log_descriptor() {
    int fd = log_fd.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    int opened = osal_queue_open("osal_log");
    if (opened < 0) return -1;  // the next record tries again
    osal_queue_set_nonblocking(opened);
    if (!log_fd.compare_exchange_strong(fd, opened, std::memory_order_acq_rel)) {
        osal_queue_close(opened);
        return fd;
    }
    return opened;
}

}  // namespace

int osal_gettid() {
    return static_cast<int>(syscall(SYS_gettid));
}

void osal_set_log_threshold(int level) {
    log_threshold.store(level, std::memory_order_relaxed);
}

void osal_log(int level, const char* format, ...) {
    if (log_threshold.load(std::memory_order_relaxed) > level) return;
    if (format == nullptr) return;

    std::array<char, kRecordBuffer> record;
    va_list args;
    va_start(args, format);
    // The limit is one below the buffer so that the newline always fits after
    // the formatter's terminator, even when the text was cut.
    const int n = std::vsnprintf(record.data(), kRecordBuffer - 1, format, args);
    va_end(args);
    if (n < 0) return;

    long length = 0;
    if (static_cast<std::size_t>(n) <= kRecordBuffer - 1) {
        record[static_cast<std::size_t>(n)] = '\n';
        length = n + 1;
    } else {
        // A cut record keeps the terminator at 1022 and ends in the newline.
        record[kRecordBuffer - 1] = '\n';
        length = static_cast<long>(kRecordBuffer);
    }

    const int fd = log_descriptor();
    if (fd < 0) return;
    // One write per record: below the pipe's atomic size, so records of
    // concurrent writers never interleave. A full pipe drops the record.
    (void)osal_queue_write(fd, record.data(), length);
}
