// Matching a line against a command table, the key index that shortens the
// scan, and the help listings.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "fixed_text.hpp"
#include "matcher_detail.hpp"

namespace tx::grammar {

namespace {

constexpr int kRegexFlags = REG_EXTENDED | REG_NEWLINE;

bool is_two_word_verb(std::string_view word) noexcept {
    return word == "get" || word == "set" || word == "report";
}

// A help text's words end at a blank or a double quote (and, defensively, at
// the end of the text).
bool ends_help_word(char c) noexcept {
    return c == ' ' || c == '"' || c == '\0';
}

// Length of the help word at p, or kWordMax + 1 when it is longer than a key
// word may be.
std::size_t help_word_length(const char* p) noexcept {
    std::size_t n = 0;
    while (n <= CommandIndex::kWordMax && !ends_help_word(p[n])) {
        ++n;
    }
    return n;
}

// Every topic once, in the order help knows them; the usage lists them in
// its own order and leaves out "bm64" and "hidden".
constexpr TopicRange kTopics[] = {
    {"all", kSys, kVoip, "all", 2},        {"sys", kSys, kSys, "system", 9},
    {"audio", kAudio, kAudio, "audio", 3}, {"call", kCall, kCall, "call", 6},
    {"net", kNet, kNet, "network", 8},     {"bt", kBt, kBt, "bt", 4},
    {"bm64", kBm64, kBm64, {}, 0},         {"ble", kBle, kBle, "ble", 5},
    {"cam", kCam, kCam, "camera", 7},      {"voip", kVoip, kVoip, "voip", 10},
    {"hidden", kHidden, kHidden, {}, 0},
};
constexpr const TopicRange& kAllTopics = kTopics[0];

// "help usage:", then a line for "help" alone and one for each listed topic.
std::string help_usage() {
    std::string lines[std::size(kTopics) + 2] = {"help usage:\n"};
    const auto line = [](std::string_view topic, std::string_view what) {
        std::string text = "\t help ";
        text.append(topic).append(8 - topic.size(), ' ');
        return text.append("prints ").append(what).append(" commands\n");
    };
    lines[1] = line("", kAllTopics.usage);
    for (const TopicRange& t : kTopics) {
        if (t.usage_line != 0) lines[t.usage_line] = line(t.topic, t.usage);
    }
    std::string usage;
    for (const std::string& l : lines) usage += l;
    return usage;
}

}  // namespace

std::size_t count_rows(const command_entry* table) noexcept {
    std::size_t n = 0;
    if (table == nullptr) {
        return 0;
    }
    while (table[n].handler != nullptr) {
        ++n;
    }
    return n;
}

bool row_accepts(const command_entry& row, std::string_view line) {
    if (row.regex == nullptr) return false;
    const std::string text(line.substr(0, line.find('\0')));
    regex_t re{};
    if (regcomp(&re, row.regex, kRegexFlags) != 0) return false;
    const bool accepted = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return accepted;
}

bool row_allowed(const command_entry& row, uid_t uid) noexcept {
    return uid == 0 || !is_root_only(row.category);
}

std::span<const TopicRange> help_topics() noexcept {
    return kTopics;
}

CommandIndex::CommandIndex(const command_entry* table) {
    entries_.reserve(kCapacity);
    const std::size_t rows = count_rows(table);
    for (std::size_t row = 0; row < rows; ++row) {
        const char* help = table[row].help;
        if (help == nullptr || help[0] == '\0') {
            continue;
        }
        const char* first = help + 1;  // past the opening double quote
        const std::size_t first_len = help_word_length(first);
        if (first_len > kWordMax) {
            continue;
        }
        const std::string_view first_word(first, first_len);

        if (is_two_word_verb(first_word)) {
            const char* second = first + first_len;
            if (*second != '\0') {
                ++second;  // the single delimiter
            }
            const std::size_t second_len = help_word_length(second);
            if (second_len <= kWordMax) {
                // Two-word keys are appended even when already present.
                if (entries_.size() < kCapacity) {
                    std::string key(first_word);
                    key += '_';
                    key.append(second, second_len);
                    append(row, key);
                }
                continue;
            }
        }
        if (entries_.size() < kCapacity && !contains(first_word)) {
            append(row, first_word);
        }
    }
}

bool CommandIndex::contains(std::string_view key) const noexcept {
    for (const Entry& e : entries_) {
        if (tx::field_view(e.key) == key) {
            return true;
        }
    }
    return false;
}

void CommandIndex::append(std::size_t row, std::string_view key) {
    Entry& e = entries_.emplace_back();
    e.row = static_cast<std::int32_t>(row);
    tx::copy_bounded(e.key, key);
}

int CommandIndex::lookup(const char* line, std::size_t length) const {
    if (line == nullptr || length == 0) {
        return 0;
    }
    const std::string_view text(line, strnlen(line, length));
    if (text.empty() || text.front() == ' ') {
        return 0;
    }

    std::size_t n = 0;
    while (n < text.size() && text[n] != ' ') {
        if (n == kWordMax) {
            return 0;
        }
        ++n;
    }
    const std::string_view first = text.substr(0, n);
    std::string key(first);
    if (is_two_word_verb(first)) {
        std::size_t start = n;
        if (start < text.size()) {
            ++start;  // exactly one blank
        }
        std::size_t end = start;
        while (end < text.size() && text[end] != ' ') {
            ++end;
        }
        if (end - start <= kWordMax) {
            key += '_';
            key.append(text.substr(start, end - start));
        }
    }
    if (key.empty()) {
        return 0;
    }

    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (tx::field_view(entries_[i].key) == key) {
            return static_cast<int>(i);
        }
    }
    return 0;
}

namespace {

// The literal text every match must begin with: what follows the leading '^'
// up to the first special character (a character made optional by a
// quantifier does not count). Rows with a top-level alternative get none.
std::string literal_prefix(std::string_view expr) {
    if (expr.empty() || expr.front() != '^') {
        return {};
    }
    int depth = 0;
    for (const char c : expr) {
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if (c == '|' && depth == 0) return {};
    }
    constexpr std::string_view kSpecial = ".[]()*+?{}|\\^$";
    std::string_view rest = expr.substr(1);
    std::size_t n = 0;
    while (n < rest.size() && kSpecial.find(rest[n]) == std::string_view::npos) {
        ++n;
    }
    if (n > 0 && n < rest.size() &&
        std::string_view("*?{+").find(rest[n]) != std::string_view::npos) {
        --n;
    }
    return std::string(rest.substr(0, n));
}

}  // namespace

struct Matcher::Compiled {
    std::once_flag once;
    int rc = -1;
    regex_t re{};
    // Lines that do not begin with this cannot match; checked before regexec
    // so that a line no row accepts costs a scan of prefixes, not 502 regexecs.
    std::string prefix;

    Compiled() = default;
    Compiled(const Compiled&) = delete;
    Compiled& operator=(const Compiled&) = delete;
    ~Compiled() {
        if (rc == 0) {
            regfree(&re);
        }
    }
};

Matcher::Matcher(const command_entry* table)
    : table_(table),
      rows_(count_rows(table)),
      index_(table),
      compiled_(std::make_unique<Compiled[]>(rows_)) {}

Matcher::~Matcher() = default;

namespace {

void report_uncompiled(std::string& reports, const char* expr, std::size_t row, int rc) {
    char report[512];
    std::snprintf(report, sizeof report, "regcomp(%s) at %d returned %d\n", expr,
                  static_cast<int>(row), rc);
    reports += report;
}

// With REG_NEWLINE a '^' also matches after an embedded newline, so the
// prefix shortcut only holds for single-line texts.
bool cannot_match(const char* text, bool single_line, const std::string& prefix) {
    return single_line && std::strncmp(text, prefix.c_str(), prefix.size()) != 0;
}

}  // namespace

int Matcher::try_row(std::size_t row, const char* text, bool single_line, std::string& reports,
                     Keep keep) const {
    const char* expr = table_[row].regex;
    if (expr == nullptr) {
        return REG_NOMATCH;
    }
    if (keep == Keep::nothing) {
        if (cannot_match(text, single_line, literal_prefix(expr))) return REG_NOMATCH;
        regex_t re{};
        const int rc = regcomp(&re, expr, kRegexFlags);
        if (rc != 0) {
            report_uncompiled(reports, expr, row, rc);
            return -1;
        }
        const int result = regexec(&re, text, 0, nullptr, 0);
        regfree(&re);
        return result;
    }
    Compiled& c = compiled_[row];
    std::call_once(c.once, [&c, expr] {
        c.rc = regcomp(&c.re, expr, kRegexFlags);
        c.prefix = literal_prefix(expr);
    });
    if (c.rc != 0) {
        // Reported on every try, as if the row were compiled afresh each time.
        report_uncompiled(reports, expr, row, c.rc);
        return -1;
    }
    if (cannot_match(text, single_line, c.prefix)) {
        return REG_NOMATCH;
    }
    return regexec(&c.re, text, 0, nullptr, 0);
}

const command_entry* Matcher::find(std::string_view line, uid_t uid, std::string& reports,
                                   Keep keep) const {
    const int start = index_.lookup(line.data(), line.size());
    if (start < 0 || static_cast<std::size_t>(start) >= rows_) {
        return nullptr;
    }
    // regexec needs a terminated text, and stops at the first NUL.
    const std::string text(line.substr(0, line.find('\0')));
    const bool single_line = text.find('\n') == std::string::npos;
    for (std::size_t row = static_cast<std::size_t>(start); row < rows_; ++row) {
        const int result = try_row(row, text.c_str(), single_line, reports, keep);
        if (result == 0) {
            // A refused row ends the scan: later rows are not tried.
            return row_allowed(table_[row], uid) ? &table_[row] : nullptr;
        }
        if (result != REG_NOMATCH && result != -1) {
            reports += "Regular expression matching failed!: ";
            reports += std::strerror(errno);
            reports += '\n';
        }
    }
    return nullptr;
}

Match Matcher::match(std::string_view line, const Caller& caller, Keep keep) const {
    Match m;
    m.row = find(line, caller.uid, m.reports, keep);
    if (m.row != nullptr) {
        m.row->handler(line, caller, m);
    }
    return m;
}

std::string help_text(const command_entry* table, std::string_view topic_text, uid_t uid) {
    const std::size_t rows = count_rows(table);
    if (uid != 0) {
        return std::string(kSyntaxError) + "\n";
    }

    // The first blank-separated word of the topic text.
    std::string_view topic = topic_text;
    const std::size_t begin = topic.find_first_not_of(' ');
    topic = begin == std::string_view::npos ? std::string_view{} : topic.substr(begin);
    topic = topic.substr(0, topic.find(' '));

    const TopicRange* range = &kAllTopics;
    if (!topic.empty()) {
        range = nullptr;
        for (const TopicRange& t : kTopics) {
            if (t.topic == topic) {
                range = &t;
            }
        }
        if (range == nullptr) {
            return help_usage();
        }
    }

    std::string text;
    for (std::size_t row = 0; row < rows; ++row) {
        const command_entry& e = table[row];
        if (e.help == nullptr || e.category == kRootUnlisted) {
            continue;
        }
        if (e.category >= range->low && e.category <= range->high) {
            text.append(e.help).append("\n");
        }
    }
    return text + "\n";
}

}  // namespace tx::grammar
