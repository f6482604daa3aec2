// The configuration text: set lines built from the device's values and
// checked against the grammar, files checked line by line, and the changes
// they make.
#include <algorithm>
#include <map>
#include <string>

#include "config_client.hpp"
#include "fixed_text.hpp"
#include "xml_messages.hpp"

namespace tx::config {

namespace {

using tx::grammar::Keep;
using tx::grammar::Setting;

// What cli and every other client send at most: a request that does not fit
// is not sent.
constexpr std::size_t kRequestTextLen = 256;
constexpr std::string_view kSecretShown = "(secret)";

// The value a set request carries.
std::string request_value(const RequestRecord& record) {
    if (record.value_mode == REQUEST_MODE_SINGLE)
        return std::string(field_view(record.values.single));
    if (record.value_mode != REQUEST_MODE_LIST) return {};
    std::string value;
    for (const RecordSlot& slot : record.values.slots) {
        if (slot.name[0] == '\0') continue;
        if (!value.empty()) value += ' ';
        value += field_view(slot.value);
    }
    return value;
}

std::string_view trim_blanks(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// The n-th blank-separated word of a line.
std::string_view word_of(std::string_view line, std::size_t n) {
    std::size_t at = 0;
    for (std::size_t i = 0;; ++i) {
        at = line.find_first_not_of(' ', at);
        if (at == std::string_view::npos) return {};
        const std::size_t end = std::min(line.find(' ', at), line.size());
        if (i == n) return line.substr(at, end - at);
        at = end;
    }
}

std::string label(const Setting& setting, std::string_view id) {
    std::string text = setting.name;
    if (!id.empty()) text.append(" ").append(id);
    return text;
}

std::string value_shown(const Setting& setting, std::string_view value, bool with_secrets) {
    return setting.secret && !with_secrets ? std::string(kSecretShown) : shown(value);
}

std::string change_text(const Change& change, bool with_secrets) {
    const Assignment& a = *change.assignment;
    return label(*a.setting, a.id) + " " + value_shown(*a.setting, change.now, with_secrets) +
           " -> " + value_shown(*a.setting, a.value, with_secrets);
}

std::vector<std::string> ids_of(const Setting& setting) {
    return setting.ids.empty() ? std::vector<std::string>{""} : setting.ids;
}

}  // namespace

std::string line_shown(std::string_view line) {
    std::string_view command = line;
    if (const std::string_view second = word_of(line, 1); !second.empty()) {
        command =
            line.substr(0, static_cast<std::size_t>(second.data() - line.data()) + second.size());
    }
    if (!tx::grammar::holds_secret(command)) return std::string(line);
    return std::string(command) + " ...";
}

bool make_request(const RequestRecord& record, Request& request) {
    char xml[kRequestTextLen] = {};
    generate_xml_request(record, xml);
    request = {std::string(field_view(record.property)), std::string(field_view(record.target)),
               xml};
    return xml[0] != '\0';
}

Configuration::Configuration(const tx::grammar::Caller& caller)
    : caller_(caller), settings_(tx::grammar::command_settings(caller.uid)) {
    if (caller.voip) return;
    std::erase_if(settings_, [this](const Setting& s) {
        const bool voip = tx::grammar::voip_only(*s.get_row) || tx::grammar::voip_only(*s.set_row);
        if (voip) voip_left_out_.push_back(s.name);
        return voip;
    });
}

bool Configuration::get_request(const Setting& setting, std::string_view id,
                                Request& request) const {
    const tx::grammar::Match match =
        tx::grammar::match("get " + label(setting, id), caller_, Keep::nothing);
    return match.accepted() && make_request(match.record, request);
}

std::string Configuration::set_line(const Setting& setting, std::string_view id,
                                    std::string_view value) const {
    // A line holds no line end, and the grammar stops at a NUL.
    if (value.find_first_of(std::string_view("\n\r\0", 3)) != std::string_view::npos) return {};
    const std::string start = "set " + label(setting, id);
    const std::string bare = start + " " + std::string(value);
    const std::string quoted = start + " \"" + std::string(value) + "\"";
    std::vector<std::string> candidates;
    if (value.empty()) {
        candidates = {quoted, start};
    } else if (setting.quoted_text) {
        candidates = {quoted, bare};
    } else {
        candidates = {bare, quoted};
    }
    for (const std::string& line : candidates) {
        if (!tx::grammar::row_accepts(*setting.set_row, line)) continue;
        const tx::grammar::Match match = tx::grammar::match(line, caller_, Keep::nothing);
        Request request;
        if (match.accepted() && match.row == setting.set_row &&
            request_value(match.record) == value && make_request(match.record, request)) {
            return line;
        }
    }
    return {};
}

bool Configuration::read(Device& device, bool with_secrets, Running& running,
                         std::string& error) const {
    running = {};
    std::vector<Request> requests;
    requests.reserve(settings_.size());
    running.values.reserve(settings_.size());
    for (const Setting& setting : settings_) {
        if (setting.secret && !with_secrets) {
            running.secrets_left_out.push_back(setting.name);
            continue;
        }
        for (const std::string& id : ids_of(setting)) {
            Request request;
            if (!get_request(setting, id, request)) continue;
            requests.push_back(request);
            running.values.push_back({&setting, id, {}});
        }
    }
    const std::vector<Answer> answers = device.exchange(requests);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (!answers[i].answered) {
            error = device.failure();
            return false;
        }
        running.values[i].value = answers[i].value;
    }
    return true;
}

std::string Configuration::text(const Running& running) const {
    std::string out = "# TX-416 configuration: the set lines that give it back (txconfig apply)\n";
    auto list = [&out](std::string_view what, const std::vector<std::string>& names) {
        if (names.empty()) return;
        out.append("# left out, ").append(what).append(":");
        for (const std::string& name : names) out.append(" ").append(name);
        out += '\n';
    };
    list("secrets (root sees them with --with-secrets)", running.secrets_left_out);
    list("VoIP settings (this device has no VoIP)", voip_left_out_);
    for (const SettingValue& v : running.values) {
        const std::string line = set_line(*v.setting, v.id, v.value);
        if (line.empty()) {
            out.append("# ").append(label(*v.setting, v.id)).append(": the device holds ");
            out.append(shown(v.value)).append(", which no set line gives back\n");
        } else {
            out.append(line).append("\n");
        }
    }
    return out;
}

std::string Configuration::json(const Running& running) const {
    std::string out = "{\n  \"settings\": {";
    const char* separator = "\n";
    for (std::size_t i = 0; i < running.values.size();) {
        const Setting* setting = running.values[i].setting;
        out.append(separator).append("    ").append(json_string(setting->name)).append(": ");
        separator = ",\n";
        if (setting->ids.empty()) {
            out += json_string(running.values[i++].value);
            continue;
        }
        // A setting read by id: its values by id.
        out += '{';
        for (std::size_t first = i;
             i < running.values.size() && running.values[i].setting == setting; ++i) {
            out.append(i == first ? "" : ", ").append(json_string(running.values[i].id));
            out.append(": ").append(json_string(running.values[i].value));
        }
        out += '}';
    }
    auto list = [&out](std::string_view key, const std::vector<std::string>& names) {
        out.append(",\n  ").append(json_string(key)).append(": [");
        for (std::size_t i = 0; i < names.size(); ++i) {
            out.append(i == 0 ? "" : ", ").append(json_string(names[i]));
        }
        out += ']';
    };
    out += "\n  }";
    list("secrets_left_out", running.secrets_left_out);
    list("voip_left_out", voip_left_out_);
    return out + "\n}\n";
}

bool Configuration::check(std::string_view text, std::string_view file_name,
                          std::vector<Assignment>& assignments,
                          std::vector<std::string>& errors) const {
    std::map<const command_entry*, const Setting*> by_row;
    for (const Setting& s : settings_) by_row.emplace(s.set_row, &s);
    std::map<std::string, std::size_t> first_line;
    std::size_t number = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        ++number;
        if (line.ends_with('\r')) line.remove_suffix(1);
        const std::string_view content = trim_blanks(line);
        if (content.empty() || content.front() == '#') continue;

        auto refuse = [&](std::string_view reason) {
            errors.push_back(std::string(file_name) + ":" + std::to_string(number) + ": " +
                             std::string(reason));
        };
        if (line.find('\0') != std::string_view::npos) {
            refuse("holds a NUL byte");
            continue;
        }
        const tx::grammar::Match match = tx::grammar::match(line, caller_, Keep::nothing);
        if (match.row == nullptr) {
            const bool root_only =
                caller_.uid != 0 &&
                tx::grammar::match(line, {0, caller_.voip}, Keep::nothing).row != nullptr;
            refuse(root_only ? "root only: this account may not run it"
                             : std::string(tx::grammar::kSyntaxError) + ": " + line_shown(content));
            continue;
        }
        if (!match.refusal.empty()) {
            refuse(match.refusal + " (this device has no VoIP)");
            continue;
        }
        const auto found = by_row.find(match.row);
        if (found == by_row.end()) {
            refuse("not a setting that txconfig reads back: " + line_shown(content));
            continue;
        }
        const Setting& setting = *found->second;
        Assignment a;
        a.line = number;
        a.text = std::string(line);
        a.setting = &setting;
        a.id = setting.ids.empty() ? "" : std::string(word_of(line, 2));
        a.value = request_value(match.record);
        if (!make_request(match.record, a.request)) {
            refuse("too long for one request");
            continue;
        }
        const auto [previous, first] = first_line.emplace(label(setting, a.id), number);
        if (!first) {
            refuse(previous->first + " is set twice, first on line " +
                   std::to_string(previous->second));
            continue;
        }
        assignments.push_back(std::move(a));
    }
    return errors.empty();
}

bool Configuration::changes(Device& device, const std::vector<Assignment>& assignments,
                            std::vector<Change>& changes, std::string& error) const {
    std::vector<Request> requests(assignments.size());
    for (std::size_t i = 0; i < assignments.size(); ++i) {
        if (!get_request(*assignments[i].setting, assignments[i].id, requests[i])) {
            error = "cannot read " + label(*assignments[i].setting, assignments[i].id);
            return false;
        }
    }
    const std::vector<Answer> answers = device.exchange(requests);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (!answers[i].answered) {
            error = device.failure();
            return false;
        }
        if (answers[i].value != assignments[i].value) {
            changes.push_back({&assignments[i], answers[i].value});
        }
    }
    return true;
}

std::vector<Result> Configuration::apply(Device& device, const std::vector<Change>& changes,
                                         std::string& error) const {
    // Each change is read back right behind its set: the device answers
    // both in order.
    std::vector<Request> requests;
    requests.reserve(2 * changes.size());
    for (const Change& change : changes) {
        const Assignment& a = *change.assignment;
        requests.push_back(a.request);
        if (!get_request(*a.setting, a.id, requests.emplace_back())) {
            error = "cannot read " + label(*a.setting, a.id) + " back";
            return {};
        }
    }
    const std::vector<Answer> answers = device.exchange(requests);
    std::vector<Result> results(changes.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        Result& r = results[i];
        r.change = &changes[i];
        const Answer& set = answers[2 * i];
        const Answer& get = answers[2 * i + 1];
        r.answer = set.value;
        if (!get.answered) {
            r.outcome = Outcome::unconfirmed;
            error = device.failure();
            continue;
        }
        r.read_back = get.value;
        r.outcome =
            get.value == changes[i].assignment->value ? Outcome::took_effect : Outcome::refused;
    }
    return results;
}

std::string diff_text(const Configuration& configuration, const std::vector<Change>& changes,
                      bool with_secrets) {
    std::string out;
    for (const Change& change : changes) {
        const Assignment& a = *change.assignment;
        if (a.setting->secret && !with_secrets) {
            out += "# " + label(*a.setting, a.id) +
                   " differs (a secret: root sees the values with --with-secrets)\n";
            continue;
        }
        std::string line = configuration.set_line(*a.setting, a.id, a.value);
        if (line.empty()) line = trim_blanks(a.text);
        out += line + "  # now " + shown(change.now) + "\n";
    }
    return out;
}

std::string plan_text(const std::vector<Change>& changes, bool with_secrets) {
    std::string out;
    for (const Change& change : changes) out += change_text(change, with_secrets) + "\n";
    return out;
}

std::string report_line(const Result& r, bool with_secrets) {
    std::string out = change_text(*r.change, with_secrets);
    const Setting& setting = *r.change->assignment->setting;
    if (r.outcome == Outcome::refused) {
        out += ": not taken, reads back " + value_shown(setting, r.read_back, with_secrets);
        if (r.answer != r.read_back) {
            out += " (the device answered " + value_shown(setting, r.answer, with_secrets) + ")";
        }
    } else if (r.outcome == Outcome::unconfirmed) {
        out += ": not confirmed";
    }
    return out;
}

std::string report_text(const std::vector<Result>& results, bool with_secrets) {
    std::string out;
    for (const Result& r : results) out += report_line(r, with_secrets) + "\n";
    return out;
}

std::string last_taken(const std::vector<Result>& results, bool with_secrets) {
    for (auto r = results.rbegin(); r != results.rend(); ++r) {
        if (r->outcome == Outcome::took_effect) {
            return change_text(*r->change, with_secrets) + " (line " +
                   std::to_string(r->change->assignment->line) + ")";
        }
    }
    return "none";
}

std::string shown(std::string_view value) {
    const bool plain = !value.empty() && std::ranges::all_of(value, [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u > ' ' && u != 0x7f && c != '"' && c != '\\';
    });
    if (plain) return std::string(value);
    std::string out = "\"";
    for (const char c : value) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.append("\\").append(1, c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (u < ' ' || u == 0x7f) {
            constexpr std::string_view kHex = "0123456789abcdef";
            out.append("\\x").append(1, kHex[u >> 4]).append(1, kHex[u & 15]);
        } else {
            out += c;
        }
    }
    return out + "\"";
}

namespace {

// The length of the well-formed UTF-8 sequence at the start of text, or 0.
std::size_t utf8_length(std::string_view text) {
    const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t n = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead <= 0xdf) {
        n = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        n = 3;
        if (lead == 0xe0) low = 0xa0;   // no overlong forms
        if (lead == 0xed) high = 0x9f;  // no surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        n = 4;
        if (lead == 0xf0) low = 0x90;
        if (lead == 0xf4) high = 0x8f;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < n || byte(1) < low || byte(1) > high) return 0;
    for (std::size_t i = 2; i < n; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
    }
    return n;
}

}  // namespace

bool valid_utf8(std::string_view text) {
    for (std::size_t n = 0; !text.empty(); text.remove_prefix(n)) {
        if ((n = utf8_length(text)) == 0) return false;
    }
    return true;
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t n = utf8_length(text);
        const auto u = static_cast<unsigned char>(text.front());
        if (n == 0) {
            out += "\xef\xbf\xbd";  // U+FFFD for a byte that is not UTF-8
            text.remove_prefix(1);
            continue;
        }
        if (text.front() == '"' || text.front() == '\\') {
            out.append("\\").append(1, text.front());
        } else if (u < ' ' || u == 0x7f) {
            constexpr std::string_view kHex = "0123456789abcdef";
            out.append("\\u00").append(1, kHex[u >> 4]).append(1, kHex[u & 15]);
        } else {
            out.append(text.substr(0, n));
        }
        text.remove_prefix(n);
    }
    return out + "\"";
}

}  // namespace tx::config
