// Request -> response round trip through cliconn and coresim.
//
// The bench starts coresim and cliconn itself and talks to them over the
// client side of the channel, like cli but without its pause after a send.
// Those processes meet through /tmp paths and System V queues, so the bench
// must run inside the sandbox:
//
//   tools/sandbox build/bin/round_trip_bench
//
// It refuses to run anywhere else. The programs are taken from TX_BIN_DIR, or
// from the directory the bench itself is in.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ipc_channel.hpp"
#include "spawn.hpp"

namespace {

using Clock = std::chrono::steady_clock;

std::string bin_dir() {
    if (const char* dir = std::getenv("TX_BIN_DIR")) return dir;
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

bool queue_exists(const char* token) {
    const key_t key = ftok(token, 'a');
    return key != -1 && msgget(key, 0) >= 0;
}

bool wait_for(bool (*ready)()) {
    for (int i = 0; i < 500; ++i) {
        if (ready()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

IpcChannel client_channel;

void round_trip(benchmark::State& state) {
    const long type = 20001 + state.thread_index();
    const char* request =
        "<request><action property=\"audio.speaker-volume\">get</action></request>";
    std::vector<double> micros;
    micros.reserve(1 << 16);
    IpcMessage reply{};
    for (auto _ : state) {
        const auto begin = Clock::now();
        if (!client_channel.send(&client_channel, request, type, 0) ||
            !client_channel.receive(&client_channel, &reply, type)) {
            state.SkipWithError("channel failed");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    state.SetItemsProcessed(state.iterations());
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    const auto at = [&](double q) {
        return micros[static_cast<std::size_t>(q * static_cast<double>(micros.size() - 1))];
    };
    state.counters["p50_us"] = benchmark::Counter(at(0.50), benchmark::Counter::kAvgThreads);
    state.counters["p99_us"] = benchmark::Counter(at(0.99), benchmark::Counter::kAvgThreads);
}
BENCHMARK(round_trip)->Threads(1)->Threads(4)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    if (getpid() != 1) {
        std::fprintf(
            stderr,
            "round_trip_bench starts its own cliconn and coresim; run it inside the sandbox:\n"
            "  tools/sandbox %s\n",
            argv[0]);
        return 2;
    }
    // A leaving client would signal SIGUSR2 around; nothing here should mind.
    signal(SIGUSR2, SIG_IGN);
    const std::string dir = bin_dir();
    const pid_t coresim = tx::spawn({dir + "/coresim"});
    if (!wait_for([] { return std::filesystem::exists("/tmp/CoreTxEvent0"); })) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const pid_t cliconn = tx::spawn({dir + "/cliconn"});
    if (!wait_for([] {
            return queue_exists("/tmp/cli_in_token") && queue_exists("/tmp/cli_out_token");
        })) {
        std::fprintf(stderr, "cliconn did not come up\n");
        stop(coresim);
        return 1;
    }
    client_channel = cli_client_channel;
    if (client_channel.open(&client_channel, 'u') != 0) {
        std::fprintf(stderr, "cannot attach to cliconn's queues\n");
        stop(cliconn);
        stop(coresim);
        return 1;
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    stop(cliconn);
    stop(coresim);
    return 0;
}
