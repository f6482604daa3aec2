#include <sys/select.h>

#include "osal.hpp"

namespace {
constexpr const char* kSource = "osal_select";

// Descriptors that an fd_set cannot hold are treated like negative ones:
// skipped, never ready.
bool selectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}
}  // namespace

int osal_select_wait_readable(const int* fds, int* ready, int count, int timeout_ms) {
    if (fds == nullptr || count <= 0 || ready == nullptr) {
        osal_report(kSource, 53, "\n");
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    int largest = -1;
    for (int i = 0; i < count; ++i) {
        ready[i] = 0;
        if (!selectable(fds[i])) continue;
        FD_SET(fds[i], &readable);
        if (fds[i] > largest) largest = fds[i];
    }
    if (largest < 0) {
        osal_report(kSource, 82, "\n");
        return -1;
    }
    timeval timeout{};
    timeval* limit = nullptr;
    if (timeout_ms >= 0) {
        timeout.tv_sec = timeout_ms / 1000;
        timeout.tv_usec = (timeout_ms % 1000) * 1000;
        limit = &timeout;
    }
    const int result = select(largest + 1, &readable, nullptr, nullptr, limit);
    // Flags are set from the set whatever select returned; after a failure
    // the set's content is unspecified, so callers look at the result first.
    for (int i = 0; i < count; ++i) {
        ready[i] = selectable(fds[i]) && FD_ISSET(fds[i], &readable) ? 1 : 0;
    }
    return result;
}
