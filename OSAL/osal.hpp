// OS abstraction layer: logging into the /tmp/osal_log pipe, tasks with stop
// pipes, named-pipe queues, exit handling, files, select and UDP sockets.
#pragma once

#include <cstddef>
#include <cstdint>

// The one logging call. Records go to the named pipe /tmp/osal_log; a record
// whose level is below the threshold is dropped without being formatted.
void osal_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void osal_set_log_threshold(int level);

// The calling thread's kernel thread id (used in the "%s %d [%d, %d]:" prefix).
int osal_gettid();
