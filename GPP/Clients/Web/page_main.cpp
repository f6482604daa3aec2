// web-page: writes the settings page from the command table.
//
//   web-page --template FILE --output FILE
//
// Every setting that the operator may both read and change (a "get NAME" and
// a "set NAME" row) gets a line under its help topic: its current value, an
// input and a Set button. The template's @NAV@ and @SETTINGS@ are replaced.
#include <getopt.h>

#include <deque>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fixed_text.hpp"
#include "property_map.hpp"
#include "regexparser.hpp"
#include "settings.hpp"
#include "web_cgi.hpp"
#include "xmltree.hpp"

namespace {

using tx::web::kOperatorUid;

struct Setting {
    std::string name;
    std::string key;  // the full property key that notifications carry
    const command_entry* set_row;
    std::vector<std::string> values;  // what the set row allows, when a fixed set
};

// Markup built as a tree and rendered by the XML library, which escapes
// whatever the table's texts hold. The tree borrows its strings: they are
// kept here until it has been rendered.
class Markup {
  public:
    using Attributes = std::initializer_list<std::pair<const char*, std::string_view>>;

    explicit Markup(const char* root) : doc_(xml_new(root)) {}

    XmlNode* root() const { return doc_.get(); }

    XmlNode* add(XmlNode* parent, const char* name, Attributes attributes = {},
                 std::string_view text = {}) {
        XmlNode* node = xml_add_child(parent, name, 0);
        if (!text.empty()) xml_set_text(node, keep(text));
        for (const auto& [attribute, value] : attributes)
            xml_set_attr(node, attribute, keep(value));
        return node;
    }

    std::string render() const {
        const tx::HeapText text{xml_render(doc_.get())};
        std::string html = text ? text.get() : "";
        // An input is a void element in HTML: it takes no end tag.
        for (std::size_t at = html.find("</input>"); at != std::string::npos;
             at = html.find("</input>", at)) {
            html.erase(at, std::string_view("</input>").size());
        }
        return html;
    }

  private:
    const char* keep(std::string_view text) { return kept_.emplace_back(text).c_str(); }

    XmlDocumentPtr doc_;
    std::deque<std::string> kept_;
};

// Settings the operator may both read and change, by category, in table
// order of their set rows. A setting read by id has no place on the page.
std::map<int, std::vector<Setting>> settings_by_category() {
    std::map<int, std::vector<Setting>> settings;
    for (tx::grammar::Setting& setting : tx::grammar::command_settings(kOperatorUid)) {
        if (!setting.ids.empty()) continue;
        const char* key = property_key_for_name(setting.name);
        const command_entry* set_row = setting.set_row;
        settings[set_row->category].push_back({setting.name, key != nullptr ? key : setting.name,
                                               set_row, std::move(setting.values)});
    }
    return settings;
}

void add_setting(Markup& markup, XmlNode* table, const Setting& setting) {
    const std::string id = "setting-" + setting.name;
    XmlNode* row = markup.add(
        table, "tr",
        {{"class", "setting"}, {"id", id}, {"data-name", setting.name}, {"data-key", setting.key}});
    markup.add(row, "th", {}, setting.name);
    markup.add(row, "td", {{"class", "value"}});
    XmlNode* form =
        markup.add(markup.add(row, "td", {{"class", "input"}}), "form", {{"class", "set"}});
    const std::string_view help = setting.set_row->help;
    if (setting.values.empty()) {
        markup.add(form, "input", {{"name", "value"}, {"placeholder", help}, {"title", help}});
    } else {
        XmlNode* select = markup.add(form, "select", {{"name", "value"}, {"title", help}});
        for (const std::string& value : setting.values) markup.add(select, "option", {}, value);
    }
    markup.add(form, "button", {{"type", "submit"}}, "Set");
    markup.add(row, "td", {{"class", "reply"}});
}

void write_page(std::ostream& out, std::string page) {
    const auto settings = settings_by_category();
    Markup nav("nav");
    Markup sections("div");
    // The lines' state heads the page, in the template.
    nav.add(nav.root(), "a", {{"href", "#topic-calls"}}, "calls");
    // Each topic that lists one category, in the order help knows them.
    for (const tx::grammar::TopicRange& topic : tx::grammar::help_topics()) {
        const auto found = settings.find(topic.low);
        if (topic.low != topic.high || found == settings.end()) continue;
        const std::string anchor = "topic-" + std::string(topic.topic);
        nav.add(nav.root(), "a", {{"href", "#" + anchor}}, topic.topic);
        XmlNode* section = sections.add(sections.root(), "section", {{"id", anchor}});
        sections.add(section, "h2", {}, topic.topic);
        XmlNode* table = sections.add(section, "table");
        for (const Setting& setting : found->second) add_setting(sections, table, setting);
    }
    for (const auto& [mark, text] :
         {std::pair{"@NAV@", nav.render()}, {"@SETTINGS@", sections.render()}}) {
        const std::size_t at = page.find(mark);
        if (at != std::string::npos) page.replace(at, std::string_view(mark).size(), text);
    }
    out << page;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr option kOptions[] = {{"template", required_argument, nullptr, 't'},
                                   {"output", required_argument, nullptr, 'o'},
                                   {nullptr, 0, nullptr, 0}};
    std::string template_path;
    std::string output_path;
    opterr = 0;  // the usage line says it all
    for (int o; (o = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (o == 't') {
            template_path = optarg;
        } else if (o == 'o') {
            output_path = optarg;
        } else {
            template_path.clear();
            break;
        }
    }
    if (template_path.empty() || output_path.empty() || optind != argc) {
        std::cerr << "usage: web-page --template FILE --output FILE\n";
        return 2;
    }
    std::ifstream in(template_path, std::ios::binary);
    const std::string page{std::istreambuf_iterator<char>(in), {}};
    std::ofstream out(output_path, std::ios::binary | std::ios::trunc);
    write_page(out, page);
    out.close();
    if (!in.is_open() || page.empty() || !out) {
        std::cerr << "web-page: cannot read " << template_path << " or write " << output_path
                  << '\n';
        return 1;
    }
    return 0;
}
