// Lines through the matcher, as root, to the request their handler makes:
// what it prints and the request document, on a device with VoIP and without.
// And the tokens the handlers read from odd lines.
#include <array>
#include <string>

#include "grammar_cases.hpp"
#include "matcher_detail.hpp"
#include "tokens.hpp"
#include "xml_messages.hpp"

namespace {

using grammar_test::Case;

TEST(Requests, EachLineGivesItsRequest) {
    for (const Case& c : grammar_test::read_cases("requests.txt")) {
        ASSERT_EQ(c.size(), 4u) << c[0];
        const grammar_test::FakeCmdline cmdline(c[0] == "voip" ? "voip_capable=1" : "quiet");
        RequestRecord record{};
        testing::internal::CaptureStdout();
        const tx::grammar::Matcher& matcher = tx::grammar::command_matcher();
        EXPECT_EQ(matcher.match(c[1].c_str(), c[1].size(), &record, 0), 1) << c[1];
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c[2]) << c[1];
        std::array<char, 4096> xml{};
        generate_xml_request(record, xml);
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
