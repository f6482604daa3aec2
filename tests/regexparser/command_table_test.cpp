// The matcher, key index and help over the full command table.
#include <map>
#include <string>
#include <vector>

#include "matcher_detail.hpp"
#include "test_support.hpp"

namespace {

using grammar_test::FakeCmdline;
using grammar_test::kVoip;
using grammar_test::text;
using tx::grammar::Matcher;
using tx::grammar::RegexMode;

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 1001;

int accepts(std::string_view line, uid_t uid, RequestRecord* record = nullptr) {
    RequestRecord scratch{};
    const std::string copy(line);
    testing::internal::CaptureStdout();
    const int result = tx::grammar::command_matcher().match(copy.c_str(), copy.size(),
                                                            record ? record : &scratch, uid);
    testing::internal::GetCapturedStdout();
    return result;
}

std::string help(const char* topic, uid_t uid = kRoot) {
    testing::internal::CaptureStdout();
    tx::grammar::print_help(command_table, topic, uid);
    return testing::internal::GetCapturedStdout();
}

std::size_t line_count(const std::string& s) {
    std::size_t n = 0;
    for (char c : s) {
        n += c == '\n' ? 1 : 0;
    }
    return n;
}

TEST(CommandTable, UidRules) {
    const FakeCmdline cmdline(kVoip);
    RequestRecord r{};
    EXPECT_EQ(accepts("get mute", kUser, &r), 1);
    EXPECT_EQ(text(r.action), "get");
    EXPECT_EQ(text(r.property), "audio.mute");

    for (const char* root_only : {"get md5-password", "hangup all", "set all-mic-mute 1",
                                  "get require-http", "report captouch volumeup"}) {
        EXPECT_EQ(accepts(root_only, kUser), 0) << root_only;
        EXPECT_EQ(accepts(root_only, kRoot), 1) << root_only;
    }
    EXPECT_EQ(accepts("set md5-password " + std::string(32, 'a'), kUser), 1);
    EXPECT_EQ(accepts("hangup 1", kUser), 1);
    EXPECT_EQ(accepts("set contrast 7", kUser), 1);
}

TEST(CommandTable, ExpressionsAreTheRangeRule) {
    struct Case {
        const char* line;
        int accepted;
    };
    const Case cases[] = {
        {"set contrast 19", 1},
        {"set contrast 20", 0},
        {"set reg-timeout 1", 1},
        {"set reg-timeout 99999", 1},
        {"set reg-timeout 100000", 0},
        {"set reg-timeout 603999", 0},
        {"set reg-timeout 604000", 1},
        {"set reg-timeout 604800", 1},
        {"set reg-timeout 604801", 0},
        {"set reg-timeout 6039999", 1},
        {"set reg-timeout 0", 0},
        {"set reg-timeout 060", 0},
        {"set analog-audio-in-gain -11.5", 1},
        {"set analog-audio-in-gain -11.2", 0},
        {"set analog-audio-in-gain 40.5", 0},
        {"set analog-audio-in-gain 40.0", 1},
        {"set analog-audio-in-gain -12.5", 0},
        {"set camera-ptz-home -30 18 400", 1},
        {"set camera-ptz-home 31 0 100", 0},
        {"set camera-ptz-home 0 0 99", 0},
        {"set md5-password 0123456789abcdefABCDEF0123456789", 1},
        {"set md5-password 0123456789abcdefABCDEF012345678", 0},
        {"dial 1 1234", 1},
        {"dial 4 1234", 0},
        {"answer bt", 1},
        {"join 1 1 usb 0", 1},
        {"join 1 1", 0},
        {"regnotify", 1},
        {"regnotify ", 0},
        {"foo bar", 0},
        {"", 0},
    };
    const FakeCmdline cmdline(kVoip);
    for (const Case& c : cases) {
        EXPECT_EQ(accepts(c.line, kRoot), c.accepted) << c.line;
    }
}

TEST(CommandTable, LookupStartsAtOrBeforeTheCommandsFirstRow) {
    const std::size_t rows = tx::grammar::count_rows(command_table);
    for (std::size_t i = 0; i < rows; ++i) {
        // The syntax part of the help text is a line the command starts with.
        std::string_view help(command_table[i].help);
        help = help.substr(1, help.find('"', 1) - 1);
        const int start = command_index_lookup(help.data(), help.size());
        EXPECT_LE(start, static_cast<int>(i)) << help;
    }
    EXPECT_EQ(command_index_lookup(" get mute", 9), 0);
    const std::string long_word(32, 'x');
    EXPECT_EQ(command_index_lookup(long_word.c_str(), long_word.size()), 0);
    EXPECT_EQ(command_index_lookup("", 0), 0);
    EXPECT_EQ(command_index_lookup("regnotify", 9), 0);
    EXPECT_EQ(tx::grammar::command_matcher().lookup("get mute", 8),
              command_index_lookup("get mute", 8));
}

TEST(CommandTable, KeptAndFreshExpressionsAgree) {
    const FakeCmdline cmdline(kVoip);
    const Matcher fresh(command_table, RegexMode::fresh);
    const std::vector<std::string> lines = {"get mute",
                                            "set speaker-volume 9",
                                            "dial 1 1234",
                                            "swap 1 2",
                                            "join usb 1 2 1",
                                            "import-config x.xml",
                                            "export-config",
                                            "set date-time \"2024-05-06 07:08:09\"",
                                            "help",
                                            "foo bar",
                                            "get  mute",
                                            "set camera-pan 20",
                                            "report status 1 connected"};
    for (const std::string& line : lines) {
        for (uid_t uid : {kRoot, kUser}) {
            RequestRecord a{};
            RequestRecord b{};
            testing::internal::CaptureStdout();
            const int ra = tx::grammar::command_matcher().match(line.c_str(), line.size(), &a, uid);
            const int rb = fresh.match(line.c_str(), line.size(), &b, uid);
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(ra, rb) << line;
            EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << line;
        }
    }
    // The public entry point is the same matcher for the calling user.
    RequestRecord a{};
    RequestRecord b{};
    EXPECT_EQ(regexparser_match("get mute", 8, &a),
              tx::grammar::command_matcher().match("get mute", 8, &b, getuid()));
    EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
}

TEST(CommandTable, HelpListings) {
    const std::string all = help("");
    EXPECT_EQ(line_count(all), 65u + 27 + 16 + 34 + 22 + 28 + 42 + 121 + 1);
    EXPECT_EQ(help(" all"), all);
    EXPECT_EQ(all.substr(0, all.find('\n')), command_table[0].help);
    EXPECT_EQ(all.substr(all.size() - 2), "\n\n");

    EXPECT_EQ(line_count(help(" hidden")), 91u + 1);
    EXPECT_EQ(line_count(help(" voip")), 121u + 1);
    EXPECT_EQ(line_count(help(" audio")), 27u + 1);
    EXPECT_EQ(help(" ble"), "\n");
    EXPECT_EQ(line_count(help(" foo")), 11u);
    EXPECT_EQ(help(" foo").rfind("help usage:\n", 0), 0u);
    EXPECT_EQ(help("", kUser), "command syntax error\n");

    // Unlisted categories never appear.
    for (const char* topic : {"", " hidden", " sys"}) {
        const std::string listed = help(topic);
        EXPECT_EQ(listed.find("\"get contrast\""), std::string::npos);
        EXPECT_EQ(listed.find("\"set all-mic-mute"), std::string::npos);
    }

    testing::internal::CaptureStdout();
    regexparser_help(" sys");
    const std::string public_help = testing::internal::GetCapturedStdout();
    EXPECT_EQ(public_help, help(" sys", getuid()));
}

}  // namespace
