// The command language: the table of accepted commands, the one call that
// turns a line into a request record for a caller, and help. The library
// answers and never prints: every client shows refusals its own way (cli on
// its console, the web program as JSON, txconfig with a file's line number).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "request_record.hpp"

namespace tx::grammar {

// Who runs a line, on which device. Both are read once by the program (the
// uid with getuid(), the VoIP capability from the kernel command line through
// the OS layer) and handed to every call.
struct Caller {
    uid_t uid = 0;
    bool voip = false;
};

struct Match;

}  // namespace tx::grammar

struct command_entry;

// Fills the match's cleared record from a line that the row accepted; a
// refusal goes into the match's refusal text and leaves the action empty.
using command_handler = void (*)(std::string_view line, const tx::grammar::Caller& caller,
                                 tx::grammar::Match& match);

struct command_entry {
    const char* regex;        // POSIX extended, anchored with '^'
    command_handler handler;  // null only in the terminating row
    const char* help;         // "\"syntax\" - description"
    std::int32_t category;    // one of the categories below
};

// 502 rows and a terminating row of zeros.
extern const command_entry command_table[];

namespace tx::grammar {

// Help categories. 1..9 are the help topics, open to everyone.
inline constexpr std::int32_t kHidden = 0;  // root only, listed by "help hidden" alone
inline constexpr std::int32_t kSys = 1;
inline constexpr std::int32_t kAudio = 2;
inline constexpr std::int32_t kCall = 3;
inline constexpr std::int32_t kNet = 4;
inline constexpr std::int32_t kBt = 5;
inline constexpr std::int32_t kBm64 = 6;
inline constexpr std::int32_t kBle = 7;
inline constexpr std::int32_t kCam = 8;
inline constexpr std::int32_t kVoip = 9;
inline constexpr std::int32_t kUnlisted = 10;      // everyone, never listed by help
inline constexpr std::int32_t kRootUnlisted = 11;  // root only, never listed by help

// Rows that only root may run; to anyone else they are lines that match nothing.
constexpr bool is_root_only(std::int32_t category) noexcept {
    return category == kHidden || category == kRootUnlisted;
}

// Whether `uid` may run the row.
bool row_allowed(const command_entry& row, uid_t uid) noexcept;

// The rows of command_table, without the terminating row.
std::span<const command_entry> command_rows() noexcept;

// What a client shows for a line that no row accepts.
inline constexpr std::string_view kSyntaxError = "command syntax error";

struct Match {
    // The row whose handler ran; null when no row accepts the line for this
    // caller (a syntax error: nothing is to be sent).
    const command_entry* row = nullptr;
    // What the handler made of the line: the request to send.
    RequestRecord record{};
    // Why the handler refused the line ("val voip-capable 0"), one line
    // without its newline; empty when it did not. A refused record has an
    // empty action and cli still sends it, as the device expects.
    std::string refusal;
    // Reports of table rows that could not be tried (an expression that does
    // not compile), each ending with a newline, in the order they happened.
    std::string reports;

    bool accepted() const noexcept { return row != nullptr && refusal.empty(); }
};

// What a match keeps of the expressions it compiled to try a line. Kept, a
// row's expression is compiled once per program, but it then holds the
// states its runs have built, some 40 KiB a row: fine for an interactive
// console, too much for a program that tries a few hundred rows once and must
// stay small. Not kept, every row tried is compiled and freed on the spot
// (some 10 us a row; rows whose literal start differs from the line's are not
// compiled at all).
enum class Keep { compiled, nothing };

// The first row (from the key index position on) that accepts the whole
// line, run for the caller. A line may hold embedded newlines; what follows a
// NUL is not part of it.
Match match(std::string_view line, const Caller& caller, Keep keep = Keep::compiled);

// Whether the row's expression alone accepts the whole line, compiled and
// freed on the spot: a quick test before a match, which would try every
// later row that the line's start allows when this one refuses it.
bool row_accepts(const command_entry& row, std::string_view line);

// The help listing for what followed "help" on the line, as cli prints it:
// every line ends with a newline. Help is root's alone; anyone else gets the
// syntax error line.
std::string help_text(std::string_view topic_text, uid_t uid);

// A help topic, the categories it lists, and how the usage lines of help
// show it: "prints USAGE commands" on line `usage_line` (0: not shown).
struct TopicRange {
    std::string_view topic;
    int low;
    int high;
    std::string_view usage;
    int usage_line;
};
// Every help topic, "all" first, then in the order of their categories.
std::span<const TopicRange> help_topics() noexcept;

// The value the row's help line states a setting starts with: "..., default
// 9." gives "9", "default 60s" and "default 30 minutes" the number, "default
// empty" the empty text, "default is <0,0,100>" the words "0 0 100"; nothing
// when it states none ("default from DHCP": the device learns it).
std::optional<std::string> stated_default(const command_entry& row);
// The value stated by the first "get NAME" or "set NAME" row that states one.
std::optional<std::string> stated_default(std::string_view name);

// The handler's name as written in the table ("handle_get"), or null.
const char* command_handler_name(command_handler handler);

// Whether the row's handler refuses every use on a device without VoIP.
bool voip_only(const command_entry& row) noexcept;

}  // namespace tx::grammar
