// TAB completion: the words of the rows a user may run, matched against the
// words already typed, and the built-in commands of the loop beside them.
#include "completion.hpp"

#include <algorithm>
#include <array>

#include "matcher_detail.hpp"

namespace tx::grammar {

namespace {

// Lines with more words than this are long past anything a row spells out.
constexpr std::size_t kMaxWords = 16;

struct TypedWords {
    std::array<std::string_view, kMaxWords> done;
    std::size_t count = 0;
    std::size_t partial_start = 0;
    bool too_many = false;
};

// The finished words of a line and where the word at its end begins; a
// double-quoted group is one word, blanks and all.
TypedWords split_typed(std::string_view line) {
    TypedWords t;
    std::size_t i = 0;
    for (;;) {
        while (i < line.size() && line[i] == ' ') ++i;
        const std::size_t start = i;
        bool quoted = false;
        while (i < line.size() && (quoted || line[i] != ' ')) quoted ^= line[i++] == '"';
        if (i == line.size()) {
            t.partial_start = start;
            return t;
        }
        if (t.count == kMaxWords) {
            t.too_many = true;
            return t;
        }
        t.done[t.count++] = line.substr(start, i - start);
    }
}

bool fits(const RowWords& row, const TypedWords& typed) {
    for (std::size_t i = 0; i < typed.count; ++i) {
        if (i >= row.words.size()) return row.more;
        const std::vector<std::string>& values = row.words[i];
        if (!values.empty() && std::ranges::find(values, typed.done[i]) == values.end()) {
            return false;
        }
    }
    return true;
}

RowWords builtin_words(const BuiltinCommand& builtin) {
    RowWords row;
    std::string_view rest = builtin.name;
    while (!rest.empty()) {
        const std::size_t blank = std::min(rest.find(' '), rest.size());
        row.words.push_back({std::string(rest.substr(0, blank))});
        rest.remove_prefix(std::min(blank + 1, rest.size()));
    }
    row.command_words = row.required = row.words.size();
    if (builtin.id == Builtin::help) {
        std::vector<std::string>& topics = row.words.emplace_back();
        for (const TopicRange& t : help_topics()) topics.emplace_back(t.topic);
    } else if (builtin.id == Builtin::echo || builtin.id == Builtin::prompt) {
        // The loop switches these on when the line holds a '1'.
        row.words.push_back({"0", "1"});
    }
    return row;
}

}  // namespace

Builtin classify_builtin(std::string_view line) noexcept {
    for (const BuiltinCommand& b : builtin_commands) {
        const bool hit = b.id == Builtin::exit   ? line == b.name
                         : b.id == Builtin::help ? line.starts_with(b.name)
                                                 : line.find(b.name) != std::string_view::npos;
        if (hit) return b.id;
    }
    return Builtin::none;
}

Completer::Completer(uid_t uid, bool voip_capable) {
    for (const BuiltinCommand& b : builtin_commands) {
        // Help is for root only.
        if (b.id != Builtin::help || uid == 0) builtins_.push_back(builtin_words(b));
    }
    const std::vector<RowWords>& rows = command_row_words();
    entries_.reserve(builtins_.size() + rows.size());
    for (const RowWords& row : builtins_) entries_.push_back({&row, nullptr});
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const command_entry& row = command_table[i];
        if (row_allowed(row, uid) && (voip_capable || !voip_only(row))) {
            entries_.push_back({&rows[i], row.help});
        }
    }
}

Completion Completer::complete(std::string_view line) const {
    Completion out;
    const TypedWords typed = split_typed(line);
    // No row accepts a line that begins with a blank.
    const bool hopeless = typed.too_many || line.starts_with(' ');
    out.word_start = hopeless ? line.size() : typed.partial_start;
    if (hopeless) return out;
    const std::string_view partial = line.substr(typed.partial_start);

    for (const Entry& e : entries_) {
        const RowWords& row = *e.words;
        if (!fits(row, typed)) continue;
        const bool free =
            typed.count < row.words.size() ? row.words[typed.count].empty() : row.more;
        if (free) {
            if (e.help != nullptr && std::ranges::find(out.help, e.help) == out.help.end()) {
                out.help.push_back(e.help);
            }
            continue;
        }
        if (typed.count >= row.words.size()) continue;
        for (const std::string& value : row.words[typed.count]) {
            if (value.starts_with(partial)) out.candidates.push_back(value);
        }
    }
    std::ranges::sort(out.candidates);
    out.candidates.erase(std::unique(out.candidates.begin(), out.candidates.end()),
                         out.candidates.end());
    return out;
}

}  // namespace tx::grammar
