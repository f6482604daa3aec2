// txconfig on the stack in the sandbox: coresim (or a stand-in for cliconn),
// cliconn, interactive cli sessions beside it, and the files it prints and
// takes.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "process.hpp"
#include "regexparser.hpp"
#include "settings.hpp"

namespace {

using tx::test::Process;
using tx::test::read_file;
using tx::test::wait_until;

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

class Txconfig : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
        write_file("/tmp/cmdline", "voip_capable=1\n");
    }
    void TearDown() override { EXPECT_EQ(tx::test::sanitizer_reports(), ""); }

    // coresim (logging every request) and cliconn, each once it serves.
    void start_stack(const std::vector<std::string>& coresim_args = {}) {
        std::vector<std::string> argv = tx::test::target(tx::test::bin("coresim"));
        argv.push_back("-v");
        argv.insert(argv.end(), coresim_args.begin(), coresim_args.end());
        coresim_ = std::make_unique<Process>(argv, "/tmp/coresim");
        ASSERT_TRUE(wait_until(
            [] { return read_file("/tmp/coresim").find("coresim: ready") != std::string::npos; }));
        cliconn_ =
            std::make_unique<Process>(tx::test::target(tx::test::bin("cliconn")), "/tmp/cliconn");
        ASSERT_TRUE(wait_until([] { return msgget(ftok("/tmp/cli_out_token", 'a'), 0) >= 0; }));
    }

    Outcome txconfig(const std::vector<std::string>& args, uid_t uid = 0) {
        const std::string log = "/tmp/txconfig" + std::to_string(runs_++);
        std::vector<std::string> argv = tx::test::target(tx::test::bin("txconfig"));
        argv.insert(argv.end(), args.begin(), args.end());
        Process p(argv, log, {"PLATFORM_CMDLINE=/tmp/cmdline"}, false, uid);
        const int status = p.wait();
        return {status, read_file(log), read_file(log + ".err")};
    }

    // The requests from cliconn that coresim has logged, and those that set.
    std::size_t requests(bool sets_only = false) const {
        std::size_t n = 0;
        for (const std::string& line : tx::test::split(read_file("/tmp/coresim"), '\n')) {
            if (!line.starts_with("coresim: [1] <- ")) continue;
            const bool set = line.find(">set</action>") != std::string::npos ||
                             line.find(">report</action>") != std::string::npos;
            n += !sets_only || set ? 1 : 0;
        }
        return n;
    }

    std::unique_ptr<Process> coresim_;
    std::unique_ptr<Process> cliconn_;
    int runs_ = 0;
};

// Random values for many settings: other words where the row spells them out,
// texts with blanks where it takes quoted text.
std::string random_changes(unsigned seed) {
    std::mt19937 random(seed);
    std::string text;
    for (const tx::grammar::Setting& s : tx::grammar::command_settings(0)) {
        if (s.values.size() > 1) {
            text += "set " + s.name + " " + s.values[random() % s.values.size()] + "\n";
        } else if (s.quoted_text) {
            text += "set " + s.name + " \"r " + std::to_string(random() % 1000) + "\"\n";
        }
    }
    return text;
}

// A JSON object of strings and objects of strings, as txconfig writes it;
// false when the text is not JSON of that shape or not UTF-8.
bool parse_json(std::string_view& in, std::map<std::string, std::string>& out,
                const std::string& prefix = "") {
    auto skip = [&in] { in.remove_prefix(std::min(in.find_first_not_of(" \n"), in.size())); };
    auto string = [&](std::string& s) {
        skip();
        if (!in.starts_with('"')) return false;
        for (in.remove_prefix(1); !in.empty() && in.front() != '"'; in.remove_prefix(1)) {
            const auto c = static_cast<unsigned char>(in.front());
            if (c < 0x20) return false;
            if (c == '\\') {
                in.remove_prefix(1);
                if (in.starts_with("u00")) {
                    s += static_cast<char>(std::stoi(std::string(in.substr(3, 2)), nullptr, 16));
                    in.remove_prefix(4);
                } else if (!in.empty()) {
                    s += in.front();
                }
                continue;
            }
            const std::size_t n = c < 0x80 ? 1 : c < 0xe0 ? 2 : c < 0xf0 ? 3 : 4;
            for (std::size_t i = 1; i < n; ++i) {
                if (i >= in.size() || (static_cast<unsigned char>(in[i]) & 0xc0) != 0x80)
                    return false;
            }
            s.append(in.substr(0, n));
            in.remove_prefix(n - 1);
        }
        if (in.empty()) return false;
        in.remove_prefix(1);
        return true;
    };
    skip();
    if (!in.starts_with('{')) return false;
    in.remove_prefix(1);
    for (skip(); !in.starts_with('}'); skip()) {
        std::string key;
        if (!string(key)) return false;
        skip();
        if (!in.starts_with(':')) return false;
        in.remove_prefix(1);
        skip();
        std::string value;
        if (in.starts_with('{')) {
            if (!parse_json(in, out, prefix + key + " ")) return false;
        } else if (in.starts_with('[')) {
            in.remove_prefix(std::min(in.find(']') + 1, in.size()));
        } else if (string(value)) {
            out[prefix + key] = value;
        } else {
            return false;
        }
        skip();
        if (in.starts_with(',')) in.remove_prefix(1);
    }
    in.remove_prefix(1);
    return true;
}

TEST_F(Txconfig, command_lines) {
    const std::string usage =
        "usage: txconfig show [--json] [--with-secrets]\n"
        "       txconfig diff [--with-secrets] FILE\n"
        "       txconfig apply [--check] [--with-secrets] FILE\n"
        "FILE - is standard input.\n";
    for (tx::test::Row c : tx::test::read_table(TX_CASES_DIR "/cases.txt")) {
        c.resize(8);
        if (c[0] != "run") continue;
        SCOPED_TRACE(c[1]);
        std::vector<std::string> argv = tx::test::target(tx::test::bin(c[2]));
        for (const std::string& word : tx::test::split(c[4], ' ')) argv.push_back(word);
        Process p(argv, "/tmp/run", {"PLATFORM_CMDLINE=/tmp/cmdline"}, c[5] != "-",
                  static_cast<uid_t>(std::stoul(c[3])));
        p.write(c[5]);
        p.close_input();
        EXPECT_EQ(p.wait(), std::stoi(c[6]));
        std::string prints = read_file("/tmp/run") + read_file("/tmp/run.err");
        std::string expected = c[7];
        if (const std::size_t at = expected.find("{usage}"); at != std::string::npos)
            expected.replace(at, 7, usage);
        if (expected.ends_with("...")) {
            prints = prints.substr(0, expected.size() - 3) + "...";
        } else if (expected.starts_with("...")) {
            prints =
                "..." + prints.substr(prints.size() - std::min(prints.size(), expected.size() - 3));
        }
        EXPECT_EQ(prints, expected);
    }
}

TEST_F(Txconfig, round_trip) {
    start_stack();
    // Every setting at an unusual value, where the device takes it.
    const Outcome unusual = txconfig({"apply", UNUSUAL});
    EXPECT_TRUE(unusual.status == 0 || unusual.status == 3) << unusual.err;
    write_file("/tmp/name.conf", "set systemname \"Caf\xc3\xa9 \xff\"\n");
    ASSERT_EQ(txconfig({"apply", "/tmp/name.conf"}).status, 0);
    const Outcome saved = txconfig({"show", "--with-secrets"});
    ASSERT_EQ(saved.status, 0) << saved.err;
    write_file("/tmp/saved.conf", saved.out);

    // --json holds what the text holds, and is UTF-8.
    const Outcome json = txconfig({"show", "--with-secrets", "--json"});
    std::map<std::string, std::string> values;
    std::string_view document = json.out;
    ASSERT_TRUE(parse_json(document, values)) << json.out;
    std::size_t lines = 0;
    for (const std::string& line : tx::test::split(saved.out, '\n')) {
        if (line.starts_with('#')) continue;
        const tx::grammar::Match match = tx::grammar::match(line, {0, true});
        const std::string name = line.substr(4, line.find(' ', 4) - 4);
        const std::string value = match.record.values.single;
        EXPECT_EQ(values["settings " + name],
                  name == "systemname" ? "Caf\xc3\xa9 \xef\xbf\xbd" : value);
        ++lines;
    }
    EXPECT_GT(lines, 170U);

    const std::size_t before = requests();
    write_file("/tmp/bad.conf", "set mute 1\nset speaker-volume 99\nset ringer-volume 3\n");
    const Outcome bad = txconfig({"apply", "/tmp/bad.conf"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err,
              "/tmp/bad.conf:2: command syntax error: set speaker-volume 99\n"
              "txconfig: nothing sent: 1 bad line\n");

    EXPECT_EQ(requests(), before);

    const unsigned seed = std::random_device()();
    SCOPED_TRACE("random changes of seed " + std::to_string(seed));
    write_file("/tmp/random.conf", random_changes(seed));
    const Outcome random = txconfig({"apply", "/tmp/random.conf"});
    EXPECT_EQ(random.status, 0) << random.out << random.err;
    EXPECT_NE(txconfig({"show", "--with-secrets"}).out, saved.out);

    const std::size_t sets = requests(true);
    const Outcome check = txconfig({"apply", "--check", "/tmp/saved.conf"});
    EXPECT_EQ(check.status, 0);
    EXPECT_NE(check.out, "");
    EXPECT_EQ(requests(true), sets);

    EXPECT_EQ(txconfig({"diff", "/tmp/saved.conf"}).status, 1);
    EXPECT_EQ(txconfig({"apply", "/tmp/saved.conf"}).status, 0);
    EXPECT_EQ(txconfig({"show", "--with-secrets"}).out, saved.out);
    const std::size_t restored = requests(true);
    const Outcome again = txconfig({"apply", "/tmp/saved.conf"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(requests(true), restored);
    EXPECT_EQ(txconfig({"diff", "/tmp/saved.conf"}).status, 0);
}

bool shows(const std::string& session, const std::string& text) {
    return wait_until(
        [&] { return read_file("/tmp/cli-" + session).find(text) != std::string::npos; });
}

TEST_F(Txconfig, operator_among_three_sessions) {
    ASSERT_TRUE(tx::test::uid_usable(1001));
    start_stack();
    std::map<std::string, std::unique_ptr<Process>> sessions;
    for (const std::string name : {"a", "b", "c"}) {
        sessions[name] =
            std::make_unique<Process>(tx::test::target(tx::test::bin("cli")), "/tmp/cli-" + name,
                                      std::vector<std::string>{"HOME=/tmp"}, true);
        sessions[name]->write("get mute\n");
        EXPECT_TRUE(shows(name, "val mute 0"));
    }
    // The fourth place of cliconn's session table.
    write_file("/tmp/volume.conf", "set speaker-volume 12\n");
    const Outcome root = txconfig({"apply", "/tmp/volume.conf"});
    EXPECT_EQ(root.status, 0) << root.err;
    EXPECT_EQ(root.out, "speaker-volume 9 -> 12\n");
    for (auto& [name, session] : sessions) {
        session->write("get speaker-volume\n");
        EXPECT_TRUE(shows(name, "val speaker-volume 12"));
        // Leaving, it empties the session table: the operator's txconfig
        // cannot, since cliconn is root's.
        session->close_input();
        EXPECT_EQ(session->wait(), 0);
    }

    const Outcome show = txconfig({"show"}, 1001);
    EXPECT_EQ(show.status, 0) << show.err;
    std::set<std::string> operators;
    for (const tx::grammar::Setting& s : tx::grammar::command_settings(1001))
        operators.insert(s.name);
    for (const std::string& line : tx::test::split(show.out, '\n')) {
        if (line.starts_with("set ")) {
            EXPECT_TRUE(operators.contains(line.substr(4, line.find(' ', 4) - 4))) << line;
        }
    }
    EXPECT_NE(show.out.find("\nset speaker-volume 12\n"), std::string::npos);

    const std::size_t before = requests();
    write_file("/tmp/root.conf", "set speaker-volume 13\nset all-mic-mute 1\n");
    const Outcome root_only = txconfig({"apply", "/tmp/root.conf"}, 1001);
    EXPECT_EQ(root_only.status, 2);
    EXPECT_EQ(root_only.err,
              "/tmp/root.conf:2: root only: this account may not run it\n"
              "txconfig: nothing sent: 1 bad line\n");
    EXPECT_EQ(txconfig({"show", "--with-secrets"}, 1001).status, 2);
    EXPECT_EQ(requests(), before);
    write_file("/tmp/volume.conf", "set speaker-volume 13\n");
    EXPECT_EQ(txconfig({"apply", "/tmp/volume.conf"}, 1001).out, "speaker-volume 12 -> 13\n");
}

TEST_F(Txconfig, cliconn_killed_half_way) {
    start_stack({"--delay", "5"});
    const std::string changes = random_changes(7);
    write_file("/tmp/random.conf", changes);
    std::vector<std::string> argv = tx::test::target(tx::test::bin("txconfig"));
    argv.insert(argv.end(), {"apply", "/tmp/random.conf"});
    Process apply(argv, "/tmp/apply", {"PLATFORM_CMDLINE=/tmp/cmdline"});
    ASSERT_TRUE(wait_until([&] { return requests(true) >= 10; }));
    cliconn_->signal(SIGKILL);
    cliconn_->wait();
    EXPECT_EQ(apply.wait(), 2);
    const std::string report = read_file("/tmp/apply");
    const std::string error = read_file("/tmp/apply.err");
    EXPECT_NE(error.find(" has gone; the last change that took effect: "), std::string::npos)
        << error;
    EXPECT_EQ(error.find("took effect: none"), std::string::npos) << error;
    EXPECT_NE(report.find(": not confirmed\n"), std::string::npos) << report;
}

TEST_F(Txconfig, no_cliconn) {
    // kill(-1) would end this bystander too.
    Process bystander({"/bin/sleep", "30"}, "/tmp/sleep");
    const Outcome show = txconfig({"show"});
    EXPECT_EQ(show.status, 2);
    EXPECT_EQ(show.err,
              "txconfig: cliconn is not running; txconfig reaches the device through it\n");
    EXPECT_EQ(bystander.wait(std::chrono::milliseconds(100)), -1);
}

TEST_F(Txconfig, answers_matched_by_property) {
    // The stand-in answers both reads only when the second comes, the second
    // first, with a notification ahead of them.
    const std::string volume = "audio.speaker-volume";
    std::vector<std::string> argv = tx::test::target(STAND_IN);
    argv.insert(
        argv.end(),
        {volume, "<notify event=\"audio.mute\"><v>1</v></notify>", volume,
         "<response><action property=\"" + volume + "\">get</action><v>9</v></response>", volume,
         "<response><action property=\"audio.mute\">get</action><v>0</v></response>"});
    Process stand_in(argv, "/tmp/stand-in");
    ASSERT_TRUE(wait_until([] { return read_file("/tmp/stand-in").find("READY") == 0; }));
    write_file("/tmp/two.conf", "set mute 1\nset speaker-volume 12\n");
    const Outcome diff = txconfig({"diff", "/tmp/two.conf"});
    EXPECT_EQ(diff.status, 1) << diff.err;
    EXPECT_EQ(diff.out, "set mute 1  # now 0\nset speaker-volume 12  # now 9\n");
    EXPECT_TRUE(wait_until([] { return read_file("/tmp/stand-in") == "READY\nSIGUSR2\n"; }));
}

// Whether a process has a handler of its own for signo.
bool catches(pid_t pid, int signo) {
    for (const std::string& line :
         tx::test::split(read_file("/proc/" + std::to_string(pid) + "/status"), '\n')) {
        if (line.starts_with("SigCgt:"))
            return (std::stoull(line.substr(7), nullptr, 16) >> (signo - 1)) & 1;
    }
    return false;
}

TEST_F(Txconfig, device_keeps_its_value_turns_away_or_is_left) {
    const std::string mute =
        "<response><action property=\"audio.mute\">get</action><v>0</v></response>";
    write_file("/tmp/mute.conf", "set mute 1\n");
    auto stand_in = [](const std::vector<std::string>& replies) {
        std::vector<std::string> argv = tx::test::target(STAND_IN);
        argv.insert(argv.end(), replies.begin(), replies.end());
        auto p = std::make_unique<Process>(argv, "/tmp/stand-in");
        EXPECT_TRUE(wait_until([] { return read_file("/tmp/stand-in").find("READY") == 0; }));
        return p;
    };
    {
        // Every answer, the set's too, says mute is 0: the change does not take.
        const auto device = stand_in({"audio.mute", mute});
        const Outcome apply = txconfig({"apply", "/tmp/mute.conf"});
        EXPECT_EQ(apply.status, 3);
        EXPECT_EQ(apply.out, "mute 0 -> 1: not taken, reads back 0\n");
        EXPECT_EQ(apply.err, "txconfig: 1 of 1 changes did not take effect\n");
    }
    {
        const auto device =
            stand_in({"audio.mute", "<response><action>terminate_client</action></response>"});
        const Outcome diff = txconfig({"diff", "/tmp/mute.conf"});
        EXPECT_EQ(diff.status, 2);
        EXPECT_EQ(
            diff.err,
            "txconfig: reading the configuration: cliconn serves four clients already and turned "
            "txconfig away\n");
    }
    // A device that never answers, and txconfig is told to stop. Under an
    // emulator the process's caught signals are the emulator's own from its
    // start, so there is no telling when txconfig has taken SIGTERM over.
    const char* emulator = std::getenv("TX_EMULATOR");
    if (emulator != nullptr && emulator[0] != '\0') return;
    const auto device = stand_in({});
    std::vector<std::string> argv = tx::test::target(tx::test::bin("txconfig"));
    argv.push_back("show");
    Process show(argv, "/tmp/show", {"PLATFORM_CMDLINE=/tmp/cmdline"});
    ASSERT_TRUE(wait_until([&] { return catches(show.pid(), SIGTERM); }));
    show.signal(SIGTERM);
    EXPECT_EQ(show.wait(), 2);
    EXPECT_EQ(read_file("/tmp/show.err"), "txconfig: reading the configuration: terminated\n");
}

}  // namespace
