// Splitting lines into handler tokens.
#include "tokens.hpp"

#include <string>
#include <vector>

#include "test_support.hpp"

namespace {

using tx::grammar::TokenList;

// The tokens as texts, and "<none>" for empty slots between present ones.
std::vector<std::string> tokens_of(std::string_view line, bool plain = false) {
    TokenList t;
    if (plain) {
        tx::grammar::split_plain_tokens(line, t);
    } else {
        tx::grammar::split_command_tokens(line, t);
    }
    std::vector<std::string> out;
    std::size_t last = 0;
    for (std::size_t i = 0; i < tx::grammar::kTokenSlots; ++i) {
        if (t.has(i)) {
            last = i + 1;
        }
    }
    for (std::size_t i = 0; i < last; ++i) {
        out.push_back(t.has(i) ? *t.slots[i] : "<none>");
    }
    return out;
}

using V = std::vector<std::string>;

TEST(Tokens, SplitAtRunsOfBlanks) {
    EXPECT_EQ(tokens_of("set speaker-volume 9"), (V{"set", "speaker-volume", "9"}));
    EXPECT_EQ(tokens_of("   set   speaker-volume    9   "), (V{"set", "speaker-volume", "9"}));
    EXPECT_EQ(tokens_of(""), V{});
    EXPECT_EQ(tokens_of("     "), V{});
    // Only blanks separate.
    EXPECT_EQ(tokens_of("a\tb c"), (V{"a\tb", "c"}));

    // Twelve slots: the rest of the line is dropped.
    EXPECT_EQ(tokens_of("1 2 3 4 5 6 7 8 9 10 11 12 13 14"),
              (V{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"}));
}

TEST(Tokens, ChannelWordJoinsItsNumber) {
    EXPECT_EQ(tokens_of("set x ch 1 5"), (V{"set", "x", "ch1", "5"}));
    // Only the first " ch " is rewritten.
    EXPECT_EQ(tokens_of("a ch 1 ch 2"), (V{"a", "ch1", "ch", "2"}));
    // "ch" at the start or end, or inside a word, is left alone.
    EXPECT_EQ(tokens_of("ch 1"), (V{"ch", "1"}));
    EXPECT_EQ(tokens_of("a ch"), (V{"a", "ch"}));
    EXPECT_EQ(tokens_of("a mch 1"), (V{"a", "mch", "1"}));
    // A run of blanks after "ch": one blank goes, the rest still separate.
    EXPECT_EQ(tokens_of("a ch  1"), (V{"a", "ch", "1"}));
    // The plain splitter does not rewrite.
    EXPECT_EQ(tokens_of("set x ch 1", true), (V{"set", "x", "ch", "1"}));
}

TEST(Tokens, QuotedGroupsBecomeOneTokenWithoutQuotes) {
    EXPECT_EQ(tokens_of("set date-time \"2024-05-06 07:08:09\""),
              (V{"set", "date-time", "2024-05-06 07:08:09"}));
    // Later tokens move down behind the joined one.
    EXPECT_EQ(tokens_of("a \"b c d\" e f"), (V{"a", "b c d", "e", "f"}));
    EXPECT_EQ(tokens_of("\"a b\" \"c d\" e"), (V{"a b", "c d", "e"}));
    // Runs of blanks inside the quotes become one blank.
    EXPECT_EQ(tokens_of("set name \"a    b\""), (V{"set", "name", "a b"}));
    // A token with two quotes opens no group; its quotes just go.
    EXPECT_EQ(tokens_of("set name \"ab\" c"), (V{"set", "name", "ab", "c"}));
    EXPECT_EQ(tokens_of("set date-time \"\""), (V{"set", "date-time", ""}));
    EXPECT_EQ(tokens_of("a\"b c\"d"), (V{"ab cd"}));
    // An unclosed quote joins nothing; the stray quote is removed.
    EXPECT_EQ(tokens_of("set name \"abc def"), (V{"set", "name", "abc", "def"}));
    EXPECT_EQ(tokens_of("\"a b\" \"c d"), (V{"a b", "c", "d"}));
    // The closing quote beyond the twelfth token is never seen.
    EXPECT_EQ(tokens_of("1 2 3 4 5 6 7 8 9 10 \"11 12 13\""),
              (V{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"}));
    // A token with three quotes opens no group either; the next one opens a
    // group that never closes.
    EXPECT_EQ(tokens_of("x \"\"\"a b\""), (V{"x", "a", "b"}));
    // The plain splitter keeps quotes and does not join.
    EXPECT_EQ(tokens_of("set ftp-srv1 \"a b\"", true), (V{"set", "ftp-srv1", "\"a", "b\""}));
}

TEST(Tokens, StripCharAndFreeTokens) {
    EXPECT_EQ(tx::grammar::strip_char('"', "\"\""), "");
    EXPECT_EQ(tx::grammar::strip_char('"', "a\"b\"\"c"), "abc");
    EXPECT_EQ(tx::grammar::strip_char('x', ""), "");

    TokenList t;
    tx::grammar::split_command_tokens("a b c", t);
    EXPECT_EQ(t.count(), 3u);
    tx::grammar::free_tokens(t);
    EXPECT_EQ(t.count(), 0u);
    EXPECT_EQ(t.at(0), "");
    EXPECT_EQ(t.at(99), "");
    // Splitting again replaces whatever the list held.
    tx::grammar::split_command_tokens("x y z w", t);
    tx::grammar::split_command_tokens("q", t);
    EXPECT_EQ(t.count(), 1u);
}

}  // namespace
