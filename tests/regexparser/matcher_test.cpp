// The matcher over small tables: first match from the start position, the uid
// rules, the key index and kept versus freshly compiled expressions.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "matcher_detail.hpp"
#include "test_support.hpp"

namespace {

using grammar_test::is_zero;
using tx::grammar::CommandIndex;
using tx::grammar::Matcher;
using tx::grammar::RegexMode;

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 1001;

std::atomic<int> g_calls{0};

// Marks the record with the regex of the row that ran.
void mark_row(const char*, std::size_t, RequestRecord* record, const command_entry* row) {
    ++g_calls;
    tx::copy_bounded(record->action, row->regex);
}

// clang-format off
const command_entry kTable[] = {
    {"^regnotify$",                         mark_row, "\"regnotify\" - Register client for notifications.", 1},
    {"^get [ ]*mute[ ]*$",                  mark_row, "\"get mute\" - Query mute state.", 2},
    {"^get [ ]*md5-password[ ]*$",          mark_row, "\"get md5-password\" - Query MD5 sum.", 0},
    {"^set [ ]*all-mic-mute [ ]*[0-1][ ]*$", mark_row, "\"set all-mic-mute <0-1>\" - Mute all.", 11},
    {"^set [ ]*contrast [ ]*[1-1]?[0-9][ ]*$", mark_row, "\"set contrast <0-15>\" - Contrast.", 10},
    {"^hangup (([1-3])|(usb)|(bt))$",       mark_row, "\"hangup <1..3|usb|bt>\" - Hang up.", 3},
    {"^hangup all$",                        mark_row, "\"hangup all\" - Hang up all.", 0},
    {"^dial (([1-3])|(usb)) ",              mark_row, "\"dial <voip-line-id> <number>\" - Dial.", 3},
    // A root-only row shadowing a later row that everyone may run.
    {"^shadow x$",                          mark_row, "\"shadow x\" - Root only.", 0},
    {"^shadow .*$",                         mark_row, "\"shadow <any>\" - Everyone.", 1},
    // The same command twice: the first row wins.
    {"^get [ ]*mute[ ]*$",                  mark_row, "\"get mute\" - Duplicate.", 2},
    {nullptr, nullptr, nullptr, 0},
};
// clang-format on

struct Outcome {
    int result;
    RequestRecord record;
    std::string printed;
};

Outcome match(const Matcher& m, std::string_view line, uid_t uid) {
    Outcome o{};
    std::memset(&o.record, 0x5a, sizeof o.record);  // the matcher must clear it
    const std::string copy(line);
    testing::internal::CaptureStdout();
    o.result = m.match(copy.c_str(), copy.size(), &o.record, uid);
    o.printed = testing::internal::GetCapturedStdout();
    return o;
}

std::string_view matched_row(const Outcome& o) {
    return grammar_test::text(o.record.action);
}

TEST(Matcher, UidRulesForHiddenAndUnlistedRows) {
    const Matcher m(kTable, RegexMode::kept);

    Outcome o = match(m, "get mute", kUser);
    EXPECT_EQ(o.result, 1);
    EXPECT_EQ(matched_row(o), kTable[1].regex);

    // Category 0 and 11 rows: refused to users like a line that matches nothing.
    for (const char* line : {"get md5-password", "set all-mic-mute 1", "hangup all"}) {
        const int before = g_calls;
        o = match(m, line, kUser);
        EXPECT_EQ(o.result, 0) << line;
        EXPECT_EQ(g_calls, before) << line;
        EXPECT_TRUE(is_zero(o.record)) << line;
        EXPECT_EQ(o.printed, "") << line;

        o = match(m, line, kRoot);
        EXPECT_EQ(o.result, 1) << line;
    }

    // Category 10 is unlisted but open to everyone.
    EXPECT_EQ(match(m, "set contrast 19", kUser).result, 1);
    EXPECT_EQ(match(m, "set contrast 20", kRoot).result, 0);

    // A refused row ends the scan: the later row that would accept the line is not tried.
    o = match(m, "shadow x", kUser);
    EXPECT_EQ(o.result, 0);
    o = match(m, "shadow x", kRoot);
    EXPECT_EQ(matched_row(o), kTable[8].regex);
    o = match(m, "shadow y", kUser);
    EXPECT_EQ(matched_row(o), kTable[9].regex);
}

TEST(Matcher, FirstMatchingRowWinsAndRejectionsClearTheRecord) {
    const Matcher m(kTable, RegexMode::kept);

    Outcome o = match(m, "get mute", kRoot);
    EXPECT_EQ(matched_row(o), kTable[1].regex);

    // Prefix rows accept any rest of the line.
    o = match(m, "dial 1 sip:someone@example.org x y", kUser);
    EXPECT_EQ(o.result, 1);
    EXPECT_EQ(matched_row(o), kTable[7].regex);

    for (const char* line : {"", "get mute 1", "foo bar", "get  mutex", "hangup 4", "dial 1"}) {
        o = match(m, line, kRoot);
        EXPECT_EQ(o.result, 0) << line;
        EXPECT_TRUE(is_zero(o.record)) << line;
    }

    // Only `length` bytes of the line count.
    RequestRecord r{};
    const char longer[] = "regnotify and more";
    EXPECT_EQ(m.match(longer, 9, &r, kUser), 1);
    EXPECT_EQ(m.match("regnotify", 8, &r, kUser), 0);
    EXPECT_EQ(m.match(nullptr, 5, &r, kRoot), 0);
    EXPECT_EQ(m.match("regnotify", 9, nullptr, kRoot), 0);
}

TEST(Matcher, EmptyTableRejectsEverything) {
    const command_entry empty[] = {{nullptr, nullptr, nullptr, 0}};
    for (RegexMode mode : {RegexMode::kept, RegexMode::fresh}) {
        const Matcher m(empty, mode);
        EXPECT_EQ(m.rows(), 0u);
        EXPECT_EQ(match(m, "regnotify", kRoot).result, 0);
        EXPECT_EQ(m.lookup("regnotify", 9), 0);
    }
}

TEST(Matcher, KeptExpressionsBehaveLikeFreshOnes) {
    // clang-format off
    const command_entry broken[] = {
        {"^get (mute$",        mark_row, "\"get mute\" - Broken.", 1},
        {"^get [ ]*mute[ ]*$", mark_row, "\"get mute\" - Query.", 1},
        {"^set [ ]*[a-z]+ [0-9]+$", mark_row, "\"set <name> <n>\" - Set.", 1},
        {nullptr, nullptr, nullptr, 0},
    };
    // clang-format on
    const Matcher kept(broken, RegexMode::kept);
    const Matcher fresh(broken, RegexMode::fresh);

    const std::vector<std::string> lines = {"get mute", "get mute", "set x 1",   "set x y",
                                            "get",      "",         "get mute ", "set  x 1"};
    for (const std::string& line : lines) {
        const Outcome a = match(kept, line, kUser);
        const Outcome b = match(fresh, line, kUser);
        EXPECT_EQ(a.result, b.result) << line;
        EXPECT_EQ(a.printed, b.printed) << line;
        EXPECT_EQ(std::memcmp(&a.record, &b.record, sizeof a.record), 0) << line;
    }

    // The row that fails to compile is reported on every line that reaches it.
    const Outcome once = match(kept, "get mute", kUser);
    const Outcome twice = match(kept, "get mute", kUser);
    EXPECT_EQ(once.printed.rfind("regcomp(^get (mute$) at 0 returned ", 0), 0u) << once.printed;
    EXPECT_EQ(once.printed, twice.printed);
    EXPECT_EQ(matched_row(twice), broken[1].regex);
}

TEST(MatcherThreads, KeptExpressionsAreSharedSafely) {
    const Matcher m(kTable, RegexMode::kept);
    const std::vector<std::string> lines = {"get mute", "hangup 2",       "dial usb 55",
                                            "nothing",  "set contrast 7", "regnotify"};
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                for (const std::string& line : lines) {
                    RequestRecord r{};
                    accepted += m.match(line.c_str(), line.size(), &r, kUser);
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(accepted, 4 * 200 * 5);
}

// clang-format off
const char kLong31[] = "abcdefghijklmnopqrstuvwxyz01234";
const char kLong32[] = "abcdefghijklmnopqrstuvwxyz012345";
const command_entry kIndexTable[] = {
    {"^get mute$",        mark_row, "\"get mute\" - a.", 1},                       // entry 0
    {"^set mute [01]$",   mark_row, "\"set mute <0-1>\" - b.", 1},                 // entry 1
    {"^hangup [1-3]$",    mark_row, "\"hangup <1..3>\" - c.", 3},                  // entry 2
    {"^hangup all$",      mark_row, "\"hangup all\" - d.", 0},                     // no entry: key present
    {"^get mute$",        mark_row, "\"get mute\" - e.", 1},                       // entry 3: two-word keys repeat
    {"^x$",               mark_row, "\"abcdefghijklmnopqrstuvwxyz012345\" - f.", 1},  // no entry: 32 chars
    {"^report captouch ", mark_row, "\"report captouch <event>\" - g.", 0},        // entry 4
    {"^get .*$",          mark_row, "\"get abcdefghijklmnopqrstuvwxyz012345\" - h.", 1},  // entry 5: "get"
    {"^abc.*$",           mark_row, "\"abcdefghijklmnopqrstuvwxyz01234\" - i.", 1},   // entry 6
    {"^dial [1-3] ",      mark_row, "\"dial <id> <number>\" - j.", 3},             // entry 7
    {"^dial .*$",         mark_row, "\"dial <anything>\" - k.", 3},                // no entry
    {nullptr, nullptr, nullptr, 0},
};
// clang-format on

TEST(CommandIndex, KeysFollowTheHelpTexts) {
    const CommandIndex index(kIndexTable);
    const auto& e = index.entries();
    ASSERT_EQ(e.size(), 8u);
    const std::vector<std::pair<int, std::string>> expected = {
        {0, "get_mute"},        {1, "set_mute"}, {2, "hangup"}, {4, "get_mute"},
        {6, "report_captouch"}, {7, "get"},      {8, kLong31},  {9, "dial"}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(e[i].row, expected[i].first) << i;
        EXPECT_EQ(grammar_test::text(e[i].key), expected[i].second) << i;
    }
}

TEST(CommandIndex, LookupReturnsTheEntryPosition) {
    const CommandIndex index(kIndexTable);
    auto lookup = [&index](std::string_view line) {
        return index.lookup(line.data(), line.size());
    };

    EXPECT_EQ(lookup("get mute"), 0);
    EXPECT_EQ(lookup("set mute 1"), 1);
    EXPECT_EQ(lookup("hangup all"), 2);
    EXPECT_EQ(lookup("report captouch volumeup"), 4);
    // Position, not the stored row (9).
    EXPECT_EQ(lookup("dial 2 1234"), 7);
    EXPECT_EQ(lookup(kLong31), 6);
    EXPECT_EQ(lookup(std::string(kLong31) + " tail"), 6);
    // An over-long second word leaves the verb alone as the key.
    EXPECT_EQ(lookup(std::string("get ") + kLong32), 5);
    EXPECT_EQ(lookup(std::string("get ") + kLong31), 0);

    // No key: scan from the first row.
    EXPECT_EQ(lookup(kLong32), 0);
    EXPECT_EQ(lookup(""), 0);
    EXPECT_EQ(lookup(" get mute"), 0);
    EXPECT_EQ(lookup("get  mute"), 0);
    EXPECT_EQ(lookup("unknown words"), 0);
    EXPECT_EQ(index.lookup("dial 1 x", 0), 0);
    EXPECT_EQ(index.lookup("dial 1 x", 3), 0);  // "dia"
    EXPECT_EQ(index.lookup(nullptr, 4), 0);
}

TEST(CommandIndex, MatcherStartsAtTheLookupPosition) {
    // clang-format off
    const command_entry table[] = {
        {"^dial.*$", mark_row, "\"aaa\" - Accepts any dial line.", 1},  // entry 0
        {"^dial 1$", mark_row, "\"dial <id>\" - Dial.", 1},            // entry 1
        {nullptr, nullptr, nullptr, 0},
    };
    // clang-format on
    const Matcher m(table, RegexMode::kept);
    // The key "dial" starts the scan at row 1: row 0 is never tried.
    EXPECT_EQ(matched_row(match(m, "dial 1", kUser)), table[1].regex);
    EXPECT_EQ(match(m, "dial 2", kUser).result, 0);
    // Without a known key the scan starts at the top.
    EXPECT_EQ(matched_row(match(m, "dialx", kUser)), table[0].regex);
    EXPECT_EQ(matched_row(match(m, "dial" + std::string(40, 'x'), kUser)), table[0].regex);

    // A position below the command's first row still reaches it.
    const Matcher big(kIndexTable, RegexMode::kept);
    EXPECT_EQ(matched_row(match(big, "dial 2 555", kUser)), kIndexTable[9].regex);
    EXPECT_EQ(matched_row(match(big, "dial x", kUser)), kIndexTable[10].regex);
    EXPECT_EQ(matched_row(match(big, "get abc", kUser)), kIndexTable[7].regex);
}

TEST(CommandIndex, HoldsAtMostAThousandEntries) {
    // 1100 rows, each with its own key, and a final key that must not fit.
    std::vector<std::string> helps;
    for (int i = 0; i < 1100; ++i) {
        helps.push_back("\"cmd" + std::to_string(i) + "\" - x.");
    }
    std::vector<command_entry> table;
    for (const std::string& h : helps) {
        table.push_back({"^cmd$", mark_row, h.c_str(), 1});
    }
    table.push_back({nullptr, nullptr, nullptr, 0});

    const CommandIndex index(table.data());
    EXPECT_EQ(index.entries().size(), CommandIndex::kCapacity);
    EXPECT_EQ(index.lookup("cmd999", 6), 999);
    EXPECT_EQ(index.lookup("cmd1000", 7), 0);
}

}  // namespace
