#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "osal.hpp"

namespace {

constexpr std::size_t kRecordBuffer = 1024;
// The formatter's limit is one below the buffer so that the newline always
// fits after its terminator, even when the text was cut.
constexpr std::size_t kTextLimit = kRecordBuffer - 1;

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

// Formats the optional source prefix and then the caller's text into one
// record, as if both were one format, and writes it.
void write_record(int level, const char* source, int line, const char* format, va_list args) {
    if (log_threshold.load(std::memory_order_relaxed) > level) return;
    if (format == nullptr) return;

    std::array<char, kRecordBuffer> record;
    int n = 0;
    if (source != nullptr) {
        n = std::snprintf(record.data(), kTextLimit, "%s %d [%d, %d]:", source, line,
                          static_cast<int>(getpid()), osal_gettid());
        if (n < 0) return;
    }
    const std::size_t used = std::min(static_cast<std::size_t>(n), kTextLimit - 1);
    const int text = std::vsnprintf(record.data() + used, kTextLimit - used, format, args);
    if (text < 0) return;
    n += text;

    long length = 0;
    if (static_cast<std::size_t>(n) <= kTextLimit) {
        record[static_cast<std::size_t>(n)] = '\n';
        length = n + 1;
    } else {
        // A cut record keeps the terminator at 1022 and ends in the newline.
        record[kTextLimit] = '\n';
        length = static_cast<long>(kRecordBuffer);
    }

    const int fd = log_descriptor();
    if (fd < 0) return;
    // One write per record: below the pipe's atomic size, so records of
    // concurrent writers never interleave. A full pipe drops the record.
    (void)osal_queue_write(fd, record.data(), length);
}

}  // namespace

int osal_gettid() {
    return static_cast<int>(syscall(SYS_gettid));
}

void osal_set_log_threshold(int level) {
    log_threshold.store(level, std::memory_order_relaxed);
}

void osal_log(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    write_record(level, nullptr, 0, format, args);
    va_end(args);
}

void osal_report(const char* source, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    write_record(0, source != nullptr ? source : "", line, format, args);
    va_end(args);
}
