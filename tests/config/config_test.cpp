// txconfig's core without a device or with one that lives in the test: the
// settings it covers, the lines it prints, the files it takes, what it
// makes of the device's answers, and the loop that exchanges them over a
// connector's queues (a queue of the test's own: runs inside tools/sandbox).
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "config_client.hpp"
#include "ipc_channel.hpp"
#include "process.hpp"
#include "queue_link.hpp"
#include "support/queue.hpp"

namespace {

using tx::config::Configuration;
using tx::grammar::Setting;

std::vector<tx::test::Row> cases(std::string_view kind) {
    std::vector<tx::test::Row> rows;
    for (tx::test::Row row : tx::test::read_table(TX_CASES_DIR "/cases.txt")) {
        row.resize(10);
        if (row[0] == kind) rows.push_back(row);
    }
    return rows;
}

const Setting& setting_of(const Configuration& configuration, std::string_view name) {
    for (const Setting& s : configuration.settings()) {
        if (s.name == name) return s;
    }
    throw std::runtime_error("no setting " + std::string(name));
}

std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (const std::string& p : parts) out += (out.empty() ? "" : "|") + p;
    return out;
}

TEST(Config, ShowPrintsLinesThatReplay) {
    const Configuration root({0, true});
    for (const tx::test::Row& c : cases("line")) {
        EXPECT_EQ(root.set_line(setting_of(root, c[2]), "", c[3]), c[4]) << c[1];
    }
    const std::string long_value(200, 'a');
    EXPECT_EQ(root.set_line(setting_of(root, "snmp-address"), "", long_value), "");
}

TEST(Config, FilesAreCheckedBeforeAnythingIsSent) {
    for (const tx::test::Row& c : cases("check")) {
        const Configuration configuration({static_cast<uid_t>(std::stoul(c[2])), c[3] == "1"});
        std::vector<tx::config::Assignment> assignments;
        std::vector<std::string> errors;
        std::vector<std::string> sets;
        if (configuration.check(c[4], "F", assignments, errors)) {
            for (const auto& a : assignments) sets.push_back(a.setting->name + "=" + a.value);
        }
        EXPECT_EQ(joined(errors.empty() ? sets : errors), c[5]) << c[1];
    }
    const Configuration root({0, true});
    std::vector<tx::config::Assignment> assignments;
    std::vector<std::string> errors;
    EXPECT_FALSE(root.check("set snmp-address " + std::string(200, 'a'), "F", assignments, errors));
    EXPECT_EQ(joined(errors), "F:1: too long for one request");
}

TEST(Config, SettingsAndSecretsComeFromTheTable) {
    const Configuration root({0, true});
    std::vector<std::string> secrets;
    for (const Setting& s : root.settings()) {
        if (s.secret) secrets.push_back(s.name);
    }
    EXPECT_EQ(joined(secrets),
              "snmp-community|md5-password|password|turn-passwd|bt-pin|bt-autoconnect|"
              "dot1x-password");

    const Configuration operator_account({1001, true});
    EXPECT_LT(operator_account.settings().size(), root.settings().size());
    for (const Setting& s : operator_account.settings()) {
        EXPECT_FALSE(tx::grammar::is_root_only(s.get_row->category)) << s.name;
        EXPECT_FALSE(tx::grammar::is_root_only(s.set_row->category)) << s.name;
    }

    const Configuration no_voip({0, false});
    EXPECT_EQ(no_voip.settings().size() + no_voip.voip_left_out().size(), root.settings().size());
    EXPECT_NE(std::ranges::find(no_voip.voip_left_out(), "registrar"),
              no_voip.voip_left_out().end());
}

void no_handler(std::string_view, const tx::grammar::Caller&, tx::grammar::Match&) {}

TEST(Config, SettingsReadById) {
    const command_entry rows[] = {
        {"^get [ ]*gain [ ]*[1-2][ ]*$", no_handler, "\"get gain <1-2>\" - x", 2},
        {"^set [ ]*gain [ ]*[1-2] [ ]*[0-3][ ]*$", no_handler, "\"set gain <1-2> <0-3>\" - x", 2},
        {"^get [ ]*pin[ ]*$", no_handler, "\"get pin\" - x", 0},
        {"^set [ ]*pin [ ]*[0-9]+[ ]*$", no_handler, "\"set pin <digits>\" - x", 1},
    };
    const std::vector<Setting> root = tx::grammar::settings_of(rows, 0);
    ASSERT_EQ(root.size(), 2U);
    EXPECT_EQ(joined(root[0].ids), "1|2");
    EXPECT_EQ(joined(root[0].values), "0|1|2|3");
    EXPECT_TRUE(root[1].secret);
    // The get row is root's alone: nothing the operator may read back.
    EXPECT_EQ(tx::grammar::settings_of(rows, 1001).size(), 1U);

    const Configuration configuration({0, true});
    tx::config::Running running;
    running.values = {{&root[0], "1", "3"}, {&root[0], "2", "0"}, {&root[1], "", "a\"\\"}};
    running.secrets_left_out = {"password"};
    EXPECT_EQ(configuration.json(running),
              "{\n  \"settings\": {\n    \"gain\": {\"1\": \"3\", \"2\": \"0\"},\n"
              "    \"pin\": \"a\\\"\\\\\"\n  },\n  \"secrets_left_out\": [\"password\"],\n"
              "  \"voip_left_out\": []\n}\n");
}

TEST(Config, JsonIsUtf8WhateverTheDeviceHolds) {
    const std::string fffd = "\xef\xbf\xbd";
    const std::pair<std::string, std::string> json[] = {
        {"plain", "\"plain\""},
        {"a\"b\\c", "\"a\\\"b\\\\c\""},
        {"\x01\t\x7f", "\"\\u0001\\u0009\\u007f\""},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9e",
         "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9e\""},
        {"\xff", "\"" + fffd + "\""},
        {"\xc0\xaf", "\"" + fffd + fffd + "\""},                        // overlong
        {"\xed\xa0\x80", "\"" + fffd + fffd + fffd + "\""},             // surrogate
        {"a\xe2\x82", "\"a" + fffd + fffd + "\""},                      // cut short
        {"\xf4\x90\x80\x80", "\"" + fffd + fffd + fffd + fffd + "\""},  // above U+10FFFF
    };
    for (const auto& [text, expected] : json) {
        EXPECT_EQ(tx::config::json_string(text), expected);
        EXPECT_EQ(tx::config::valid_utf8(text), expected.find(fffd) == std::string::npos) << text;
    }
    const std::pair<std::string, std::string> shown[] = {
        {"9", "9"},
        {"", "\"\""},
        {"Room 2", "\"Room 2\""},
        {"a\"b", "\"a\\\"b\""},
        {"\x01", "\"\\x01\""},
        {"a\nb\rc\td", "\"a\\nb\\rc\\td\""},
    };
    for (const auto& [text, expected] : shown) EXPECT_EQ(tx::config::shown(text), expected);
}

// A device in the test: settings by property, refusals, and an end after a
// number of requests.
class FakeDevice : public tx::config::Device {
  public:
    std::map<std::string, std::string> values;
    std::set<std::string> refused;
    std::size_t answers_left = 1000;

    std::vector<tx::config::Answer> exchange(
        std::span<const tx::config::Request> requests) override {
        std::vector<tx::config::Answer> answers(requests.size());
        for (std::size_t i = 0; i < requests.size() && answers_left > 0; ++i, --answers_left) {
            const std::string& xml = requests[i].xml;
            const std::string& property = requests[i].property;
            if (xml.find(">get</action>") == std::string::npos) {
                if (refused.contains(property)) {
                    answers[i] = {true, "error out of range"};
                    continue;
                }
                const std::size_t value = xml.find("<p name=\"default\">") + 18;
                values[property] = xml.substr(value, xml.find("</p>") - value);
            }
            answers[i] = {true, values[property]};
        }
        return answers;
    }
    std::string failure() const override { return "cliconn has gone"; }
};

TEST(Config, ChangesAreMadeAndReadBack) {
    const Configuration root({0, true});
    FakeDevice device;
    device.values = {{"audio.mute", "0"},
                     {"audio.speaker-volume", "9"},
                     {"sys.systemname", "x"},
                     {"voip.password", "old"}};
    device.refused = {"audio.ring-tone"};
    std::vector<tx::config::Assignment> assignments;
    std::vector<std::string> errors;
    ASSERT_TRUE(
        root.check("set mute 0\nset speaker-volume 12\nset ring-tone 3\nset systemname \"A B\"\n"
                   "set password new\n",
                   "F", assignments, errors));

    std::vector<tx::config::Change> changes;
    std::string error;
    ASSERT_TRUE(root.changes(device, assignments, changes, error));
    EXPECT_EQ(tx::config::plan_text(changes, false),
              "speaker-volume 9 -> 12\nring-tone \"\" -> 3\nsystemname x -> \"A B\"\n"
              "password (secret) -> (secret)\n");
    EXPECT_EQ(tx::config::diff_text(root, changes, true),
              "set speaker-volume 12  # now 9\nset ring-tone 3  # now \"\"\n"
              "set systemname \"A B\"  # now x\nset password \"new\"  # now old\n");

    device.answers_left = 5;  // the set and read-back of two changes, and one set more
    const std::vector<tx::config::Result> results = root.apply(device, changes, error);
    EXPECT_EQ(error, "cliconn has gone");
    EXPECT_EQ(
        tx::config::report_text(results, false),
        "speaker-volume 9 -> 12\n"
        "ring-tone \"\" -> 3: not taken, reads back \"\" (the device answered \"error out of "
        "range\")\n"
        "systemname x -> \"A B\": not confirmed\npassword (secret) -> (secret): not confirmed\n");
    EXPECT_EQ(tx::config::last_taken(results, false), "speaker-volume 9 -> 12 (line 2)");
    EXPECT_EQ(tx::config::last_taken({results.begin() + 1, results.end()}, false), "none");

    // A device that stops answering while it is read.
    device.answers_left = 3;
    tx::config::Running running;
    EXPECT_FALSE(root.read(device, false, running, error));
    EXPECT_EQ(error, "cliconn has gone");
    device.answers_left = 0;
    EXPECT_FALSE(root.changes(device, assignments, changes, error));
}

// The device's side of a link in the test: the messages it puts on the
// reply queue once a number of requests have gone out, and a send that fails.
struct Script {
    int queue = -1;
    std::map<std::size_t, std::vector<std::string>> posts;
    std::size_t sent = 0;
    int send_error = 0;
};
Script script;

// "P=V", "P#T=V1,V2": the response of a get; any other text is itself.
std::string message_of(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (text.starts_with('<') || equals == std::string::npos) return text;
    const std::string key = text.substr(0, equals);
    const std::size_t hash = key.find('#');
    std::string xml = "<response><action property=\"" + key.substr(0, hash) + "\"";
    if (hash != std::string::npos) xml += " target=\"" + key.substr(hash + 1) + "\"";
    xml += ">get</action>";
    for (const std::string& v : tx::test::split(text.substr(equals + 1), ','))
        xml += "<v>" + v + "</v>";
    return xml + "</response>";
}

int script_send(IpcChannel*, const char*, long type, int) {
    if (script.send_error != 0) {
        errno = std::exchange(script.send_error, 0);
        return 0;
    }
    for (const std::string& text : script.posts[++script.sent])
        EXPECT_TRUE(tx::test::send_text(script.queue, type, message_of(text)));
    return 1;
}

class ScriptedLink final : public tx::config::QueueLink {
  public:
    ScriptedLink(IpcChannel* channel, std::size_t in_flight, std::string stop, std::string gone,
                 std::chrono::seconds no_answer_limit = std::chrono::seconds(0))
        : QueueLink(channel, 7, "the connector", in_flight, no_answer_limit),
          stop_(std::move(stop)),
          gone_(std::move(gone)) {}

  private:
    std::string interruption() const override { return stop_; }
    std::string silence() const override { return gone_; }
    std::string turned_away(std::string_view action) const override {
        return action == "terminate_client" ? "turned away" : "";
    }
    std::string stop_;
    std::string gone_;
};

TEST(QueueLink, AnswersMatchedToTheirRequests) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    for (const tx::test::Row& c : cases("link")) {
        SCOPED_TRACE(c[1]);
        script = {msgget(IPC_PRIVATE, IPC_CREAT | 0600), {}, 0, 0};
        for (std::string group : tx::test::split(c[4], '@')) {
            while (group.ends_with(' ')) group.pop_back();
            if (group.empty()) continue;
            const std::size_t after = std::stoul(group);
            script.posts[after] = tx::test::split(group.substr(group.find(' ') + 1), '|');
        }
        const std::string& setup = c[5];
        if (setup == "full") script.send_error = EAGAIN;
        if (setup == "broken") script.send_error = EIDRM;
        IpcChannel channel{"",      "",          0,       0,       -1,      script.queue,
                           nullptr, script_send, nullptr, nullptr, nullptr, nullptr};
        if (setup == "removed") msgctl(script.queue, IPC_RMID, nullptr);
        ScriptedLink link(&channel, std::stoul(c[2]), setup == "stopped" ? "stopped" : "",
                          setup == "silent" ? "the connector has gone" : "",
                          std::chrono::seconds(setup == "full" ? 1 : 0));
        std::vector<tx::config::Request> requests;
        for (const std::string& r : tx::test::split(c[3], ' ')) {
            const std::size_t hash = r.find('#');
            requests.push_back({r.substr(0, hash),
                                hash == std::string::npos ? "" : r.substr(hash + 1), "<request/>"});
        }
        std::vector<std::string> answers;
        for (const tx::config::Answer& a : link.exchange(requests))
            answers.push_back(a.answered ? a.value : "?");
        EXPECT_EQ(joined(answers), c[6]);
        EXPECT_EQ(link.failure(), c[7]);
        EXPECT_EQ(link.outstanding(), std::stoul(c[8]));
        msgctl(script.queue, IPC_RMID, nullptr);
    }
}

TEST(QueueLink, LateAnswersAreDrained) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    script = {msgget(IPC_PRIVATE, IPC_CREAT | 0600), {{2, {"a=1"}}}, 0, 0};
    IpcChannel channel{"",      "",          0,       0,       -1,      script.queue,
                       nullptr, script_send, nullptr, nullptr, nullptr, nullptr};
    ScriptedLink link(&channel, 2, "", "");
    const std::vector<tx::config::Request> requests = {{"a", "", ""}, {"b", "", ""}};
    link.exchange(requests);
    ASSERT_EQ(link.outstanding(), 1U);
    EXPECT_FALSE(link.drain(std::chrono::milliseconds(1)));
    for (const std::string text : {"<notify event=\"b\"><v>1</v></notify>", "b=2"})
        tx::test::send_text(script.queue, 7, message_of(text));
    EXPECT_TRUE(link.drain(std::chrono::seconds(2)));
    EXPECT_EQ(link.outstanding(), 0U);
    msgctl(script.queue, IPC_RMID, nullptr);
}

}  // namespace
