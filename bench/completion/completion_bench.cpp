// Targets: the words of the whole table derived in at most 2 ms at start-up,
// and the candidates for any line in at most 50 us. The lines cover each kind
// of completion, the widest listings (an empty line, every setting after
// "set ") and a line that completes to nothing.
#include <benchmark/benchmark.h>

#include "completion.hpp"

namespace {

using tx::grammar::Completer;
using tx::grammar::Completion;

void derive_table(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(tx::grammar::table_row_words(command_table));
    }
}
BENCHMARK(derive_table)->Unit(benchmark::kMillisecond);

// What the command loop does once at start: the words and the user's rows.
void start_completer(benchmark::State& state) {
    for (auto _ : state) {
        Completer completer(0, true);
        benchmark::DoNotOptimize(&completer);
    }
}
BENCHMARK(start_completer)->Unit(benchmark::kMicrosecond);

void complete_line(benchmark::State& state, const char* line) {
    const Completer completer(0, true);
    Completion found;
    for (auto _ : state) {
        found = completer.complete(line);
        benchmark::DoNotOptimize(found.candidates.data());
    }
    state.counters["candidates"] = static_cast<double>(found.candidates.size());
    state.counters["help"] = static_cast<double>(found.help.size());
}
BENCHMARK_CAPTURE(complete_line, empty, "")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, first_word, "re")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, every_setting, "set ")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, setting, "get spea")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, value, "set dialer-connection-mode ")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, help_line, "set speaker-volume ")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, long_line, "join 1 1 2 0 usb 1 b")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(complete_line, nothing, "no such command ")->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
