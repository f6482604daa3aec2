// What a line may continue with: the words of each command row, read off its
// expression, and the TAB completion of the command loop built on them. The
// table stays the one source of the words; nothing here lists them again.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "regexparser.hpp"

namespace tx::grammar {

// The blank-separated words of the lines a row accepts, read off its
// expression. Each word holds the values it may take where the expression
// spells them out as literal words, single characters or alternatives of
// those ("set", "mute", then "0" and "1" for `[0-1]`; "rc" and "disconnected"
// for `(rc|disconnected)`), in the expression's order; a word that is a range
// or free text (`[1-9][0-9]`, `[^ ]+`, `[1-1]?[0-9]`) holds none.
struct RowWords {
    std::vector<std::vector<std::string>> words;
    // How many leading words are literal text: the command ("set",
    // "dialer-connection-mode"; "hangup", "all").
    std::size_t command_words = 0;
    // How many words every accepted line has; the ones after it may be left out.
    std::size_t required = 0;
    // The row accepts more text after the last word (a prefix row such as
    // "dial 1 ", or a repeated or alternative tail such as a dial plan).
    bool more = false;
};

RowWords row_words(const command_entry& row);

// row_words of every row of a table, in row order.
std::vector<RowWords> table_row_words(const command_entry* table);

// row_words of every row of command_table, derived at the first call.
const std::vector<RowWords>& command_row_words();

// The commands the interactive loop handles itself, and how it tells them
// from table commands: "exit" is the whole line, "help" its beginning, and
// "set echo" and "set prompt" may stand anywhere in it (so "set echo off"
// switches echo off). Tested in this order.
enum class Builtin { none, exit, echo, help, prompt };

struct BuiltinCommand {
    Builtin id;
    std::string_view name;
};

inline constexpr BuiltinCommand builtin_commands[] = {
    {Builtin::exit, "exit"},
    {Builtin::echo, "set echo"},
    {Builtin::help, "help"},
    {Builtin::prompt, "set prompt"},
};

Builtin classify_builtin(std::string_view line) noexcept;

constexpr std::string_view builtin_name(Builtin id) noexcept {
    for (const BuiltinCommand& b : builtin_commands) {
        if (b.id == id) return b.name;
    }
    return {};
}

// What TAB offers for a line that ends at the cursor.
struct Completion {
    // Where the word being completed begins in the line.
    std::size_t word_start = 0;
    // Whole words that extend it, sorted, each once.
    std::vector<std::string_view> candidates;
    // Help lines of the rows that take a range or free text there, shown
    // instead of candidates when there are none.
    std::vector<const char*> help;
};

// Completion over command_table and the built-in commands for one user on
// one device: rows that user may not run, and VoIP settings on a device
// without VoIP, are never offered.
class Completer {
  public:
    Completer(uid_t uid, bool voip_capable);
    Completer(const Completer&) = delete;
    Completer& operator=(const Completer&) = delete;

    // The candidates view words held by the completer.
    Completion complete(std::string_view line) const;

  private:
    struct Entry {
        const RowWords* words;
        const char* help;
    };
    std::vector<RowWords> builtins_;
    std::vector<Entry> entries_;
};

}  // namespace tx::grammar
