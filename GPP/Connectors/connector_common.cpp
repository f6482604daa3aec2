#include "connector_common.hpp"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>

#include "osal.hpp"
#include "xml_messages.hpp"

#ifdef TX_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace {

// A connector may write to the core from more than one thread (the CGI
// connector's registration and its client receiver); the pair keeps its out
// descriptor and its sequence counter in shared fields.
std::mutex core_write_mutex;

constexpr useconds_t kCoreAwayPauseUs = 10000;

// Taken, and never given back, by the one thread that ends the process: the
// client receiver that finds the queues removed on SIGTERM must not take
// that for a lost queue.
std::mutex ending;

// The worker threads are never joined and may still be running: ending
// without static destructors keeps them off objects being torn down.
[[noreturn]] void end_process(int status) {
    std::fflush(nullptr);
#ifdef TX_COVERAGE
    __gcov_dump();  // _Exit skips the writer that exit() would run
#endif
    std::_Exit(status);
}

}  // namespace

int forward_to_core(FdPair* pair, const char* client_id, const IpcMessage& message) {
    const std::lock_guard lock(core_write_mutex);
    char sequence[16] = {};
    std::snprintf(sequence, sizeof sequence, "%d", pair->next_sequence(pair));
    const tx::HeapText envelope = wrap_client_request(message, client_id, sequence);
    if (!envelope || envelope.get()[0] == '\0') return -1;
    // The envelope is a 512-byte allocation: the pair pads and writes it whole.
    return pair->write(pair, envelope.get(), CORE_RECORD_LEN);
}

void read_core_records(FdPair* pair, void (*take)(void* context, std::string_view text),
                       void* context) {
    char record[CORE_RECORD_LEN + 1];
    for (;;) {
        std::memset(record, 0, sizeof record);
        pair->read(pair, record, CORE_RECORD_LEN);
        if (record[0] == '\0') {
            // Nothing read: the pair reported an error or the core closed its
            // end. Do not spin while it is away.
            usleep(kCoreAwayPauseUs);
            continue;
        }
        take(context, record);
    }
}

void run_connector_process(IpcChannel* channel, void (*start)()) {
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigaddset(&held, SIGTERM);
    sigaddset(&held, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    start();

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    int received = 0;
    while (sigwait(&stop, &received) != 0) {
    }
    ending.lock();
    channel->remove(channel);
    end_process(0);
}

bool is_client_type(long type) {
    if (type > 0 && type <= std::numeric_limits<pid_t>::max()) return true;
    osal_report("connector_common", __LINE__, "message type %ld is no process id: dropped\n", type);
    return false;
}

void end_deaf_connector(const char* name, int error) {
    ending.lock();
    std::fprintf(stderr, "%s connector: cannot hear its clients any more (%s)\n", name,
                 std::strerror(error));
    end_process(1);
}
