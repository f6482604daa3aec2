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
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "matcher_detail.hpp"
#include "property_map.hpp"
#include "regexparser.hpp"

namespace {

// The help topics, by category, in the order help lists them.
constexpr const char* kTopics[] = {"",   "sys",  "audio", "call", "net",
                                   "bt", "bm64", "ble",   "cam",  "voip"};
constexpr int kFirstTopic = 1;
constexpr int kLastTopic = 9;

struct Setting {
    std::string name;
    std::string key;  // the full property key that notifications carry
    const command_entry* set_row;
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

bool operator_may_run(const command_entry& row) {
    return row.category >= kFirstTopic && row.category <= kLastTopic;
}

// Settings with both a get and a set row that the operator may run, by
// topic, in table order of their set rows.
std::map<int, std::vector<Setting>> settings_by_topic() {
    const tx::grammar::CommandIndex index(command_table);
    std::map<std::string, int, std::less<>> rows;
    for (const auto& entry : index.entries()) rows.emplace(entry.key, entry.row);
    std::map<int, std::vector<Setting>> topics;
    for (const auto& entry : index.entries()) {
        const std::string_view key = entry.key;
        if (!key.starts_with("set_")) continue;
        const std::string name(key.substr(4));
        const auto get = rows.find("get_" + name);
        const command_entry& set_row = command_table[entry.row];
        if (get == rows.end() || !operator_may_run(set_row) ||
            !operator_may_run(command_table[get->second])) {
            continue;
        }
        const char* full_key = property_key_for_name(name);
        topics[set_row.category].push_back({name, full_key != nullptr ? full_key : name, &set_row});
    }
    return topics;
}

void write_setting(std::ostream& out, const Setting& setting) {
    const std::string help = html(setting.set_row->help);
    out << "<tr class=\"setting\" id=\"setting-" << html(setting.name) << "\" data-name=\""
        << html(setting.name) << "\" data-key=\"" << html(setting.key) << "\">"
        << "<th>" << html(setting.name)
        << "</th><td class=\"value\"></td><td class=\"input\"><form class=\"set\">"
        << "<input name=\"value\" placeholder=\"" << help << "\" title=\"" << help << "\">"
        << "<button type=\"submit\">Set</button></form></td><td class=\"reply\"></td></tr>\n";
}

void write_page(std::ostream& out, std::string page) {
    const auto topics = settings_by_topic();
    std::ostringstream nav;
    std::ostringstream sections;
    nav << "<nav>";
    for (const auto& [category, settings] : topics) {
        const std::string topic = kTopics[category];
        nav << "<a href=\"#topic-" << topic << "\">" << topic << "</a>";
        sections << "<section id=\"topic-" << topic << "\"><h2>" << topic << "</h2><table>\n";
        for (const Setting& setting : settings) write_setting(sections, setting);
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
