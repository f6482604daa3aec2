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

// On a VoIP model, so that the gated handlers fill their records.
constexpr tx::grammar::Caller kRoot{0, true};

// Chosen by the rows that accept them in the table as it stands.
constexpr Line kLines[] = {
    {"early", "regnotify"},
    {"middle", "set bt-pin 1234"},
    {"late", "import-config config.xml"},
    {"none", "foo bar"},
};

// Compiles and tries every row from the first until one matches, then runs
// its handler as root.
int naive_match(const std::string& line, tx::grammar::Match& match) {
    for (const command_entry* row = command_table; row->handler != nullptr; ++row) {
        regex_t re{};
        if (regcomp(&re, row->regex, REG_EXTENDED | REG_NEWLINE) != 0) {
            continue;
        }
        const int result = regexec(&re, line.c_str(), 0, nullptr, 0);
        regfree(&re);
        if (result == 0) {
            row->handler(line, kRoot, match);
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
        // As root: the late line is a root-only command.
        tx::grammar::Match match;
        if (naive) {
            accepted = naive_match(text, match);
        } else {
            match = matcher.match(text, kRoot);
            accepted = match.row != nullptr;
        }
        benchmark::DoNotOptimize(match);
    }
    state.counters["accepted"] = accepted;
}

}  // namespace

int main(int argc, char** argv) {
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
    return 0;
}
