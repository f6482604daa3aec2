// The bare error record of the OS layer: source name and line are the message.
#pragma once

#include <unistd.h>

#include "osal.hpp"

namespace osal_detail {

inline void report(const char* source, int line) {
    osal_log(0, "%s %d [%d, %d]:\n", source, line, static_cast<int>(getpid()), osal_gettid());
}

}  // namespace osal_detail
