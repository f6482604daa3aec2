// coresim: a stand-in for the device's core process. It reads the connectors'
// 512-byte request records from /tmp/CoreRxCommand1 (cliconn) and
// /tmp/CoreRxCommand0 (cgiconn) and answers through /tmp/CoreTxEvent1 and
// /tmp/CoreTxEvent0.
//
//   coresim [-v] [--state FILE]
//     -v            log every request and reply on standard output
//     --state FILE  load settings from FILE at start, save them after each change
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "core.hpp"

namespace {

volatile std::sig_atomic_t stop_requested = 0;
void on_stop(int) {
    stop_requested = 1;
}

const char* const RX_PATHS[2] = {"/tmp/CoreRxCommand0", "/tmp/CoreRxCommand1"};
const char* const TX_PATHS[2] = {"/tmp/CoreTxEvent0", "/tmp/CoreTxEvent1"};

// Both ends of every FIFO are held open read-write: a connector's
// non-blocking open for writing always finds a reader, its blocking open for
// reading always finds a writer, and a connector that goes away never leaves
// us reading end-of-file.
int open_fifo(const char* path) {
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "coresim: cannot create %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    const int fd = open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) std::fprintf(stderr, "coresim: cannot open %s: %s\n", path, std::strerror(errno));
    return fd;
}

// Writes one NUL-padded record; waits a little for room, then gives up: a
// connector that stopped reading must not stall the device.
bool write_record(int fd, const std::string& text) {
    char record[coresim::RECORD_LEN] = {};
    std::memcpy(record, text.data(), std::min(text.size(), sizeof record - 1));
    for (int attempt = 0; attempt < 2; ++attempt) {
        const ssize_t n = write(fd, record, sizeof record);
        if (n == static_cast<ssize_t>(sizeof record)) return true;
        if (n >= 0 || (errno != EAGAIN && errno != EINTR)) return false;
        pollfd pfd{fd, POLLOUT, 0};
        poll(&pfd, 1, 200);
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    bool verbose = false;
    std::string state_path;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-v") {
            verbose = true;
        } else if (arg == "--state" && i + 1 < argc) {
            state_path = argv[++i];
        } else {
            std::fprintf(stderr, "usage: coresim [-v] [--state FILE]\n");
            return 2;
        }
    }

    // A leaving cli signals SIGUSR2 to everything it can reach when it finds
    // no cliconn; the device has no business dying of that.
    signal(SIGUSR2, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction stop {};
    stop.sa_handler = on_stop;
    sigemptyset(&stop.sa_mask);
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);

    coresim::Core core;
    if (!state_path.empty() && !core.load_state(state_path) && verbose) {
        std::printf("coresim: no state in %s yet, starting from defaults\n", state_path.c_str());
    }

    int rx[2];
    int tx[2];
    for (int i = 0; i < 2; ++i) {
        rx[i] = open_fifo(RX_PATHS[i]);
        tx[i] = open_fifo(TX_PATHS[i]);
        if (rx[i] < 0 || tx[i] < 0) return 1;
    }
    if (verbose) {
        std::printf("coresim: ready\n");
        std::fflush(stdout);
    }

    std::string pending[2];
    char chunk[coresim::RECORD_LEN * 8];
    while (!stop_requested) {
        pollfd fds[2] = {{rx[0], POLLIN, 0}, {rx[1], POLLIN, 0}};
        if (poll(fds, 2, 500) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if ((fds[i].revents & POLLIN) == 0) continue;
            const ssize_t n = read(rx[i], chunk, sizeof chunk);
            if (n <= 0) continue;
            pending[i].append(chunk, static_cast<std::size_t>(n));
            while (pending[i].size() >= coresim::RECORD_LEN) {
                const std::string record = pending[i].substr(0, coresim::RECORD_LEN);
                pending[i].erase(0, coresim::RECORD_LEN);
                const coresim::Output output = core.handle(i, record);
                if (verbose) std::printf("coresim: [%d] <- %s\n", i, record.c_str());
                if (output.records.empty() && verbose)
                    std::printf("coresim: [%d] not a request, ignored\n", i);
                for (const auto& [instance, text] : output.records) {
                    if (!write_record(tx[instance], text)) {
                        // Its pipe is full: that connector is gone or stuck.
                        core.forget_registrations(instance);
                        std::printf("coresim: [%d] pipe full, record dropped\n", instance);
                        continue;
                    }
                    if (verbose) std::printf("coresim: [%d] -> %s\n", instance, text.c_str());
                }
                if (verbose) std::fflush(stdout);
                if (output.changed && !state_path.empty()) core.save_state(state_path);
            }
        }
    }
    if (!state_path.empty()) core.save_state(state_path);
    return 0;
}
