// The cli program against a stand-in connector, one case of cases.txt per
// run: what the client puts on the queue, whom it signals and in which order,
// what it prints and how it ends. Each case runs as the first process of its
// own sandbox, the one process that a kill(-1) from the client spares.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <regex>

#include "process.hpp"

namespace {

using tx::test::Process;
using tx::test::read_file;

enum Column { kName, kBeside, kUid, kArgs, kInput, kStatus, kStdout, kCalls, kReplies };

const std::regex kMarker(R"(\{(INT|TERM|EOF)\})");

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::ptrdiff_t count(const std::string& text, const std::regex& word) {
    return std::distance(std::sregex_iterator(text.begin(), text.end(), word), {});
}

// Performs the steps marked in an expected text ({INT} and {TERM} send the
// signal, {EOF} ends the input) once the client has produced all before them.
void act_at_markers(const std::string& expected, const std::function<std::string()>& produced,
                    Process& cli) {
    std::string before;
    for (std::sregex_iterator m(expected.begin(), expected.end(), kMarker), end; m != end; ++m) {
        before += m->prefix();
        ASSERT_TRUE(tx::test::wait_until([&] { return produced().starts_with(before); }))
            << produced();
        if ((*m)[1] == "EOF") cli.close_input();
        if ((*m)[1] != "EOF") cli.signal((*m)[1] == "INT" ? SIGINT : SIGTERM);
    }
}

using CliCase = testing::TestWithParam<tx::test::Row>;

TEST_P(CliCase, Run) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    tx::test::Row row = GetParam();
    row.resize(std::max<std::size_t>(row.size(), kReplies));
    const auto uid = static_cast<uid_t>(std::stoul(row[kUid]));
    if (!tx::test::uid_usable(uid)) GTEST_SKIP() << "uid " << uid << " is not available here";
    std::unique_ptr<Process> beside;
    if (row[kBeside] != "none") {
        auto argv = tx::test::target(row[kBeside] == "cliconn" ? STAND_IN : BYSTANDER);
        argv.insert(argv.end(), row.begin() + kReplies, row.end());
        beside =
            std::make_unique<Process>(argv, "/tmp/beside", std::vector<std::string>{}, false, uid);
        ASSERT_TRUE(tx::test::wait_until([&] { return beside->output() == "READY\n"; }));
    }
    // What the client runs under, e.g. "valgrind --error-exitcode=99 -q".
    const char* wrapper = std::getenv("TX_CLI_WRAPPER");
    auto argv = tx::test::split(wrapper != nullptr ? wrapper : "", ' ');
    for (auto part : {tx::test::target(tx::test::bin("cli")), tx::test::split(row[kArgs], '|')})
        argv.insert(argv.end(), part.begin(), part.end());
    Process cli(argv, "/tmp/out", {"HOME=/tmp", "LD_PRELOAD=" PRELOAD, "TX_CALL_LOG=/tmp/calls"},
                true, uid);
    cli.write(row[kInput]);
    std::string calls = replace_all(row[kCalls], "$CLI", std::to_string(cli.pid()));
    calls = replace_all(calls, "$PEER", std::to_string(beside ? beside->pid() : 0));
    const std::string out = replace_all(row[kStdout], "$BIN", tx::test::bin(""));
    act_at_markers(
        calls, [] { return read_file("/tmp/calls"); }, cli);
    act_at_markers(
        out, [&] { return cli.output(); }, cli);
    cli.close_input();

    EXPECT_EQ(cli.wait(), std::stoi(row[kStatus])) << read_file("/tmp/out.err");
    const std::regex time_text("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d");
    EXPECT_EQ(std::regex_replace(cli.output(), time_text, "$$TIME"),
              std::regex_replace(out, kMarker, ""));
    EXPECT_EQ(read_file("/tmp/calls"), std::regex_replace(calls, kMarker, ""));
    EXPECT_EQ(tx::test::sanitizer_reports(), "");
    // Whoever runs beside the client hears each of its SIGUSR2.
    if (beside) {
        EXPECT_TRUE(tx::test::wait_until([&] {
            return count(beside->output(), std::regex("SIGUSR2")) ==
                   count(calls, std::regex(" USR2"));
        })) << beside->output();
    }
}

INSTANTIATE_TEST_SUITE_P(Table, CliCase, testing::ValuesIn(tx::test::read_table(CASES)),
                         [](const auto& info) { return info.param[kName]; });

}  // namespace
