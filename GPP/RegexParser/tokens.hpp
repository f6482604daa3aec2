// Splitting a command line into the tokens the handlers read.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tx::grammar {

inline constexpr std::size_t kTokenSlots = 12;

// Twelve slots, each empty or owning one token. Slot 0 is the command word.
struct TokenList {
    std::array<std::optional<std::string>, kTokenSlots> slots;

    TokenList() = default;
    TokenList(const TokenList&) = delete;
    TokenList& operator=(const TokenList&) = delete;
    ~TokenList();

    bool has(std::size_t i) const noexcept { return i < kTokenSlots && slots[i].has_value(); }
    // The token, or the empty text when the slot is empty (never a null view:
    // it may be copied with memcpy).
    std::string_view at(std::size_t i) const noexcept {
        return has(i) ? std::string_view(*slots[i]) : std::string_view("");
    }
    std::size_t count() const noexcept;
};

// Splits at blanks into at most 12 tokens, after turning " ch N" into " chN";
// joins double-quoted groups into one token and removes every double quote.
void split_command_tokens(std::string_view line, TokenList& tokens);
// Splits at blanks only; quotes stay as typed.
void split_plain_tokens(std::string_view line, TokenList& tokens);
// Empties every slot.
void free_tokens(TokenList& tokens) noexcept;
// The text with every occurrence of c removed.
std::string strip_char(char c, std::string_view text);

}  // namespace tx::grammar
