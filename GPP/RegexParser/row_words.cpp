// Reading a row's expression as words. The expressions are POSIX extended
// expressions written in a small manner: literal words, blanks (" " or
// "[ ]*") between them, bracket expressions, groups of alternatives and
// quantifiers. They are parsed into a tree once and walked word by word;
// whatever cannot be spelled out as a short list of values counts as free.
//
// The row macros of command_table.cpp know a row's command words, but its
// values ("[0-1]", "(rc|disconnected)", the three words of camera-ptz-home)
// exist only as expression text, and the rows written out in full (join,
// mic-conn-status, camera-image-defaults) have no macro at all: reading the
// expression is the one way that serves every row, and the expression is
// what the matcher enforces, so the words offered are the words accepted.
#include <algorithm>
#include <span>

#include "completion.hpp"
#include "matcher_detail.hpp"

namespace tx::grammar {

namespace {

constexpr int kUnbounded = -1;
// A group of words repeated "{2,4}" times is spelled out up to this many times.
constexpr int kMaxRepeat = 8;

struct Piece;
using Sequence = std::vector<Piece>;

struct Piece {
    enum class Kind { character, bracket, group, any, end };
    Kind kind = Kind::character;
    std::string members;  // the character, or the characters a bracket admits
    bool negated = false;
    std::vector<Sequence> alternatives;
    int min = 1;
    int max = 1;
};

class Parser {
  public:
    explicit Parser(std::string_view expr) : s_(expr) {}

    std::vector<Sequence> alternatives() {
        std::vector<Sequence> alts{sequence()};
        while (peek() == '|') {
            ++pos_;
            alts.push_back(sequence());
        }
        return alts;
    }

  private:
    char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }

    Sequence sequence() {
        Sequence seq;
        while (pos_ < s_.size() && peek() != '|' && peek() != ')') {
            const char c = s_[pos_++];
            if (c == '^') continue;  // the anchor every row begins with
            Piece& p = seq.emplace_back();
            if (c == '$') {
                p.kind = Piece::Kind::end;
            } else if (c == '(') {
                p.kind = Piece::Kind::group;
                p.alternatives = alternatives();
                if (peek() == ')') ++pos_;
            } else if (c == '[') {
                bracket(p);
            } else if (c == '.') {
                p.kind = Piece::Kind::any;
            } else {
                p.members.assign(1, c == '\\' && pos_ < s_.size() ? s_[pos_++] : c);
            }
            quantifier(p);
        }
        return seq;
    }

    void bracket(Piece& p) {
        p.kind = Piece::Kind::bracket;
        if (peek() == '^') {
            p.negated = true;
            ++pos_;
        }
        for (bool first = true; pos_ < s_.size() && (first || peek() != ']'); first = false) {
            const char low = s_[pos_++];
            // Named classes ("[:digit:]") are not spelled out: count them as free.
            if (low == '[' && peek() == ':') p.negated = true;
            char high = low;
            if (peek() == '-' && pos_ + 1 < s_.size() && s_[pos_ + 1] != ']') {
                high = s_[pos_ + 1];
                pos_ += 2;
            }
            for (int c = low; c <= high; ++c) p.members.push_back(static_cast<char>(c));
        }
        if (peek() == ']') ++pos_;
    }

    void quantifier(Piece& p) {
        for (;;) {
            const char c = peek();
            if (c == '?' || c == '*' || c == '+') {
                ++pos_;
                p.min = c == '+' ? std::min(p.min, 1) : 0;
                p.max = c == '?' && p.max != kUnbounded ? p.max : kUnbounded;
            } else if (c == '{') {
                ++pos_;
                p.min = number();
                p.max = p.min;
                if (peek() == ',') {
                    ++pos_;
                    p.max = peek() == '}' ? kUnbounded : number();
                }
                if (peek() == '}') ++pos_;
            } else {
                return;
            }
        }
    }

    int number() {
        int n = 0;
        while (peek() >= '0' && peek() <= '9' && n < 1000) n = n * 10 + (s_[pos_++] - '0');
        return n;
    }

    std::string_view s_;
    std::size_t pos_ = 0;
};

bool is_blank(const Piece& p) {
    return (p.kind == Piece::Kind::character || (p.kind == Piece::Kind::bracket && !p.negated)) &&
           p.members == " ";
}

bool holds_blank(const Piece& p) {
    if (is_blank(p)) return true;
    return std::ranges::any_of(
        p.alternatives, [](const Sequence& alt) { return std::ranges::any_of(alt, holds_blank); });
}

bool once(const Piece& p) {
    return p.min == 1 && p.max == 1;
}

void add_value(std::vector<std::string>& values, std::string value) {
    if (std::ranges::find(values, value) == values.end()) values.push_back(std::move(value));
}

std::vector<std::string> values_of(std::span<const Piece* const> word);

std::vector<std::string> values_of(const Sequence& alt) {
    std::vector<const Piece*> word;
    for (const Piece& p : alt) word.push_back(&p);
    return values_of(word);
}

// The values a word made of these pieces may take, or none when the
// expression does not spell them out.
std::vector<std::string> values_of(std::span<const Piece* const> word) {
    if (std::ranges::all_of(
            word, [](const Piece* p) { return p->kind == Piece::Kind::character && once(*p); })) {
        std::string text;
        for (const Piece* p : word) text += p->members;
        if (text.empty()) return {};
        return {text};
    }
    if (word.size() != 1 || !once(*word.front())) return {};
    const Piece& p = *word.front();
    std::vector<std::string> values;
    if (p.kind == Piece::Kind::bracket && !p.negated) {
        for (const char c : p.members) add_value(values, std::string(1, c));
    } else if (p.kind == Piece::Kind::group) {
        for (const Sequence& alt : p.alternatives) {
            std::vector<std::string> more = values_of(alt);
            if (more.empty()) return {};
            for (std::string& v : more) add_value(values, std::move(v));
        }
    }
    return values;
}

class WordBuilder {
  public:
    RowWords build(const std::vector<Sequence>& top) {
        if (top.size() != 1) {
            out_.more = true;  // a row of alternative lines: nothing to spell out
            return std::move(out_);
        }
        add(top.front());
        close_word();
        if (!ended_) out_.more = true;
        if (!optional_seen_) out_.required = out_.words.size();
        return std::move(out_);
    }

  private:
    void add(const Sequence& seq) {
        for (const Piece& p : seq) {
            if (stopped_) return;
            if (p.kind == Piece::Kind::end) {
                close_word();
                ended_ = true;
            } else if (is_blank(p)) {
                close_word();
            } else if (p.kind == Piece::Kind::group && holds_blank(p)) {
                add_words(p);
            } else {
                word_.push_back(&p);
            }
        }
    }

    // A group that spans several words ("( [ ]*1)?", "( id [0-1]){2,4}") is
    // spelled out as often as it may occur; the occurrences past its minimum
    // are optional. One with alternatives or without a bound ends the words.
    void add_words(const Piece& group) {
        if (group.alternatives.size() != 1 || group.max == kUnbounded || group.max > kMaxRepeat) {
            close_word();
            mark_optional();
            out_.more = true;
            stopped_ = true;
            return;
        }
        for (int i = 0; i < group.max; ++i) {
            if (i == group.min) mark_optional();
            add(group.alternatives.front());
        }
    }

    void mark_optional() {
        if (optional_seen_) return;
        optional_seen_ = true;
        out_.required = out_.words.size() + (word_.empty() ? 0 : 1);
    }

    void close_word() {
        if (word_.empty()) return;
        const bool literal = std::ranges::all_of(
            word_, [](const Piece* p) { return p->kind == Piece::Kind::character && once(*p); });
        const bool before_optional = !optional_seen_ || out_.words.size() < out_.required;
        if (literal && before_optional && out_.command_words == out_.words.size()) {
            ++out_.command_words;
        }
        out_.words.push_back(values_of(word_));
        word_.clear();
    }

    RowWords out_;
    std::vector<const Piece*> word_;
    bool ended_ = false;
    bool stopped_ = false;
    bool optional_seen_ = false;
};

}  // namespace

RowWords row_words(const command_entry& row) {
    if (row.regex == nullptr) return {};
    const std::vector<Sequence> top = Parser(row.regex).alternatives();
    return WordBuilder().build(top);
}

std::vector<RowWords> table_row_words(const command_entry* table) {
    std::vector<RowWords> rows;
    const std::size_t n = count_rows(table);
    rows.reserve(n);
    for (std::size_t i = 0; i < n; ++i) rows.push_back(row_words(table[i]));
    return rows;
}

const std::vector<RowWords>& command_row_words() {
    static const std::vector<RowWords> rows = table_row_words(command_table);
    return rows;
}

}  // namespace tx::grammar
