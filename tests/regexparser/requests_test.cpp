// Lines through the matcher, as root, to the request their handler makes:
// what it prints and the request document, on a device with VoIP and without.
// And the tokens the handlers read from odd lines.
#include <array>
#include <string>

#include "grammar_cases.hpp"
#include "regexparser.hpp"
#include "tokens.hpp"
#include "xml_messages.hpp"

namespace {

using grammar_test::Case;

TEST(Requests, EachLineGivesItsRequest) {
    for (const Case& c : grammar_test::read_cases("requests.txt")) {
        ASSERT_EQ(c.size(), 4u) << c[0];
        const tx::grammar::Match match = tx::grammar::match(c[1], {0, c[0] == "voip"});
        EXPECT_NE(match.row, nullptr) << c[1];
        EXPECT_EQ(match.refusal.empty() ? "" : match.refusal + "\n", c[2]) << c[1];
        std::array<char, 4096> xml{};
        generate_xml_request(match.record, xml);
        EXPECT_EQ(std::string(xml.data()), c[3]) << c[1];
    }
}

TEST(Tokens, OddLines) {
    for (const Case& c : grammar_test::read_cases("tokens.txt")) {
        ASSERT_EQ(c.size(), 2u) << c[0];
        tx::grammar::TokenList tokens;
        tx::grammar::split_command_tokens(c[1], tokens);
        std::string joined;
        for (std::size_t i = 0; i < tokens.count(); ++i) {
            joined.append(i == 0 ? "" : "|").append(tokens.at(i));
        }
        EXPECT_EQ(joined, c[0]) << c[1];
    }
}

}  // namespace
