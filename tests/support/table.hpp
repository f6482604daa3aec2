// The case files of the table-driven tests. A case file holds one case (or
// one step of a case) per line, fields separated by tabs; empty lines and
// lines that start with '#' are skipped. In a field \n, \r, \t and \0 stand
// for those bytes, \s for a blank (for a text that ends in one), \xHH for the
// byte of that hexadecimal value and \\ for a backslash. A field "@NAME"
// stands for the content of the file NAME in data/ beside the case file,
// without its last newline: a long input or expected text has a file of its
// own.
#pragma once

#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tx::test {

inline std::string unescape(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        if (c == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            const std::size_t at = std::string_view("nrt0s").find(c);
            out += at == std::string_view::npos ? c : "\n\r\t\0 "[at];
        }
    }
    return out;
}

using Row = std::vector<std::string>;

// The field itself, or the content of the data file it names.
inline std::string field_text(const std::string& table_path, const std::string& field) {
    if (field.size() < 2 || field[0] != '@' || field.find_first_of(" \t") != std::string::npos)
        return field;
    const std::string dir = table_path.substr(0, table_path.find_last_of('/') + 1);
    std::ifstream in(dir + "data/" + field.substr(1), std::ios::binary);
    if (!in) return field;
    std::string text{std::istreambuf_iterator<char>(in), {}};
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

// The rows of a case file, fields unescaped unless `raw` (for fields that are
// cut further before their escapes are read).
inline std::vector<Row> read_table(const std::string& path, bool raw = false) {
    std::ifstream in(path);
    std::vector<Row> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        Row& row = rows.emplace_back();
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');) {
            field = field_text(path, field);
            row.push_back(raw ? field : unescape(field));
        }
        if (line.back() == '\t') row.emplace_back();
    }
    return rows;
}

// A case of a file of named cases: each begins with a line "[name]", and the
// rows after it, up to the next name, are its own.
struct NamedCase {
    std::string name;
    std::vector<Row> rows;
};

// A failing parameterised test shows its case by name.
inline void PrintTo(const NamedCase& c, std::ostream* out) {
    *out << c.name;
}

inline std::vector<NamedCase> read_named_cases(const std::string& path) {
    std::vector<NamedCase> cases;
    for (Row& row : read_table(path)) {
        const std::string& first = row.front();
        if (row.size() == 1 && first.size() > 2 && first.front() == '[' && first.back() == ']') {
            cases.push_back({first.substr(1, first.size() - 2), {}});
        } else if (!cases.empty()) {
            cases.back().rows.push_back(std::move(row));
        }
    }
    return cases;
}

}  // namespace tx::test
