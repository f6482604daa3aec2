// Time to match one line against the full command table, for a line accepted
// by an early, a middle and a late row and for a line no row accepts: the
// matcher (key index, literal prefixes, expressions kept) against a naive
// baseline that compiles and tries every row in order.
#include <benchmark/benchmark.h>
#include <regex.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "matcher_detail.hpp"

namespace {

using tx::grammar::Matcher;

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

// Compiles and tries every row from the first until one matches, then runs
// its handler as root.
int naive_match(const std::string& line, RequestRecord* record) {
    for (const command_entry* row = command_table; row->handler != nullptr; ++row) {
        regex_t re{};
        if (regcomp(&re, row->regex, REG_EXTENDED | REG_NEWLINE) != 0) {
            continue;
        }
        const int result = regexec(&re, line.c_str(), 0, nullptr, 0);
        regfree(&re);
        if (result == 0) {
            row->handler(line.c_str(), line.size(), record, row);
            return 1;
        }
    }
    return 0;
}

void match_line(benchmark::State& state, bool naive, const Line& line) {
    static const Matcher matcher(command_table);
    const std::string text = line.text;
    int accepted = 0;
    for (auto _ : state) {
        RequestRecord record{};
        // As root: the late line is a root-only command.
        accepted = naive ? naive_match(text, &record)
                         : matcher.match(text.c_str(), text.size(), &record, 0);
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
        benchmark::RegisterBenchmark((std::string("naive_every_row/") + line.label).c_str(),
                                     match_line, true, line);
        benchmark::RegisterBenchmark((std::string("kept_expressions/") + line.label).c_str(),
                                     match_line, false, line);
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
