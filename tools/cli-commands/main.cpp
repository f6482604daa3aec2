// Lists the command table.
//
//   cli-commands                     one tab-separated line per row: row,
//                                    category, handler, expression, help
//   cli-commands --markdown          the command reference in Markdown
//   cli-commands --markdown --output FILE
//                                    writes the reference to FILE
//   cli-commands --markdown --check FILE
//                                    exit status 1 when FILE differs from
//                                    the reference the table gives now
//   cli-commands --man [--output FILE]
//                                    the reference as the roff body of the
//                                    manual page's COMMANDS section
//   cli-commands --settings          the settings txconfig covers, one
//                                    tab-separated line each: name, who may
//                                    read and change it, secret, VoIP only
//   cli-commands --settings-man [--output FILE]
//                                    the same as the roff body of txconfig's
//                                    manual page's SETTINGS section
#include <getopt.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "regexparser.hpp"
#include "settings.hpp"

namespace {

using namespace tx::grammar;

struct topic {
    int category;
    std::string_view title;
};

// Each category of its own topic in the order help lists them, then the rows
// help never lists.
std::vector<topic> topics() {
    std::vector<topic> out;
    for (const TopicRange& t : help_topics()) {
        if (t.low == t.high) out.push_back({t.low, t.topic});
    }
    out.push_back({kUnlisted, "not listed by help"});
    out.push_back({kRootUnlisted, "not listed by help"});
    return out;
}

const char* who(const topic& t) {
    return is_root_only(t.category) ? "root only" : "everyone";
}

const char* name_of(command_handler handler) {
    const char* name = command_handler_name(handler);
    return name != nullptr ? name : "?";
}

void print_rows(std::ostream& out) {
    for (int row = 0; command_table[row].handler != nullptr; ++row) {
        const command_entry& entry = command_table[row];
        out << row << '\t' << entry.category << '\t' << name_of(entry.handler) << '\t'
            << entry.regex << '\t' << entry.help << '\n';
    }
}

// Inside a table cell a '|' ends the cell, even within a code span.
std::string cell(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == '|') out += '\\';
        out += c;
    }
    return out;
}

// Plain text in a cell: Markdown punctuation shown as itself.
std::string text(std::string_view plain) {
    std::string out;
    for (char c : plain) {
        if (std::string_view("\\`*_<>[]|").find(c) != std::string_view::npos) out += '\\';
        out += c;
    }
    return out;
}

// Backtick fence long enough for the text, padded when the text touches it.
std::string code(std::string_view text) {
    std::string fence = "`";
    while (text.find(fence) != std::string_view::npos) fence += '`';
    const bool pad = !text.empty() && (text.front() == '`' || text.back() == '`' ||
                                       text.front() == ' ' || text.back() == ' ');
    std::string out = fence;
    if (pad) out += ' ';
    out += cell(text);
    if (pad) out += ' ';
    out += fence;
    return out;
}

// "\"syntax\" - description" split into its two parts; texts that do not
// follow the pattern are shown whole as the description.
void split_help(std::string_view help, std::string_view& syntax, std::string_view& description) {
    syntax = {};
    description = help;
    if (help.empty() || help.front() != '"') return;
    const auto close = help.find('"', 1);
    if (close == std::string_view::npos) return;
    syntax = help.substr(1, close - 1);
    description = help.substr(close + 1);
    if (description.starts_with(" - ")) description.remove_prefix(3);
}

void print_markdown(std::ostream& out) {
    int rows = 0;
    while (command_table[rows].handler != nullptr) ++rows;

    out << "# Console commands\n\n"
        << "Generated from the command table by `cli-commands --markdown` (build target\n"
        << "`commands_doc`); do not edit by hand.\n\n"
        << "The table has " << rows << " rows. A line is checked against the rows in table\n"
        << "order and the first matching row wins. Expressions are POSIX extended regular\n"
        << "expressions; one without a closing `$` is a prefix whose handler reads the rest\n"
        << "of the line. Values that may hold blanks are written as one double-quoted group.\n";

    for (const topic& t : topics()) {
        out << "\n## Category " << t.category << ": " << t.title << " (" << who(t) << ")\n\n";
        int count = 0;
        std::ostringstream body;
        for (int row = 0; row < rows; ++row) {
            const command_entry& entry = command_table[row];
            if (entry.category != t.category) continue;
            ++count;
            std::string_view syntax;
            std::string_view description;
            split_help(entry.help != nullptr ? entry.help : "", syntax, description);
            body << "| " << row << " | " << code(syntax) << " | " << text(description) << " | "
                 << code(name_of(entry.handler)) << " | " << code(entry.regex) << " |\n";
        }
        if (count == 0) {
            out << "No commands.\n";
            continue;
        }
        out << count << (count == 1 ? " row.\n\n" : " rows.\n\n")
            << "| Row | Command | Description | Handler | Expression |\n"
            << "|---:|---|---|---|---|\n"
            << body.str();
    }
}

// What a configuration holds (txconfig): the settings root may read and
// change, and which of them every other account may too (the grammar tells
// root from the rest; 1001 is the device's operator).
constexpr uid_t kOperatorUid = 1001;

struct ConfigSetting {
    const Setting* setting;
    bool everyone;
    bool voip;
};

std::vector<ConfigSetting> config_settings(const std::vector<Setting>& root) {
    std::set<std::string> everyone;
    for (const Setting& s : command_settings(kOperatorUid)) everyone.insert(s.name);
    std::vector<ConfigSetting> out;
    for (const Setting& s : root) {
        out.push_back(
            {&s, everyone.contains(s.name), voip_only(*s.get_row) || voip_only(*s.set_row)});
    }
    return out;
}

const char* who(const ConfigSetting& c) {
    return c.everyone ? "everyone" : "root only";
}

void print_settings(std::ostream& out) {
    const std::vector<Setting> root = command_settings(0);
    for (const ConfigSetting& c : config_settings(root)) {
        out << c.setting->name << '\t' << who(c) << '\t' << (c.setting->secret ? "secret" : "-")
            << '\t' << (c.voip ? "voip" : "-") << '\n';
    }
}

void print_settings_markdown(std::ostream& out) {
    const std::vector<Setting> root = command_settings(0);
    const std::vector<ConfigSetting> settings = config_settings(root);
    out << "\n## Settings in a configuration (txconfig)\n\n"
        << "`txconfig show` prints, and `txconfig apply` takes, one `set` line for each of\n"
        << "these " << settings.size() << " settings: those with a `get` and a `set` row. "
        << "An account other than root\ngets those that everyone may read and change. "
        << "Secrets are left out of `show`\nunless root asks for them with `--with-secrets`; "
        << "a device without VoIP has no\nVoIP settings.\n\n"
        << "| Setting | Read and changed by | Secret | VoIP devices only | Set line |\n"
        << "|---|---|---|---|---|\n";
    for (const ConfigSetting& c : settings) {
        std::string_view syntax;
        std::string_view description;
        split_help(c.setting->set_row->help, syntax, description);
        out << "| " << code(c.setting->name) << " | " << who(c) << " | "
            << (c.setting->secret ? "yes" : "") << " | " << (c.voip ? "yes" : "") << " | "
            << code(syntax) << " |\n";
    }
}

// Roff text: backslashes shown as themselves, hyphens as the minus sign that
// can be copied back to a terminal, and no line that starts a request.
std::string roff(std::string_view plain) {
    std::string out;
    if (!plain.empty() && (plain.front() == '.' || plain.front() == '\'')) out += "\\&";
    for (char c : plain) {
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            out += c;
        }
    }
    return out;
}

void print_man(std::ostream& out) {
    out << ".\\\" Generated from the command table by cli-commands --man.\n";
    for (const topic& t : topics()) {
        std::ostringstream body;
        for (int row = 0; command_table[row].handler != nullptr; ++row) {
            const command_entry& entry = command_table[row];
            if (entry.category != t.category) continue;
            std::string_view syntax;
            std::string_view description;
            split_help(entry.help != nullptr ? entry.help : "", syntax, description);
            body << ".TP\n\\fB" << roff(syntax) << "\\fR\n" << roff(description) << '\n';
        }
        if (body.str().empty()) continue;
        out << ".SS \"" << t.title << " (category " << t.category << ", " << who(t) << ")\"\n"
            << body.str();
    }
}

void print_settings_man(std::ostream& out) {
    out << ".\\\" Generated from the command table by cli-commands --settings-man.\n";
    const std::vector<Setting> root = command_settings(0);
    for (const ConfigSetting& c : config_settings(root)) {
        std::string_view syntax;
        std::string_view description;
        split_help(c.setting->set_row->help, syntax, description);
        std::string notes = who(c);
        if (c.setting->secret) notes += ", secret";
        if (c.voip) notes += ", VoIP devices only";
        out << ".TP\n\\fB" << roff(c.setting->name) << "\\fR (" << notes << ")\n"
            << roff(syntax) << '\n';
    }
}

int usage() {
    std::cerr << "usage: cli-commands [--markdown [--output FILE | --check FILE] |"
                 " --man [--output FILE] | --settings | --settings-man [--output FILE]]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool markdown = false;
    bool man = false;
    bool settings = false;
    bool settings_man = false;
    std::string output;
    std::string check;
    constexpr option kOptions[] = {{"markdown", no_argument, nullptr, 'm'},
                                   {"man", no_argument, nullptr, 'n'},
                                   {"settings", no_argument, nullptr, 's'},
                                   {"settings-man", no_argument, nullptr, 'S'},
                                   {"output", required_argument, nullptr, 'o'},
                                   {"check", required_argument, nullptr, 'c'},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;  // the usage line says it all
    for (int o; (o = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (o == 'm') {
            markdown = true;
        } else if (o == 'n') {
            man = true;
        } else if (o == 's') {
            settings = true;
        } else if (o == 'S') {
            settings_man = true;
        } else if (o == 'o' || o == 'c') {
            (o == 'o' ? output : check) = optarg;
        } else {
            return usage();
        }
    }
    if (optind != argc) return usage();
    if (markdown + man + settings + settings_man > 1) return usage();
    if ((man || settings_man) && !check.empty()) return usage();
    if (settings) {
        if (!output.empty() || !check.empty()) return usage();
        print_settings(std::cout);
        return std::cout.good() ? 0 : 1;
    }
    man = man || settings_man;
    if (!markdown && !man) {
        if (!output.empty() || !check.empty()) return usage();
        print_rows(std::cout);
        return std::cout.good() ? 0 : 1;
    }
    if (!output.empty() && !check.empty()) return usage();

    std::ostringstream text;
    if (settings_man) {
        print_settings_man(text);
    } else if (man) {
        print_man(text);
    } else {
        print_markdown(text);
        print_settings_markdown(text);
    }
    if (!check.empty()) {
        std::ifstream in(check, std::ios::binary);
        if (!in) {
            std::cerr << "cli-commands: cannot read " << check << '\n';
            return 1;
        }
        const std::string current{std::istreambuf_iterator<char>(in), {}};
        if (current != text.str()) {
            std::cerr << "cli-commands: " << check
                      << " is out of date; rebuild it with the commands_doc target\n";
            return 1;
        }
        return 0;
    }
    if (!output.empty()) {
        std::ofstream out(output, std::ios::binary | std::ios::trunc);
        out << text.str();
        out.close();
        if (!out) {
            std::cerr << "cli-commands: cannot write " << output << '\n';
            return 1;
        }
        return 0;
    }
    std::cout << text.str();
    return std::cout.good() ? 0 : 1;
}
