// web-page: writes the settings page from the command table.
//
//   web-page --template FILE --output FILE
//
// Every setting that the operator may both read and change (a "get NAME" and
// a "set NAME" row) gets a line under its help topic: its current value, an
// input and a Set button. The template's @NAV@ and @SETTINGS@ are replaced.
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "completion.hpp"
#include "matcher_detail.hpp"
#include "property_map.hpp"
#include "regexparser.hpp"
#include "web_cgi.hpp"

namespace {

using tx::web::kOperatorUid;

struct Setting {
    std::string name;
    std::string key;  // the full property key that notifications carry
    const command_entry* set_row;
    std::vector<std::string> values;  // what the set row allows, when a fixed set
};

std::string html(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The setting a row reads or changes: "get NAME" or "set NAME ...".
std::string_view setting_of(const tx::grammar::RowWords& row, std::string_view verb) {
    if (row.command_words != 2 || row.words[0].front() != verb) return {};
    if (verb == "get" && row.words.size() != 2) return {};
    if (verb == "set" && row.words.size() < 3) return {};
    return row.words[1].front();
}

// Settings with both a get and a set row that the operator may run, by
// category, in table order of their set rows.
std::map<int, std::vector<Setting>> settings_by_category() {
    const std::vector<tx::grammar::RowWords>& rows = tx::grammar::command_row_words();
    std::set<std::string_view> readable;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        if (tx::grammar::row_allowed(command_table[row], kOperatorUid)) {
            readable.insert(setting_of(rows[row], "get"));
        }
    }
    std::map<int, std::vector<Setting>> settings;
    std::set<std::string_view> done;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const std::string_view name = setting_of(rows[row], "set");
        const command_entry& set_row = command_table[row];
        if (name.empty() || !readable.contains(name) || !done.insert(name).second ||
            !tx::grammar::row_allowed(set_row, kOperatorUid)) {
            continue;
        }
        const char* key = property_key_for_name(name);
        // A single value spelled out as a fixed set gets a select.
        const bool one_value = rows[row].words.size() == 3 && !rows[row].more;
        settings[set_row.category].push_back(
            {std::string(name), key != nullptr ? key : std::string(name), &set_row,
             one_value ? rows[row].words[2] : std::vector<std::string>{}});
    }
    return settings;
}

void write_input(std::ostream& out, const Setting& setting) {
    const std::string help = html(setting.set_row->help);
    if (setting.values.empty()) {
        out << "<input name=\"value\" placeholder=\"" << help << "\" title=\"" << help << "\">";
        return;
    }
    out << "<select name=\"value\" title=\"" << help << "\">";
    for (const std::string& value : setting.values) out << "<option>" << html(value) << "</option>";
    out << "</select>";
}

void write_setting(std::ostream& out, const Setting& setting) {
    out << "<tr class=\"setting\" id=\"setting-" << html(setting.name) << "\" data-name=\""
        << html(setting.name) << "\" data-key=\"" << html(setting.key) << "\"><th>"
        << html(setting.name)
        << "</th><td class=\"value\"></td><td class=\"input\"><form class=\"set\">";
    write_input(out, setting);
    out << "<button type=\"submit\">Set</button></form></td><td class=\"reply\"></td></tr>\n";
}

void write_page(std::ostream& out, std::string page) {
    const auto settings = settings_by_category();
    std::ostringstream nav;
    std::ostringstream sections;
    nav << "<nav>";
    // Each topic that lists one category, in the order help knows them.
    for (const tx::grammar::TopicRange& topic : tx::grammar::help_topics()) {
        const auto found = settings.find(topic.low);
        if (topic.low != topic.high || found == settings.end()) continue;
        const std::string name = html(topic.topic);
        nav << "<a href=\"#topic-" << name << "\">" << name << "</a>";
        sections << "<section id=\"topic-" << name << "\"><h2>" << name << "</h2><table>\n";
        for (const Setting& setting : found->second) write_setting(sections, setting);
        sections << "</table></section>\n";
    }
    nav << "</nav>";
    for (const auto& [mark, text] :
         {std::pair{"@NAV@", nav.str()}, {"@SETTINGS@", sections.str()}}) {
        const std::size_t at = page.find(mark);
        if (at != std::string::npos) page.replace(at, std::string_view(mark).size(), text);
    }
    out << page;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    if (args.size() != 4 || args[0] != "--template" || args[2] != "--output") {
        std::cerr << "usage: web-page --template FILE --output FILE\n";
        return 2;
    }
    std::ifstream in(std::string(args[1]), std::ios::binary);
    const std::string page{std::istreambuf_iterator<char>(in), {}};
    std::ofstream out(std::string(args[3]), std::ios::binary | std::ios::trunc);
    write_page(out, page);
    out.close();
    if (!in.is_open() || page.empty() || !out) {
        std::cerr << "web-page: cannot read " << args[1] << " or write " << args[3] << '\n';
        return 1;
    }
    return 0;
}
