// The value a setting starts with, read off the help lines of its rows: the
// table is the one place that states it.
#include <cctype>

#include "regexparser.hpp"

namespace tx::grammar {

namespace {

// Whether the row is "get NAME" or "set NAME", with or without a value.
bool row_of_setting(const command_entry& row, std::string_view name) {
    const std::string_view help = row.help != nullptr ? row.help : "";
    for (const std::string_view verb : {"\"get ", "\"set "}) {
        if (!help.starts_with(verb)) continue;
        const std::string_view rest = help.substr(verb.size());
        if (rest.starts_with(name) && rest.size() > name.size() &&
            (rest[name.size()] == ' ' || rest[name.size()] == '"'))
            return true;
    }
    return false;
}

// "60s" and "30 minutes" state the number.
std::string_view number_of(std::string_view word) {
    const std::size_t end = word.find_first_not_of("-0123456789.");
    return word.substr(0, end);
}

}  // namespace

std::optional<std::string> stated_default(const command_entry& row) {
    const std::string_view help = row.help != nullptr ? row.help : "";
    // The statement ends the help line: "..., default 9." or, in one row,
    // "...  default is <0,0,100>".
    std::size_t at = std::string_view::npos;
    for (const std::string_view lead : {", default ", "  default "}) {
        const std::size_t found = help.rfind(lead);
        if (found != std::string_view::npos && (at == std::string_view::npos || found > at))
            at = found + lead.size();
    }
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view stated = help.substr(at);
    if (stated.ends_with('.')) stated.remove_suffix(1);
    if (stated.starts_with("is <") && stated.ends_with('>')) {
        // A value of several words, written with commas.
        std::string words(stated.substr(4, stated.size() - 5));
        for (char& c : words) c = c == ',' ? ' ' : c;
        return words;
    }
    std::string_view word = stated.substr(0, stated.find(' '));
    if (word == "empty") return std::string();
    if (word == "from") return std::nullopt;  // learnt by the device, as "from DHCP"
    if (!word.empty() && (std::isdigit(static_cast<unsigned char>(word[0])) != 0 ||
                          (word[0] == '-' && word.size() > 1)))
        word = number_of(word);
    if (word.ends_with('.')) word.remove_suffix(1);
    return std::string(word);
}

std::optional<std::string> stated_default(std::string_view name) {
    for (const command_entry& row : command_rows()) {
        if (!row_of_setting(row, name)) continue;
        if (std::optional<std::string> value = stated_default(row)) return value;
    }
    return std::nullopt;
}

}  // namespace tx::grammar
