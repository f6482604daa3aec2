// Token splitting for the command handlers.
#include "tokens.hpp"

namespace tx::grammar {

TokenList::~TokenList() {
    free_tokens(*this);
}

std::size_t TokenList::count() const noexcept {
    std::size_t n = 0;
    for (const auto& slot : slots) {
        n += slot.has_value() ? 1 : 0;
    }
    return n;
}

void free_tokens(TokenList& tokens) noexcept {
    for (auto& slot : tokens.slots) {
        slot.reset();
    }
}

std::string strip_char(char c, std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        if (ch != c) {
            out += ch;
        }
    }
    return out;
}

void split_plain_tokens(std::string_view line, TokenList& tokens) {
    free_tokens(tokens);
    std::size_t slot = 0;
    std::size_t pos = 0;
    while (slot < kTokenSlots) {
        pos = line.find_first_not_of(' ', pos);
        if (pos == std::string_view::npos) {
            break;
        }
        std::size_t end = line.find(' ', pos);
        if (end == std::string_view::npos) {
            end = line.size();
        }
        tokens.slots[slot++].emplace(line.substr(pos, end - pos));
        pos = end;
    }
}

namespace {

std::size_t quote_count(std::string_view token) noexcept {
    std::size_t n = 0;
    for (char ch : token) {
        n += ch == '"' ? 1 : 0;
    }
    return n;
}

// Merges each group that opens with a token of exactly one double quote and
// closes with the next token holding one; an unclosed group ends the joining.
void join_quoted_groups(TokenList& tokens) {
    auto& slots = tokens.slots;
    for (std::size_t open = 0; open < kTokenSlots && slots[open].has_value(); ++open) {
        if (quote_count(*slots[open]) != 1) {
            continue;
        }
        std::size_t close = open + 1;
        while (close < kTokenSlots && slots[close].has_value() && quote_count(*slots[close]) == 0) {
            ++close;
        }
        if (close >= kTokenSlots || !slots[close].has_value()) {
            return;
        }

        std::string joined = std::move(*slots[open]);
        for (std::size_t i = open + 1; i <= close; ++i) {
            joined += ' ';
            joined += *slots[i];
        }
        slots[open].emplace(std::move(joined));
        const std::size_t removed = close - open;
        for (std::size_t i = open + 1; i < kTokenSlots; ++i) {
            const std::size_t from = i + removed;
            if (from < kTokenSlots) {
                slots[i] = std::move(slots[from]);
                slots[from].reset();
            } else {
                slots[i].reset();
            }
        }
    }
}

}  // namespace

void split_command_tokens(std::string_view line, TokenList& tokens) {
    // "ch 1" names one channel: keep it a single token.
    std::string copy(line);
    const std::size_t ch = copy.find(" ch ");
    if (ch != std::string::npos) {
        copy.erase(ch + 3, 1);
    }

    split_plain_tokens(copy, tokens);
    join_quoted_groups(tokens);
    for (auto& slot : tokens.slots) {
        if (slot.has_value() && slot->find('"') != std::string::npos) {
            slot.emplace(strip_char('"', *slot));
        }
    }
}

}  // namespace tx::grammar
