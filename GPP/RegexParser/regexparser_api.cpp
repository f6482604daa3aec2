// The public face of the command grammar: the matcher and help over
// command_table.
#include <cstddef>
#include <new>

#include "matcher_detail.hpp"
#include "regexparser.hpp"

namespace tx::grammar {

const Matcher& command_matcher() {
    // Built at the first line; the expressions compile as their rows are first
    // tried. Never destroyed: a thread that ends the process (cli leaving on
    // SIGINT) must not take it away from a thread that may still match.
    static const Matcher* const matcher = [] {
        alignas(Matcher) static std::byte storage[sizeof(Matcher)];
        return ::new (storage) Matcher(command_table);
    }();
    return *matcher;
}

Match match(std::string_view line, const Caller& caller, Keep keep) {
    return command_matcher().match(line, caller, keep);
}

std::string help_text(std::string_view topic_text, uid_t uid) {
    return help_text(command_table, topic_text, uid);
}

std::span<const command_entry> command_rows() noexcept {
    return {command_table, command_matcher().rows()};
}

}  // namespace tx::grammar
