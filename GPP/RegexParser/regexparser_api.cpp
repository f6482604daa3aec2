// The public face of the command grammar: the matcher, the key index and help
// over command_table, on behalf of the calling user.
#include <unistd.h>

#include "matcher_detail.hpp"
#include "regexparser.hpp"

namespace tx::grammar {

const Matcher& command_matcher() {
    // Built at the first line; the expressions compile as their rows are first tried.
    static const Matcher matcher(command_table);
    return matcher;
}

}  // namespace tx::grammar

int regexparser_match(const char* line, std::size_t length, RequestRecord* record) {
    return tx::grammar::command_matcher().match(line, length, record, getuid());
}

int command_index_lookup(const char* line, std::size_t length) {
    return tx::grammar::command_matcher().lookup(line, length);
}

void regexparser_help(const char* topic_text) {
    tx::grammar::print_help(command_table, topic_text, getuid());
}

void regexparser_help_usage() {
    tx::grammar::print_help_usage();
}
