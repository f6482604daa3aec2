// Every row's accepted and rejected example lines, as root and as the
// operator (uid 1001), through the matcher (key index and literal-prefix
// shortcut) and through a naive reference that tries every row in order: both
// must pick the same row or both refuse. As root, an accepted line must go to
// a row of the syntax it was written for and a rejected one to no row.
#include <regex.h>

#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fixed_text.hpp"
#include "matcher_detail.hpp"
#include "regexparser/grammar_cases.hpp"
#include "support/table.hpp"

namespace {

using grammar_test::Case;

constexpr uid_t kOperator = 1001;

std::string_view syntax_of(const command_entry& row) {
    const std::string_view help = row.help;
    return help.substr(1, help.find('"', 1) - 1);
}

class Reference {
  public:
    Reference() {
        for (const command_entry* row = command_table; row->handler != nullptr; ++row) {
            regex_t& re = compiled_.emplace_back();
            EXPECT_EQ(regcomp(&re, row->regex, REG_EXTENDED | REG_NEWLINE), 0) << row->regex;
        }
    }
    ~Reference() {
        for (regex_t& re : compiled_) regfree(&re);
    }
    // The first row that accepts the line; refused to other users when it is
    // of category 0 or 11.
    const command_entry* pick(const std::string& line, uid_t uid) const {
        for (std::size_t row = 0; row < compiled_.size(); ++row) {
            if (regexec(&compiled_[row], line.c_str(), 0, nullptr, 0) != 0) continue;
            const int category = command_table[row].category;
            return uid == 0 || (category != 0 && category != 11) ? &command_table[row] : nullptr;
        }
        return nullptr;
    }
    std::size_t rows() const { return compiled_.size(); }

  private:
    std::vector<regex_t> compiled_;
};

// The setting name in an expression "PREFIX NAME SUFFIX", or "" when the
// expression has another shape.
std::string name_between(std::string_view rx, std::string_view prefix, std::string_view suffix) {
    if (rx.size() < prefix.size() + suffix.size() || !rx.starts_with(prefix) ||
        !rx.ends_with(suffix)) {
        return "";
    }
    const std::string_view name =
        rx.substr(prefix.size(), rx.size() - prefix.size() - suffix.size());
    const bool plain = name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") == name.npos;
    return plain ? std::string(name) : "";
}

// The rows whose examples follow from their expression: "get NAME", and
// "set NAME" with a value of 0 or 1.
void add_generated_cases(std::vector<Case>& cases) {
    for (const command_entry* row = command_table; row->handler != nullptr; ++row) {
        const auto add = [&](const char* kind, const std::string& line) {
            cases.push_back({std::string(syntax_of(*row)), kind, line});
        };
        if (const std::string name = name_between(row->regex, "^get [ ]*", "[ ]*$");
            !name.empty()) {
            add("+", "get " + name);
            add("+", "get  " + name + " ");
            add("-", "get " + name + "x");
            add("-", "get " + name + " 1");
        }
        const std::string name = name_between(row->regex, "^set [ ]*", " [ ]*[0-1][ ]*$");
        if (!name.empty()) {
            add("+", "set " + name + " 0");
            add("+", "set " + name + " 1");
            add("-", "set " + name + " 2");
            add("-", "set " + name);
        }
    }
}

TEST(Grammar, MatcherAgreesWithTheReferenceOnEveryExample) {
    static const Reference reference;
    const tx::grammar::Matcher& matcher = tx::grammar::command_matcher();
    std::vector<Case> cases = grammar_test::read_cases("examples.txt");
    add_generated_cases(cases);
    std::set<const command_entry*> covered;
    for (const Case& c : cases) {
        ASSERT_EQ(c.size(), 3u) << c[0];
        const std::string& line = c[2];
        for (uid_t uid : {uid_t{0}, kOperator}) {
            std::string reports;
            EXPECT_EQ(matcher.find(line, uid, reports), reference.pick(line, uid))
                << "uid " << uid << ": " << line;
        }
        const command_entry* row = reference.pick(line, 0);
        if (c[1] == "+") {
            EXPECT_TRUE(row != nullptr && syntax_of(*row) == c[0]) << line << " for " << c[0];
            covered.insert(row);
        } else {
            EXPECT_EQ(row, nullptr) << line << " taken by " << row->help;
        }
    }
    EXPECT_EQ(covered.size(), reference.rows());
}

// The property map has an entry for every row that needs one: each line a
// get, set or report row accepts names a property, the map's key for the
// name typed or, for the rows that pass it on as typed, that name itself.
TEST(Grammar, EveryAcceptedSettingLineNamesItsProperty) {
    for (const Case& c : grammar_test::read_cases("examples.txt")) {
        const std::string& line = c[2];
        std::istringstream in(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
        // Lines with a newline inside test the matcher, not the handlers.
        if (c[1] != "+" || words.size() < 2 || line.find('\n') != std::string::npos) continue;
        if (words[0] != "get" && words[0] != "set" && words[0] != "report") continue;
        const tx::grammar::Match m = tx::grammar::match(line, {0, true});
        const std::string_view property = tx::field_view(m.record.property);
        EXPECT_TRUE(property == words[1] || property.ends_with("." + words[1]))
            << line << " gives the property \"" << property << "\"";
    }
}

// A setting's starting value is written once, in the help lines of its
// rows: where both its get and its set row state one they agree, and the set
// row accepts it.
TEST(Grammar, StatedDefaultsAgreeAndPassTheSetRow) {
    std::size_t stated = 0;
    for (const command_entry& row : tx::grammar::command_rows()) {
        const std::string_view syntax = syntax_of(row);
        if (!syntax.starts_with("get ") && !syntax.starts_with("set ")) continue;
        const std::optional<std::string> value = tx::grammar::stated_default(row);
        if (!value) continue;
        ++stated;
        const std::string name(syntax.substr(4, syntax.find(' ', 4) - 4));
        EXPECT_EQ(tx::grammar::stated_default(name), value) << row.help;
        const std::string quoted =
            value->find(' ') != std::string::npos && name != "camera-ptz-home"
                ? "\"" + *value + "\""
                : *value;
        const tx::grammar::Match set = tx::grammar::match("set " + name + " " + quoted, {0, true});
        EXPECT_TRUE(value->empty() || set.accepted()) << "set " << name << " " << quoted;
    }
    EXPECT_GT(stated, 200u);
}

}  // namespace
