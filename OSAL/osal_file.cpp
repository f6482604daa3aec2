#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

#include "osal.hpp"

namespace {

constexpr const char* kSource = "osal_file";

// Opened on first use and deliberately never closed: every later call reads
// from the same descriptor.
std::atomic<int> random_fd{-1};

int random_descriptor() {
    int fd = random_fd.load();
    if (fd >= 0) return fd;
    const int opened = open("/dev/random", O_RDONLY);
    if (opened < 0) return -1;
    if (!random_fd.compare_exchange_strong(fd, opened)) {
        close(opened);
        return fd;
    }
    return opened;
}

}  // namespace

int osal_file_open(const char* path, unsigned options) {
    if (path == nullptr) {
        osal_report(kSource, 45, "\n");
        return -1;
    }
    int flags = (options & OSAL_FILE_RDWR_TRUNC) != 0 ? (O_RDWR | O_TRUNC) : O_RDONLY;
    if ((options & OSAL_FILE_CREATE) != 0) flags |= O_CREAT;
    if ((options & OSAL_FILE_SYNC) != 0) flags |= O_SYNC;
    const int fd = open(path, flags, 0666);
    if (fd >= 0 && (options & OSAL_FILE_NONBLOCK) != 0) {
        // Exactly O_NONBLOCK: the other status flags of the open are dropped.
        (void)fcntl(fd, F_SETFL, O_NONBLOCK);
    }
    return fd;
}

long osal_file_read(int fd, void* buffer, std::size_t length) {
    if (buffer == nullptr) {
        osal_report(kSource, 96, "\n");
        return -1;
    }
    return static_cast<long>(read(fd, buffer, length));
}

long osal_file_write(int fd, const void* buffer, std::size_t length) {
    if (buffer == nullptr) {
        osal_report(kSource, 111, "\n");
        return -1;
    }
    return static_cast<long>(write(fd, buffer, length));
}

int osal_file_close(int fd) {
    return close(fd);
}

void* osal_file_map(int fd, off_t offset, std::size_t length) {
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    return address == MAP_FAILED ? nullptr : address;
}

int osal_file_unmap(void* address, std::size_t length) {
    if (address == nullptr) {
        osal_report(kSource, 143, "\n");
        return -1;
    }
    return munmap(address, length) == 0 ? 0 : -1;
}

int osal_random_bytes(void* buffer, std::size_t length) {
    if (buffer == nullptr) return -1;
    const int fd = random_descriptor();
    if (fd < 0) return -1;
    const ssize_t got = read(fd, buffer, length);
    return got >= 0 && static_cast<std::size_t>(got) == length ? 0 : -1;
}
