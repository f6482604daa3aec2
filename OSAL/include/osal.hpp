// OS abstraction layer: logging into the /tmp/osal_log pipe, tasks with stop
// pipes, named-pipe queues, exit handling, files, select and UDP sockets.
//
// Every wrapper checks its arguments, reports a failure through osal_report
// (source name and line) and answers it with -1 or a null result; none ends
// the process.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

// ---------------------------------------------------------------- logging

// The one logging call. Records go to the named pipe /tmp/osal_log; a record
// whose level is below the threshold is dropped without being formatted.
void osal_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void osal_set_log_threshold(int level);

// A level-0 record that reports from inside a source file: the prefix
// "%s %d [%d, %d]:" (source, line, process id, kernel thread id) followed by
// the formatted text, cut as one text. A bare report, where the source and
// line are the message, passes "\n".
void osal_report(const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The calling thread's kernel thread id.
int osal_gettid();

// --------------------------------------------------------- named-pipe queues

// Creates /tmp/<name> as a FIFO (0666) if needed and opens it read-write, so
// the open never waits for a peer. Returns the descriptor or -1.
int osal_queue_open(const char* name);
// The result of read/write; a null buffer or a negative length gives -1.
long osal_queue_read(int fd, void* buffer, long length);
long osal_queue_write(int fd, const void* buffer, long length);
int osal_queue_close(int fd);
// Add or remove O_NONBLOCK in the descriptor's status flags: 0 or -1.
int osal_queue_set_nonblocking(int fd);
int osal_queue_set_blocking(int fd);
// For a FIFO path on which something else was found (a regular file would
// swallow what is written into it and be at end-of-file for ever after):
// reports "<path> is not a FIFO: made a FIFO again" on standard error,
// removes it and makes a FIFO (0666) there. Returns 0, or -1 when either step
// fails.
int osal_queue_remake(const char* path);

// ------------------------------------------------------------------ tasks

// Shared between a task's thread and whoever stops it; the flags are polled
// rather than locked, so they are atomic words.
struct OsalTaskControl {
    std::atomic<std::uint32_t> stop_request{0};  // set by stop, cleared by start
    std::atomic<std::uint32_t> running{0};       // set by start, cleared by the entry function
    std::atomic<int> stop_fd{-1};                // the stop pipe, opened by the thread
    const char* name = nullptr;                  // log name; stop pipe is /tmp/<name>
};

using OsalTaskEntry = int (*)(OsalTaskControl* control);

struct OsalTask {
    OsalTaskEntry entry = nullptr;
    OsalTaskControl* control = nullptr;
    int priority = 0;  // above 0: SCHED_FIFO with this priority
    pthread_t thread{};
    std::atomic<int> kernel_tid{0};  // filled by the thread when a priority is set
};

// Starts the task's thread (joinable; the layer itself never joins it).
// -1 for a bad task or one whose running flag is still set.
int osal_task_start(OsalTask* task);
// Asks the task to stop and polls its running flag (10 x 110 ms). 0 when it
// cleared the flag in time, -1 otherwise or when it was not running.
int osal_task_stop(OsalTask* task);

// ------------------------------------------------------------ exit handling

// Prepares the exit state and routes SIGINT and SIGTERM to osal_signal_exit.
int osal_exit_init();
void osal_signal_exit();
// Blocks the caller until an exit is signalled.
void osal_wait_for_exit();

// ---------------------------------------------------------- small wrappers

void osal_sleep_ms(unsigned ms);
std::int64_t osal_monotonic_us();
void osal_free(void* pointer);

struct OsalMutexDeleter {
    void operator()(pthread_mutex_t* mutex) const noexcept;
};
using OsalMutex = std::unique_ptr<pthread_mutex_t, OsalMutexDeleter>;
// A default mutex; null when it cannot be allocated.
OsalMutex osal_mutex_create();
// -1 for a null mutex, else the result of the pthread call.
int osal_mutex_lock(pthread_mutex_t* mutex);
int osal_mutex_unlock(pthread_mutex_t* mutex);

// ------------------------------------------------------------------ files

// Open options, a bit set; without OSAL_FILE_RDWR_TRUNC the file is read-only.
inline constexpr unsigned OSAL_FILE_RDWR_TRUNC = 2;
inline constexpr unsigned OSAL_FILE_CREATE = 4;
inline constexpr unsigned OSAL_FILE_SYNC = 8;
inline constexpr unsigned OSAL_FILE_NONBLOCK = 16;  // status flags become exactly O_NONBLOCK

int osal_file_open(const char* path, unsigned options);
long osal_file_read(int fd, void* buffer, std::size_t length);
long osal_file_write(int fd, const void* buffer, std::size_t length);
int osal_file_close(int fd);
// A shared read-write mapping, or null.
void* osal_file_map(int fd, off_t offset, std::size_t length);
int osal_file_unmap(void* address, std::size_t length);
// 0 when exactly length bytes came from /dev/random, else -1.
int osal_random_bytes(void* buffer, std::size_t length);

// ----------------------------------------------------------------- select

// Waits until one of the descriptors is readable. Negative descriptors are
// skipped and always get ready flag 0. timeout_ms < 0 waits without limit.
// Returns select's result (ready count, 0 on timeout) or -1.
int osal_select_wait_readable(const int* fds, int* ready, int count, int timeout_ms);

// ---------------------------------------------------------------- network

inline constexpr std::uint32_t OSAL_NET_IPV4 = 1;
inline constexpr std::uint32_t OSAL_NET_IPV6 = 2;
inline constexpr std::size_t OSAL_NET_ADDRESS_LEN = 256;

struct OsalNetAddress {
    std::uint8_t address[OSAL_NET_ADDRESS_LEN];  // network byte order
    std::uint32_t length;                        // 4, 16, or 0 when unset
    std::uint32_t port;                          // host byte order
    std::uint32_t family;                        // OSAL_NET_IPV4, OSAL_NET_IPV6; else invalid
};

// Socket options of osal_net_set_option.
inline constexpr int OSAL_NET_OPT_REUSEADDR = 0;
inline constexpr int OSAL_NET_OPT_TOS = 1;

// All sockets are UDP.
int osal_net_socket(std::uint32_t family);
// The record's family must be set beforehand.
int osal_net_address_from_text(const char* text, OsalNetAddress* address);
int osal_net_address_to_text(char* buffer, const OsalNetAddress* address, std::size_t buffer_len);
int osal_net_resolve(const char* host, OsalNetAddress* address);
int osal_net_set_option(int socket, int option, int value);
// Binds, and joins the group when the address is a multicast one.
int osal_net_bind(int socket, const OsalNetAddress* address);
// Leaves the group of a multicast address, then closes the socket.
int osal_net_close(int socket, const OsalNetAddress* address);
// Stores the sender in the record; a result below 1 is logged and returned.
long osal_net_receive_from(int socket, OsalNetAddress* address, void* buffer, std::size_t length);
long osal_net_send_to(int socket, const OsalNetAddress* address, const void* buffer,
                      std::size_t length);

// ------------------------------------------------------ kernel command line

// The file read instead of /proc/cmdline when this environment variable names
// one: a test rig or a simulated device has no kernel command line of its own.
inline constexpr const char* kPlatformCmdlineEnv = "PLATFORM_CMDLINE";

// Copies the value of the first parameter called `name` ("name=value" words)
// into out, cut to capacity - 1 characters and terminated. Returns 0 when
// found, -1 when the parameter is absent or the command line cannot be read
// (out then empty).
int get_os_cmdline_param(const char* name, char* out, std::size_t capacity);

// Whether the device is a VoIP model: its voip_capable parameter as a decimal
// number is not 0 (absent counts as 0). Read afresh on every call: a program
// asks once, at its start, and hands the answer to the grammar.
bool osal_voip_capable();
