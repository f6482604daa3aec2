// Settings read off the rows' words: a "get NAME [ID]" row and a
// "set NAME [ID] VALUE..." row make one setting.
#include "settings.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <set>

#include "completion.hpp"

namespace tx::grammar {

namespace {

bool is_verb_row(const RowWords& words, std::string_view verb) {
    return words.command_words == 2 && words.words.size() >= 2 && words.words[0].size() == 1 &&
           words.words[0].front() == verb;
}

// What the get row of a name reads: the ids it spells out after the name,
// none when it takes nothing after it.
struct Reader {
    const command_entry* row;
    std::vector<std::string> ids;
};

std::optional<Reader> reader_of(const command_entry& row, const RowWords& words) {
    if (!is_verb_row(words, "get") || words.more) return std::nullopt;
    if (words.words.size() == 2) return Reader{&row, {}};
    if (words.words.size() == 3 && !words.words[2].empty()) return Reader{&row, words.words[2]};
    return std::nullopt;
}

}  // namespace

bool holds_secret(std::string_view text) {
    std::string word;
    auto is_secret_word = [&word] {
        return std::ranges::find(kSecretWords, std::string_view(word)) != std::end(kSecretWords);
    };
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
            word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            continue;
        }
        if (is_secret_word()) return true;
        word.clear();
    }
    return is_secret_word();
}

std::vector<Setting> settings_of(std::span<const command_entry> rows, uid_t uid) {
    // Only the words of get and set rows are kept, and only until the end.
    struct Row {
        const command_entry* row;
        RowWords words;
    };
    std::vector<Row> getters;
    std::vector<Row> setters;
    for (const command_entry& row : rows) {
        RowWords words = row_words(row);
        if (is_verb_row(words, "get")) getters.push_back({&row, std::move(words)});
        // A value follows the name: a word, or free text ("set dial-plan ...").
        if (is_verb_row(words, "set") && (words.words.size() >= 3 || words.more)) {
            setters.push_back({&row, std::move(words)});
        }
    }

    std::map<std::string_view, Reader> readers;
    for (const Row& g : getters) {
        if (!row_allowed(*g.row, uid)) continue;
        if (auto reader = reader_of(*g.row, g.words)) {
            readers.try_emplace(g.words.words[1].front(), std::move(*reader));
        }
    }

    std::vector<Setting> settings;
    std::set<std::string_view> seen;
    for (const Row& r : setters) {
        const RowWords& w = r.words;
        const std::string_view name = w.words[1].front();
        const auto reader = readers.find(name);
        // A name's first set row decides, whoever may run it.
        if (reader == readers.end() || !seen.insert(name).second || !row_allowed(*r.row, uid)) {
            continue;
        }
        const std::vector<std::string>& ids = reader->second.ids;
        // With ids, the set row spells out the same ids before the value.
        const std::size_t value_word = ids.empty() ? 2 : 3;
        if (!ids.empty() && (w.words.size() < 4 || w.words[2] != ids)) continue;
        Setting& s = settings.emplace_back();
        s.name = name;
        s.get_row = reader->second.row;
        s.set_row = r.row;
        s.ids = ids;
        if (w.words.size() == value_word + 1 && !w.more) s.values = w.words[value_word];
        s.quoted_text = std::string_view(r.row->regex).find("\"[^\"]*\"") != std::string_view::npos;
        s.secret =
            holds_secret(s.name) || holds_secret(s.get_row->help) || holds_secret(s.set_row->help);
    }
    return settings;
}

std::vector<Setting> command_settings(uid_t uid) {
    return settings_of(command_rows(), uid);
}

}  // namespace tx::grammar
