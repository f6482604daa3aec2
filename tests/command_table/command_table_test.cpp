// Checks of the command table as data: shape, counts, the rows other parts of
// the system rely on byte for byte, and that every row's expression accepts
// exactly the values its help line promises. Matching here uses regexec
// directly, scanning from the first row like a matcher without an index.
#include <gtest/gtest.h>
#include <regex.h>

#include <cctype>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "command_table/command_examples.hpp"
#include "regexparser.hpp"

namespace {

int row_count() {
    int rows = 0;
    while (command_table[rows].handler != nullptr) ++rows;
    return rows;
}

struct compiled_regex {
    regex_t re{};
    int status = -1;
    explicit compiled_regex(const char* pattern)
        : status(regcomp(&re, pattern, REG_EXTENDED | REG_NEWLINE)) {}
    ~compiled_regex() {
        if (status == 0) regfree(&re);
    }
    compiled_regex(const compiled_regex&) = delete;
    compiled_regex& operator=(const compiled_regex&) = delete;
    bool matches(const std::string& line) const {
        return status == 0 && regexec(&re, line.c_str(), 0, nullptr, 0) == 0;
    }
};

class CommandTable : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        compiled = new std::vector<std::unique_ptr<compiled_regex>>();
        for (int row = 0; row < row_count(); ++row) {
            compiled->push_back(std::make_unique<compiled_regex>(command_table[row].regex));
        }
    }
    static void TearDownTestSuite() {
        delete compiled;
        compiled = nullptr;
    }

    // The row a matcher scanning from row 0 would pick, or -1.
    static int first_match(const std::string& line) {
        for (std::size_t row = 0; row < compiled->size(); ++row) {
            if ((*compiled)[row]->matches(line)) return static_cast<int>(row);
        }
        return -1;
    }

    static std::vector<std::unique_ptr<compiled_regex>>* compiled;
};

std::vector<std::unique_ptr<compiled_regex>>* CommandTable::compiled = nullptr;

std::string_view help_syntax(const command_entry& row) {
    std::string_view help = row.help;
    if (help.size() < 2 || help.front() != '"') return {};
    const auto close = help.find('"', 1);
    return close == std::string_view::npos ? std::string_view{} : help.substr(1, close - 1);
}

std::vector<std::string> lines_of(const char* text) {
    std::vector<std::string> lines;
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        lines.emplace_back(rest.substr(0, end));
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return lines;
}

int find_row(std::string_view help, int category) {
    for (int row = 0; row < row_count(); ++row) {
        if (command_table[row].category == category && help == command_table[row].help) return row;
    }
    return -1;
}

int find_row_by_syntax(std::string_view syntax, int category) {
    for (int row = 0; row < row_count(); ++row) {
        if (command_table[row].category == category && help_syntax(command_table[row]) == syntax)
            return row;
    }
    return -1;
}

TEST_F(CommandTable, RowsAreWellFormedAndEndWithAZeroRow) {
    ASSERT_EQ(row_count(), 502);
    const command_entry& end = command_table[502];
    EXPECT_EQ(end.regex, nullptr);
    EXPECT_EQ(end.help, nullptr);
    EXPECT_EQ(end.category, 0);
    for (int row = 0; row < 502; ++row) {
        const command_entry& entry = command_table[row];
        SCOPED_TRACE(row);
        ASSERT_NE(entry.regex, nullptr);
        ASSERT_NE(entry.help, nullptr);
        EXPECT_EQ(entry.regex[0], '^');
        EXPECT_FALSE(help_syntax(entry).empty()) << entry.help;
        EXPECT_NE(std::strstr(entry.help, "\" - "), nullptr) << entry.help;
        EXPECT_GE(entry.category, 0);
        EXPECT_LE(entry.category, 11);
        EXPECT_NE(command_handler_name(entry.handler), nullptr);
    }
}

TEST_F(CommandTable, CategoryCountsAreThoseOfTheHelpTopics) {
    std::map<int, int> counts;
    for (int row = 0; row < row_count(); ++row) ++counts[command_table[row].category];
    const std::map<int, int> expected{{0, 91}, {1, 65}, {2, 27},  {3, 16}, {4, 34}, {5, 22},
                                      {6, 28}, {8, 42}, {9, 121}, {10, 6}, {11, 50}};
    EXPECT_EQ(counts, expected);
}

TEST_F(CommandTable, HandlerFamiliesHaveTheirRowCounts) {
    std::map<std::string, int> counts;
    for (int row = 0; row < row_count(); ++row)
        ++counts[command_handler_name(command_table[row].handler)];
    const std::map<std::string, int> expected{{"handle_get", 136},
                                              {"handle_get_voip", 68},
                                              {"handle_set", 131},
                                              {"handle_set_voip", 69},
                                              {"handle_set_plain", 2},
                                              {"handle_set_as_report", 12},
                                              {"handle_set_multi", 2},
                                              {"handle_line_value", 7},
                                              {"handle_mic_report", 1},
                                              {"handle_mic_get", 1},
                                              {"handle_line_get", 7},
                                              {"handle_reset_setting", 1},
                                              {"handle_call_info_report", 1},
                                              {"handle_call_action", 6},
                                              {"handle_dial", 1},
                                              {"handle_swap", 1},
                                              {"handle_transfer", 1},
                                              {"handle_join", 1},
                                              {"handle_source_target", 20},
                                              {"handle_property_value", 17},
                                              {"handle_property_only", 7},
                                              {"handle_single_arg", 1},
                                              {"handle_word_only", 2},
                                              {"handle_regnotify", 1},
                                              {"handle_cam_decrement", 3},
                                              {"handle_cam_increment", 3}};
    EXPECT_EQ(counts, expected);

    // Names are the functions' own, and nothing else has one.
    EXPECT_STREQ(command_handler_name(handle_transfer), "handle_transfer");
    EXPECT_STREQ(command_handler_name(handle_swap), "handle_swap");
    EXPECT_EQ(command_handler_name(nullptr), nullptr);
    const command_handler unknown = [](const char*, std::size_t, RequestRecord*,
                                       const command_entry*) {};
    EXPECT_EQ(command_handler_name(unknown), nullptr);

    // Whole-command handlers sit where the commands say.
    const std::map<std::string, std::string> by_syntax{
        {"transfer <source-call-id> <target-call-id>", "handle_transfer"},
        {"swap <source-call-id> <target-call-id>", "handle_swap"},
        {"set voip-commit", "handle_get_voip"},
        {"set net-commit", "handle_get"},
        {"set cancel-upgrade", "handle_get"},
        {"set speaker-mute <0-1>", "handle_set_as_report"},
        {"set camera-pan [-30 to 30]", "handle_set_as_report"},
        {"get camera-hue", "handle_set"},
        {"get bm64-fw-version", "handle_set"},
        {"get camera-ptz-home", "handle_set"},
        {"play ring-tone <index>", "handle_set_voip"},
        {"report registration <status>", "handle_set_voip"},
        {"report ext-mic-mute toggle", "handle_set"},
        {"set ftp-srv2 <address>", "handle_set_plain"},
        {"get dsp.version", "handle_property_value"},
        {"led-set exit-led-test", "handle_property_only"},
        {"cam-pan-left", "handle_cam_decrement"},
        {"cam-tilt-up", "handle_cam_increment"},
        {"set dtmf <1-3,usb,bt> <digit or '-' to stop tone>", "handle_line_value"},
        {"get reg-timeout", "handle_get_voip"},
        {"get date-time", "handle_get"},
    };
    for (const auto& [syntax, name] : by_syntax) {
        int found = 0;
        for (int row = 0; row < row_count(); ++row) {
            if (help_syntax(command_table[row]) != syntax) continue;
            ++found;
            EXPECT_STREQ(command_handler_name(command_table[row].handler), name.c_str()) << syntax;
        }
        EXPECT_EQ(found, 1) << syntax;
    }
}

TEST_F(CommandTable, EveryExpressionCompiles) {
    for (int row = 0; row < row_count(); ++row) {
        EXPECT_EQ((*compiled)[row]->status, 0) << "row " << row << ": " << command_table[row].regex;
    }
}

struct telling_row {
    const char* regex;
    const char* handler;
    const char* help;
    int category;
};

TEST_F(CommandTable, RowsOthersRelyOnAreKeptByteForByte) {
    // clang-format off
    const telling_row rows[] = {
        {"^regnotify$", "handle_regnotify", "\"regnotify\" - Register client for notifications.", 1},
        {"^get [ ]*reg-timeout[ ]*$", "handle_get_voip", "\"get reg-timeout\" - Query registration time out setting, default 60s.", 9},
        {"^set [ ]*reg-timeout [ ]*([1-9]|[1-9][0-9]|[1-9][0-9][0-9]|[1-9][0-9][0-9][0-9]|[1-9][0-9][0-9][0-9][0-9]|[1-5][0-9][0-9][0-9][0-9]|60[0-3][0-9][0-9][0-9][0-9]|604[0-7][0-9][0-9]|604800)[ ]*$", "handle_set_voip", "\"set reg-timeout <timeout>\" - Configure registration time out, 1 - 604800 s (7 days), default 60s.", 9},
        {"^set dial-plan(( *)| (([#!*,.|]|[0-9Xx]|(<[0-9:]+>)|(\\[[0-9^-]+\\]))+))$", "handle_set_voip", "\"set dial-plan <dial plan string>\" - Configure the dial plan.", 9},
        {"^dial (([1-3])|(usb)) ", "handle_dial", "\"dial <voip-line-id> <number>\" - Dial given url.", 3},
        {"^answer (([1-3])|(usb)|(bt))$", "handle_call_action", "\"answer <1..3|usb|bt>\" - Answer the given call.", 3},
        {"^join( (([1-2])|(usb)|(bt)) [0-1]){2,4}$", "handle_join", "\"join <call-id1> <mix-state1> <call-id2> <mix-state2> <call-id3> <mix-state3> <call-id4> <mix-state4>\" - Mix-state (0,1) for calls (1, 2, usb, bt). Used for conferencing.", 3},
        {"^set [ ]*camera-ptz-home [ ]*([-]?([0-9]|[1-2][0-9]|3[0-0]) [-]?([0-9]|1[0-8]) ([1-3][0-9][0-9]|400))[ ]*$", "handle_set_multi", "\"set camera-ptz-home <pan tilt zoom>\" - pan: +/-30  tilt : +/-18  zoom: 100-400  default is <0,0,100>", 8},
        {"^set [ ]*md5-password [ ]*[A-Fa-f0-9]{32}[ ]*$", "handle_set", "\"set md5-password <password>\" - Configure system password as MD5 sum - exactly 32 hexadecimal characters.", 1},
        {"^get [ ]*md5-password[ ]*$", "handle_get", "\"get md5-password\" - Query returns MD5 sum of system password.", 0},
        {"^set [ ]*analog-audio-in-gain [ ]*(-12(\\.0)?|-1[0-1](\\.[05])?|-[0-9](\\.[05])?|[0-9](\\.[05])?|[1-3][0-9](\\.[05])?|40(\\.0)?)[ ]*$", "handle_set", "\"set analog-audio-in-gain <-12 - 40>\" - gain value when analog-audio-in-mode is set to 'manual'", 2},
        {"^set [ ]*contrast [ ]*[1-1]?[0-9][ ]*$", "handle_set", "\"set contrast <0-15>\" - Configure display contrast. 0 - 15, default 7.", 10},
        {"^set [ ]*all-mic-mute [ ]*[0-1][ ]*$", "handle_set", "\"set all-mic-mute <0-1>\" - Configure whether we want to mute all microphones. 0 - off, 1 - on", 11},
        {"^report captouch ", "handle_property_value", "\"report captouch <event>\" - Report captouch event, event - <mute-audio.toggle/mute-video.toggle/volumeup/volumedown/bluetooth>.", 0},
        {"^hangup all$", "handle_call_action", "\"hangup all\" - Hang up all active calls.", 0},
    };
    // clang-format on
    for (const telling_row& expected : rows) {
        const int row = find_row(expected.help, expected.category);
        ASSERT_GE(row, 0) << expected.help;
        EXPECT_STREQ(command_table[row].regex, expected.regex);
        EXPECT_STREQ(command_handler_name(command_table[row].handler), expected.handler);
    }
    EXPECT_GE(find_row("\"get mute\" - Query mute state.", 2), 0);
}

TEST_F(CommandTable, EveryRowAcceptsItsRangeAndNothingBeyondIt) {
    const auto examples = command_examples();
    std::set<int> covered;
    for (const command_example& example : examples) {
        const int row = find_row_by_syntax(example.syntax, example.category);
        ASSERT_GE(row, 0) << "no row for example \"" << example.syntax << "\"";
        EXPECT_TRUE(covered.insert(row).second)
            << "second example for \"" << example.syntax << "\"";
        const auto accepted = lines_of(example.accepted);
        EXPECT_FALSE(accepted.empty()) << example.syntax;
        for (const std::string& line : accepted) {
            EXPECT_EQ(first_match(line), row) << "\"" << line << "\" should be taken by row " << row
                                              << " (" << example.syntax << ")";
        }
        for (const std::string& line : lines_of(example.rejected)) {
            const int taken = first_match(line);
            EXPECT_EQ(taken, -1) << "\"" << line << "\" taken by row " << taken << " ("
                                 << (taken >= 0 ? command_table[taken].help : "") << ")";
        }
    }
    EXPECT_EQ(covered.size(), static_cast<std::size_t>(row_count()));
}

TEST_F(CommandTable, OverlappingCommandsGoToTheIntendedRow) {
    const auto row_of = [](const char* syntax, int category) {
        return find_row_by_syntax(syntax, category);
    };
    // "hold all" and "hangup all" stay root-only although the per-call
    // "hold" row would take "all" too.
    EXPECT_EQ(first_match("hold all"), row_of("hold all", 0));
    EXPECT_LT(row_of("hold all", 0), row_of("hold <1..3|usb|bt|all>", 3));
    EXPECT_EQ(first_match("hold 2"), row_of("hold <1..3|usb|bt|all>", 3));
    EXPECT_EQ(first_match("hangup all"), row_of("hangup all", 0));
    EXPECT_EQ(first_match("hangup usb"), row_of("hangup <1..3|usb|bt>", 3));

    // The open "get require-http" row reads the HTTPS setting; the plain
    // HTTP one is the root-only row.
    EXPECT_EQ(first_match("get require-https"), row_of("get require-http", 1));
    EXPECT_EQ(first_match("get require-http"), row_of("get require-http", 11));

    // Names that begin with another command's name.
    EXPECT_EQ(first_match("get status-all"), row_of("get status-all", 3));
    EXPECT_EQ(first_match("get status 1"), row_of("get status <1..3|usb|bt>", 3));
    EXPECT_EQ(first_match("get codec1"), row_of("get codec1", 9));
    EXPECT_EQ(first_match("get codec 1"), row_of("get codec <call-id>", 3));
    EXPECT_EQ(first_match("set dtmf 1 5"),
              row_of("set dtmf <1-3,usb,bt> <digit or '-' to stop tone>", 9));
    EXPECT_EQ(first_match("set dtmf-method 1"), row_of("set dtmf-method", 9));
    EXPECT_EQ(first_match("get bt-paired"), row_of("get bt-paired", 0));
    EXPECT_EQ(first_match("get bt-paired-list"), row_of("get bt-paired-list", 5));
    EXPECT_EQ(first_match("get camera-image-defaults"), row_of("get camera-image-defaults", 8));
    EXPECT_EQ(first_match("set camera-image-defaults"), row_of("set camera-image-defaults", 8));
    EXPECT_EQ(first_match("report usb-conn-status 1"), row_of("report usb-conn-status <0/1>", 0));
    EXPECT_EQ(first_match("report status usb ringing"),
              row_of("report status <call-id> <call-status>", 0));
    EXPECT_EQ(first_match("get ip"), row_of("get ip", 4));
    EXPECT_EQ(first_match("get ip-addr"), row_of("get ip-addr", 9));

    // Commands are lower case even where a help line is not.
    EXPECT_EQ(first_match("set use-srtp 1"), row_of("Set use-srtp <0-2>", 9));
    EXPECT_EQ(first_match("Set use-srtp 1"), -1);
}

// The literal command words at the start of an expression, e.g. "set" and
// "reg-timeout" for "^set [ ]*reg-timeout [ ]*(...)".
std::vector<std::string> expression_words(std::string_view regex) {
    std::vector<std::string> words;
    std::size_t at = 1;  // after '^'
    for (int n = 0; n < 2 && at < regex.size(); ++n) {
        std::string word;
        while (at < regex.size()) {
            const char c = regex[at];
            if (c == '\\' && at + 1 < regex.size()) {
                word += regex[at + 1];
                at += 2;
                continue;
            }
            if (c == ' ' || c == '(' || c == '[' || c == '$') break;
            word += c;
            ++at;
        }
        words.push_back(word);
        if (at < regex.size() && regex[at] == ' ') ++at;
        if (regex.substr(at).starts_with("[ ]*")) at += 4;
    }
    return words;
}

TEST_F(CommandTable, HelpAndExpressionNameTheSameCommand) {
    // The key index reads command words from the help, the matcher from the
    // expression; they must agree or the scan starts in the wrong place.
    const std::set<std::string> verbs{"get", "set", "report"};
    for (int row = 0; row < row_count(); ++row) {
        const command_entry& entry = command_table[row];
        const std::string syntax(help_syntax(entry));
        std::vector<std::string> help_words;
        std::size_t start = 0;
        while (help_words.size() < 2 && start < syntax.size()) {
            const auto end = syntax.find(' ', start);
            help_words.push_back(syntax.substr(start, end - start));
            if (end == std::string::npos) break;
            start = end + 1;
        }
        const auto words = expression_words(entry.regex);
        SCOPED_TRACE(entry.help);
        ASSERT_FALSE(help_words.empty());
        if (syntax == "Set use-srtp <0-2>") {
            EXPECT_EQ(words[0], "set");
            continue;
        }
        EXPECT_EQ(words[0], help_words[0]);
        if (verbs.count(help_words[0]) != 0 && help_words.size() > 1) {
            if (syntax == "get require-http" && entry.category == 1) {
                EXPECT_EQ(words[1], "require-https");
            } else {
                EXPECT_EQ(words[1], help_words[1]);
            }
        }
    }
}

}  // namespace
