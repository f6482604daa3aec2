// Time to match one line against the full command table, for a line accepted
// by an early, a middle and a late row and for a line no row accepts, with
// every expression compiled on each try and with expressions kept.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "matcher_detail.hpp"

namespace {

using tx::grammar::Matcher;
using tx::grammar::RegexMode;

struct Line {
    const char* label;
    const char* text;
};

// Chosen by the rows that accept them in the table as it stands.
constexpr Line kLines[] = {
    {"early", "regnotify"},
    {"middle", "set bt-pin 1234"},
    {"late", "import-config config.xml"},
    {"none", "foo bar"},
};

const Matcher& matcher(RegexMode mode) {
    static const Matcher kept(command_table, RegexMode::kept);
    static const Matcher fresh(command_table, RegexMode::fresh);
    return mode == RegexMode::kept ? kept : fresh;
}

void match_line(benchmark::State& state, RegexMode mode, const Line& line) {
    const Matcher& m = matcher(mode);
    const std::string text = line.text;
    int accepted = 0;
    for (auto _ : state) {
        RequestRecord record{};
        // As root: the late line is a root-only command.
        accepted = m.match(text.c_str(), text.size(), &record, 0);
        benchmark::DoNotOptimize(record);
    }
    state.counters["accepted"] = accepted;
}

// Gated handlers read the kernel command line: point them at a VoIP-capable
// one so that no refusal is printed into the report.
void use_voip_cmdline() {
    const std::string path = "/tmp/matcher_bench_cmdline." + std::to_string(getpid());
    std::ofstream(path) << "voip_capable=1\n";
    setenv("PLATFORM_CMDLINE", path.c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    use_voip_cmdline();
    for (const Line& line : kLines) {
        benchmark::RegisterBenchmark((std::string("compile_every_try/") + line.label).c_str(),
                                     match_line, RegexMode::fresh, line);
        benchmark::RegisterBenchmark((std::string("kept_expressions/") + line.label).c_str(),
                                     match_line, RegexMode::kept, line);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const std::string path = "/tmp/matcher_bench_cmdline." + std::to_string(getpid());
    std::remove(path.c_str());
    return 0;
}
