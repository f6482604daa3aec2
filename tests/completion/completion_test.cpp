// Completion over the real command table, case by case from
// completion_cases.txt (its notation is explained there).
#include "completion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <span>
#include <string>
#include <vector>

#include "matcher_detail.hpp"
#include "support/table.hpp"

namespace {

using namespace tx::grammar;

std::string offered(const Completion& c) {
    std::string out;
    for (const std::string_view v : c.candidates) out.append(" ").append(v);
    for (const char* h : c.help) out.append(" help:").append(h);
    return out.empty() ? "-" : out.substr(1);
}

// "set mute 0|1 2/3": the values of each word (* when free), command words / required words.
std::string spelled(const RowWords& r) {
    std::string out;
    for (const std::vector<std::string>& word : r.words) {
        for (const std::string& v : word) out += v + (&v == &word.back() ? "" : "|");
        out += word.empty() ? "* " : " ";
    }
    return out + std::to_string(r.command_words) + "/" + std::to_string(r.required) +
           (r.more ? " more" : "");
}

TEST(Completion, CasesOverTheTable) {
    constexpr const char* kKinds[] = {"none", "exit", "echo", "help", "prompt"};
    const std::span rows(command_table, count_rows(command_table));
    const std::vector<tx::test::Row> cases = tx::test::read_table(CASES_FILE);
    ASSERT_FALSE(cases.empty());
    for (const tx::test::Row& f : cases) {
        std::string line;
        for (const std::string& field : f) line += field + " | ";
        SCOPED_TRACE(line);
        if (f.size() == 5 && f[0] == "complete") {
            const Completer completer(static_cast<uid_t>(std::stoi(f[1])), f[2] == "1");
            EXPECT_EQ(offered(completer.complete(f[3])), f[4]) << line;
        } else if (f.size() == 3 && f[0] == "words") {
            const auto row = std::ranges::find_if(rows, [&](const command_entry& e) {
                return std::string_view(e.help).starts_with(f[1]);
            });
            ASSERT_NE(row, rows.end()) << line;
            EXPECT_EQ(spelled(row_words(*row)), f[2]) << line;
        } else if (f.size() == 3 && f[0] == "builtin") {
            EXPECT_EQ(kKinds[static_cast<int>(classify_builtin(f[1]))], f[2]) << line;
        } else {
            ADD_FAILURE() << "not a case";
        }
    }
}

// Every value a row spells out is one its expression accepts.
TEST(Completion, SpelledValuesPassTheirRow) {
    const std::vector<RowWords>& rows = command_row_words();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::vector<std::vector<std::string>>& ws = rows[i].words;
        if (rows[i].more || std::ranges::count(ws, std::vector<std::string>{}) != 0) continue;
        const std::regex re(command_table[i].regex, std::regex::extended);
        for (std::size_t w = 0; w < ws.size(); ++w) {
            for (const std::string& value : ws[w]) {
                std::string line;
                for (std::size_t k = 0; k < ws.size(); ++k)
                    line += " " + (k == w ? value : ws[k][0]);
                EXPECT_TRUE(std::regex_search(line.substr(1), re)) << line;
            }
        }
    }
}

}  // namespace
