// The device's settings as the command table shows them: every setting that an
// account may both read ("get NAME") and change ("set NAME VALUE"). The
// settings page offers these, and txconfig prints and applies them as one
// configuration text; neither lists them again.
#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "regexparser.hpp"

namespace tx::grammar {

struct Setting {
    std::string name;
    const command_entry* get_row = nullptr;  // the name's first get row
    const command_entry* set_row = nullptr;  // the name's first set row
    // Where both rows take an id after the name (a line, a microphone), the
    // ids the get row spells out; the setting has a value for each.
    std::vector<std::string> ids;
    // The values the set row spells out for its one value word ("0" and "1"
    // for [0-1]); empty where it takes a range or free text.
    std::vector<std::string> values;
    // The set row takes one word or one double-quoted text, which may hold
    // blanks.
    bool quoted_text = false;
    // The value is a secret (see holds_secret) and is not shown by default.
    bool secret = false;
};

// The words that make a setting a secret when its name or the help text of
// its get or set row holds one (whole words, any case): passwords and the
// MD5 sum of one, PINs, keys, and the SNMP community, which is a password
// in all but name.
inline constexpr std::string_view kSecretWords[] = {"password", "passwd", "pin",
                                                    "key",      "secret", "community"};

// Whether a text holds one of kSecretWords as a word.
bool holds_secret(std::string_view text);

// The settings of a table that `uid` may both read and change, in the table
// order of their set rows.
std::vector<Setting> settings_of(std::span<const command_entry> rows, uid_t uid);

// settings_of the command table.
std::vector<Setting> command_settings(uid_t uid);

}  // namespace tx::grammar
