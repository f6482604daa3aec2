// Request -> response round trip through cliconn and coresim.
//
// The bench starts coresim and cliconn itself and talks to them over the
// client side of the channel, like cli but without its pause after a send:
//
//   tools/sandbox build/bin/round_trip_bench
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "ipc_channel.hpp"
#include "stack.hpp"

namespace {

using Clock = std::chrono::steady_clock;

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
    const tx::bench::SimulatedStack stack("round_trip_bench");
    if (!stack.ready()) return 2;
    client_channel = cli_client_channel;
    if (client_channel.open(&client_channel, 'u') != 0) {
        std::fprintf(stderr, "cannot attach to cliconn's queues\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
