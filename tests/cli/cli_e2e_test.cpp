// The cli program against a stand-in connector, one case of cases.txt (its
// notation is explained there) per run: what the client puts on the queue, whom it signals and in
// which order, what it prints and how it ends. Each case runs as the first process of its own
// sandbox, the one process that a kill(-1) from the client spares.
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

const std::regex kMarker(R"(\{(INT|TERM|EOF)\})");

// One case of cases.txt, its fields gathered.
struct Case {
    std::string beside = "cliconn";
    uid_t uid = 0;
    std::vector<std::string> args;
    std::string input;
    int status = -1;
    std::string prints;
    std::string calls;
    std::vector<std::string> replies;  // pairs: a text in the request, the answer
};

Case read_case(const tx::test::NamedCase& named) {
    Case c;
    for (tx::test::Row row : named.rows) {
        row.resize(3);
        const std::string& field = row[0];
        const std::string& value = row[1];
        if (field == "beside") {
            c.beside = value;
        } else if (field == "uid") {
            c.uid = static_cast<uid_t>(std::stoul(value));
        } else if (field == "arg") {
            c.args.push_back(value);
        } else if (field == "input") {
            c.input += value + "\n";
        } else if (field == "status") {
            c.status = std::stoi(value);
        } else if (field == "prints") {
            c.prints += value;
        } else if (field == "call") {
            c.calls += value + "\n";
        } else if (field == "reply") {
            c.replies.insert(c.replies.end(), {value, row[2]});
        } else {
            ADD_FAILURE() << named.name << ": unknown field " << field;
        }
    }
    return c;
}

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

using CliCase = testing::TestWithParam<tx::test::NamedCase>;

TEST_P(CliCase, Run) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    const Case c = read_case(GetParam());
    if (!tx::test::uid_usable(c.uid)) GTEST_SKIP() << "uid " << c.uid << " is not available here";
    std::unique_ptr<Process> beside;
    if (c.beside != "none") {
        auto argv = tx::test::target(c.beside == "cliconn" ? STAND_IN : BYSTANDER);
        argv.insert(argv.end(), c.replies.begin(), c.replies.end());
        beside = std::make_unique<Process>(argv, "/tmp/beside", std::vector<std::string>{}, false,
                                           c.uid);
        ASSERT_TRUE(tx::test::wait_until([&] { return beside->output() == "READY\n"; }));
    }
    // What the client runs under, e.g. "valgrind --error-exitcode=99 -q".
    const char* wrapper = std::getenv("TX_CLI_WRAPPER");
    auto argv = tx::test::split(wrapper != nullptr ? wrapper : "", ' ');
    for (auto part : {tx::test::target(tx::test::bin("cli")), c.args})
        argv.insert(argv.end(), part.begin(), part.end());
    Process cli(argv, "/tmp/out", {"HOME=/tmp", "LD_PRELOAD=" PRELOAD, "TX_CALL_LOG=/tmp/calls"},
                true, c.uid);
    cli.write(c.input);
    std::string calls = replace_all(c.calls, "$CLI", std::to_string(cli.pid()));
    calls = replace_all(calls, "$PEER", std::to_string(beside ? beside->pid() : 0));
    const std::string out = replace_all(c.prints, "$BIN", tx::test::bin(""));
    act_at_markers(
        calls, [] { return read_file("/tmp/calls"); }, cli);
    act_at_markers(
        out, [&] { return cli.output(); }, cli);
    cli.close_input();

    EXPECT_EQ(cli.wait(), c.status) << read_file("/tmp/out.err");
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

INSTANTIATE_TEST_SUITE_P(Table, CliCase, testing::ValuesIn(tx::test::read_named_cases(CASES)),
                         [](const auto& info) { return info.param.name; });

}  // namespace
