#include "fifo.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "osal.hpp"

namespace coresim {

HeldFifo::~HeldFifo() {
    if (fd_ >= 0) close(fd_);
}

// What is held is always a FIFO (see reopen).
bool HeldFifo::holds_path() const {
    struct stat on_path {};
    struct stat held {};
    return fd_ >= 0 && lstat(path_.c_str(), &on_path) == 0 && fstat(fd_, &held) == 0 &&
           held.st_dev == on_path.st_dev && held.st_ino == on_path.st_ino;
}

bool HeldFifo::reopen() {
    struct stat on_path {};
    if (lstat(path_.c_str(), &on_path) == 0 && !S_ISFIFO(on_path.st_mode)) {
        if (osal_queue_remake(path_.c_str()) != 0) return false;
    } else if (mkfifo(path_.c_str(), 0666) != 0 && errno != EEXIST) {
        return false;
    }
    const int fd = open(path_.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) return false;
    // Swapped again between the check and the open: the next pass repeats it.
    struct stat opened {};
    if (fstat(fd, &opened) != 0 || !S_ISFIFO(opened.st_mode)) {
        close(fd);
        errno = EAGAIN;
        return false;
    }
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
    return true;
}

bool HeldFifo::keep() {
    if (holds_path()) return true;
    const bool kept = reopen();
    if (kept) {
        failure_reported_ = false;
    } else if (!failure_reported_) {
        std::fprintf(stderr, "coresim: cannot keep a FIFO at %s: %s\n", path_.c_str(),
                     std::strerror(errno));
        failure_reported_ = true;
    }
    return kept;
}

}  // namespace coresim
