// Help over the real table: each topic lists the help lines of its
// categories in table order and an empty line; unknown topics print the
// usage, and help is for root only.
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "grammar_cases.hpp"
#include "regexparser.hpp"

namespace {

// The help lines of the rows whose category is one of `categories` ("1 2"),
// and the closing empty line.
std::string listing(const std::string& categories) {
    std::istringstream in(categories);
    const std::set<int> listed{std::istream_iterator<int>(in), {}};
    std::string out;
    for (const command_entry* row = command_table; row->handler != nullptr; ++row) {
        if (listed.contains(row->category)) out.append(row->help).append("\n");
    }
    return out.append("\n");
}

TEST(Help, Listings) {
    for (const grammar_test::Case& c : grammar_test::read_cases("help.txt")) {
        ASSERT_EQ(c.size(), 3u) << c[0];
        const std::string text = tx::grammar::help_text(c[1], std::stoi(c[0]));
        const bool rows = c[2].starts_with("rows");
        EXPECT_EQ(text, rows ? listing(c[2].substr(4)) : c[2])
            << "uid " << c[0] << " topic '" << c[1] << "'";
    }
}

}  // namespace
