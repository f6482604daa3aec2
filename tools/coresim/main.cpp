// coresim: a stand-in for the device's core process. It reads the connectors'
// 512-byte request records from /tmp/CoreRxCommand1 (cliconn) and
// /tmp/CoreRxCommand0 (cgiconn) and answers through /tmp/CoreTxEvent1 and
// /tmp/CoreTxEvent0.
//
//   coresim [-v] [--state FILE] [--delay MS]
//     -v            log every request and reply on standard output; a request
//                   is logged before its reply goes out, so that whoever has
//                   the reply can count the request in the log
//     --state FILE  load settings from FILE at start, save them after each change
//     --delay MS    answer each request MS milliseconds late, as a busy device
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core.hpp"
#include "fifo.hpp"

namespace {

volatile std::sig_atomic_t stop_requested = 0;
void on_stop(int) {
    stop_requested = 1;
}

// How often the FIFO paths are looked at, however busy the pipes are.
constexpr std::chrono::milliseconds FIFO_CHECK_INTERVAL{500};
constexpr int POLL_TIMEOUT_MS = 500;

struct Options {
    bool verbose = false;
    std::string state_path;
    int delay_ms = 0;
};

bool parse_options(int argc, char** argv, Options& options) {
    constexpr option kLong[] = {{"state", required_argument, nullptr, 's'},
                                {"delay", required_argument, nullptr, 'd'},
                                {nullptr, 0, nullptr, 0}};
    opterr = 0;  // the usage line says it all
    for (int o; (o = getopt_long(argc, argv, "v", kLong, nullptr)) != -1;) {
        if (o == 'v') {
            options.verbose = true;
        } else if (o == 's') {
            options.state_path = optarg;
        } else if (o == 'd') {
            options.delay_ms = std::atoi(optarg);
        } else {
            return false;
        }
    }
    return optind == argc;
}

void install_signal_handlers() {
    // A leaving cli signals SIGUSR2 to everything it can reach when it finds
    // no cliconn; the device has no business dying of that.
    signal(SIGUSR2, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction stop {};
    stop.sa_handler = on_stop;
    sigemptyset(&stop.sa_mask);
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
}

// Writes one NUL-padded record; waits a little for room, then gives up: a
// connector that stopped reading must not stall the device.
bool write_record(int fd, const std::string& text) {
    std::string record = text.substr(0, coresim::RECORD_LEN - 1);
    record.resize(coresim::RECORD_LEN, '\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        const ssize_t n = write(fd, record.data(), record.size());
        if (n == static_cast<ssize_t>(record.size())) return true;
        if (n >= 0 || (errno != EAGAIN && errno != EINTR)) return false;
        pollfd pfd{fd, POLLOUT, 0};
        poll(&pfd, 1, 200);
    }
    return false;
}

class Simulator {
  public:
    explicit Simulator(Options options) : options_(std::move(options)) {
        if (!options_.state_path.empty() && !core_.load_state(options_.state_path) &&
            options_.verbose)
            std::printf("coresim: no state in %s yet, starting from defaults\n",
                        options_.state_path.c_str());
    }

    bool keep_fifos() {
        bool kept = true;
        for (coresim::HeldFifo* fifo : {&rx_[0], &rx_[1], &tx_[0], &tx_[1]})
            kept = fifo->keep() && kept;
        return kept;
    }

    void serve() {
        auto next_check = std::chrono::steady_clock::now() + FIFO_CHECK_INTERVAL;
        while (!stop_requested) {
            if (std::chrono::steady_clock::now() >= next_check) {
                keep_fifos();
                next_check = std::chrono::steady_clock::now() + FIFO_CHECK_INTERVAL;
            }
            pollfd fds[2] = {{rx_[0].fd(), POLLIN, 0}, {rx_[1].fd(), POLLIN, 0}};
            if (poll(fds, 2, POLL_TIMEOUT_MS) <= 0) continue;
            for (int i = 0; i < 2; ++i)
                if ((fds[i].revents & POLLIN) != 0) read_commands(i);
        }
        if (!options_.state_path.empty()) core_.save_state(options_.state_path);
    }

  private:
    void read_commands(int instance) {
        char chunk[coresim::RECORD_LEN * 8];
        // Held read-write, the FIFO never reads end-of-file; nothing there yet
        // is all that a short read can mean.
        const ssize_t n = read(rx_[instance].fd(), chunk, sizeof chunk);
        if (n <= 0) return;
        framers_[instance].append({chunk, static_cast<std::size_t>(n)});
        while (const auto record = framers_[instance].next()) answer(instance, *record);
    }

    void answer(int instance, const std::string& record) {
        const bool verbose = options_.verbose;
        if (options_.delay_ms > 0) poll(nullptr, 0, options_.delay_ms);
        const coresim::Output output = core_.handle(instance, record);
        if (verbose) {
            std::printf("coresim: [%d] <- %s\n", instance, record.c_str());
            std::fflush(stdout);
        }
        if (output.records.empty() && verbose)
            std::printf("coresim: [%d] not a request, ignored\n", instance);
        for (const auto& [to, text] : output.records) {
            if (!write_record(tx_[to].fd(), text)) {
                // That connector is gone or stuck.
                core_.forget_registrations(to);
                std::printf("coresim: [%d] cannot write to %s, record dropped\n", to,
                            tx_[to].path().c_str());
                continue;
            }
            if (verbose) std::printf("coresim: [%d] -> %s\n", to, text.c_str());
        }
        if (verbose) std::fflush(stdout);
        if (output.changed && !options_.state_path.empty()) core_.save_state(options_.state_path);
    }

    Options options_;
    coresim::Core core_;
    coresim::HeldFifo rx_[2] = {coresim::HeldFifo("/tmp/CoreRxCommand0"),
                                coresim::HeldFifo("/tmp/CoreRxCommand1")};
    coresim::HeldFifo tx_[2] = {coresim::HeldFifo("/tmp/CoreTxEvent0"),
                                coresim::HeldFifo("/tmp/CoreTxEvent1")};
    coresim::RecordFramer framers_[2];
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse_options(argc, argv, options)) {
        std::fprintf(stderr, "usage: coresim [-v] [--state FILE] [--delay MS]\n");
        return 2;
    }
    install_signal_handlers();
    Simulator simulator(options);
    if (!simulator.keep_fifos()) return 1;
    if (options.verbose) {
        std::printf("coresim: ready\n");
        std::fflush(stdout);
    }
    simulator.serve();
    return 0;
}
