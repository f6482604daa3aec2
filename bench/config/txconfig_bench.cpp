// txconfig on the simulated device: `show` of the whole configuration, and
// `apply` of a file that changes 100 settings, each run a whole txconfig
// process, timed from its start to its end, with its peak resident memory
// (taken by peak_rss, which starts it: the static launcher adds some 0.2 ms).
//
// The bench starts coresim and cliconn itself, as round_trip_bench does, so
// it must run inside the sandbox:
//
//   tools/sandbox build/bin/txconfig_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "settings.hpp"
#include "spawn.hpp"
#include "stack.hpp"

namespace {

constexpr std::size_t kChanged = 100;

// Standard output goes nowhere, standard error into `errors`.
pid_t spawn(const std::string& path, const std::vector<std::string>& args,
            const char* errors = "/dev/null") {
    const int error_fd = open(errors, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<std::string> argv{path};
    argv.insert(argv.end(), args.begin(), args.end());
    tx::SpawnOptions options;
    options.err_fd = error_fd;
    const pid_t pid = tx::spawn(argv, options);
    if (error_fd >= 0) close(error_fd);
    return pid;
}

// Two files that set the same 100 settings to different values: applied in
// turn, each changes all of them.
void write_files() {
    std::ofstream a("/tmp/a.conf");
    std::ofstream b("/tmp/b.conf");
    std::size_t n = 0;
    for (const tx::grammar::Setting& s : tx::grammar::command_settings(0)) {
        if (n == kChanged) break;
        if (s.values.size() > 1) {
            a << "set " << s.name << ' ' << s.values[0] << '\n';
            b << "set " << s.name << ' ' << s.values[1] << '\n';
        } else if (s.quoted_text) {
            a << "set " << s.name << " \"bench a\"\n";
            b << "set " << s.name << " \"bench b\"\n";
        } else if (tx::grammar::row_accepts(*s.set_row, "set " + s.name + " bench-a")) {
            a << "set " << s.name << " bench-a\n";
            b << "set " << s.name << " bench-b\n";
        } else {
            continue;
        }
        ++n;
    }
}

void run_txconfig(benchmark::State& state, const std::vector<std::vector<std::string>>& runs) {
    const std::string dir = tx::bench::bin_dir();
    long max_rss = 0;
    std::size_t turn = 0;
    for (auto _ : state) {
        std::vector<std::string> args{dir + "/txconfig"};
        for (const std::string& arg : runs[turn++ % runs.size()]) args.push_back(arg);
        if (tx::bench::reap(spawn(dir + "/peak_rss", args, "/tmp/peak_rss")) != 0) {
            state.SkipWithError("txconfig failed");
            break;
        }
        std::ifstream peak("/tmp/peak_rss");
        long kib = 0;
        peak >> kib;
        max_rss = std::max(max_rss, kib);
    }
    state.counters["max_rss_KiB"] = static_cast<double>(max_rss);
}

void show(benchmark::State& state) {
    run_txconfig(state, {{"show"}});
}
BENCHMARK(show)->Unit(benchmark::kMillisecond)->UseRealTime();

void apply_100_changes(benchmark::State& state) {
    run_txconfig(state, {{"apply", "/tmp/b.conf"}, {"apply", "/tmp/a.conf"}});
}
BENCHMARK(apply_100_changes)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    const tx::bench::SimulatedStack stack("txconfig_bench");
    if (!stack.ready()) return 2;
    const std::string dir = tx::bench::bin_dir();
    write_files();
    // From here on each apply of b.conf or a.conf changes all 100 settings.
    if (tx::bench::reap(spawn(dir + "/txconfig", {"apply", "/tmp/a.conf"})) != 0 ||
        std::system(
            (dir + "/txconfig apply --check /tmp/b.conf | grep -c . | grep -qx 100").c_str()) !=
            0) {
        std::fprintf(stderr, "a.conf and b.conf do not differ in 100 settings\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
