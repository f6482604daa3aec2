// Internals of the command matcher, open to the grammar's tests, the benchmark
// and the fuzz driver: the key index, the matcher over any table and the help
// listing. The public calls of regexparser.hpp are thin wrappers over these,
// bound to command_table.
#pragma once

#include <regex.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "regexparser.hpp"
#include "request_record.hpp"

namespace tx::grammar {

// Rows up to (not including) the first row whose handler is null.
std::size_t count_rows(const command_entry* table) noexcept;

// Command keys ("get_mute", "dial") of a table, in row order.
class CommandIndex {
  public:
    static constexpr std::size_t kCapacity = 1000;
    static constexpr std::size_t kKeyLen = 64;
    // Longest first or second word a key is made of.
    static constexpr std::size_t kWordMax = 31;

    struct Entry {
        std::int32_t row;
        char key[kKeyLen];
    };

    explicit CommandIndex(const command_entry* table);

    // The position of the first entry whose key equals the line's key; 0 when
    // the line has no key or no entry has it.
    int lookup(const char* line, std::size_t length) const;

    const std::vector<Entry>& entries() const noexcept { return entries_; }

  private:
    bool contains(std::string_view key) const noexcept;
    void append(std::size_t row, std::string_view key);

    std::vector<Entry> entries_;
};

// Matches lines against one table. Each row's expression is compiled at its
// first try and kept for the lifetime of the matcher. Safe to share between
// threads.
class Matcher {
  public:
    explicit Matcher(const command_entry* table);
    ~Matcher();
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;

    // The row whose handler runs for the line on behalf of `uid`: the first
    // row from the key index position on that accepts it, or null when none
    // does or that row is root-only and `uid` is not root. Rows that could not
    // be tried are reported into `reports`.
    const command_entry* find(std::string_view line, uid_t uid, std::string& reports,
                              Keep keep = Keep::compiled) const;

    // The row found for the caller and what its handler made of the line.
    Match match(std::string_view line, const Caller& caller, Keep keep = Keep::compiled) const;

    int lookup(std::string_view line) const { return index_.lookup(line.data(), line.size()); }
    std::size_t rows() const noexcept { return rows_; }

  private:
    struct Compiled;
    // 0 on a match, REG_NOMATCH, or another regexec error; -1 when the row's
    // expression does not compile (reported into `reports`).
    int try_row(std::size_t row, const char* text, bool single_line, std::string& reports,
                Keep keep) const;

    const command_entry* table_;
    std::size_t rows_;
    CommandIndex index_;
    std::unique_ptr<Compiled[]> compiled_;
};

// The matcher over command_table used by match().
const Matcher& command_matcher();

// Help for `topic_text` (what followed "help" on the line) as seen by `uid`,
// over any table.
std::string help_text(const command_entry* table, std::string_view topic_text, uid_t uid);

}  // namespace tx::grammar
