#include "core.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "property_map.hpp"
#include "regexparser.hpp"
#include "settings_table.hpp"
#include "xmltree.hpp"

namespace coresim {

namespace {

constexpr std::size_t VALUE_LIMIT = 320;
const char* const LINES[] = {"1", "2", "3", "usb", "bt"};

// Device operations that change no setting; the simulation acknowledges them.
const char* const PLAIN_ACTIONS[] = {
    "cam-save-as-default",
    "cam-apply-defaults",
    "cam-image-save-as-default",
    "cam-image-apply-defaults",
    "cam-factory-reset",
    "restart",
    "diag-self-test",
    "bt-pair",
    "bt-unpair",
    "bt-disconnect",
    "download-logs",
    "play",
    "led-set",
    "export-config",
    "import-config",
    "bm64-msg-start-upgrade",
    "bm64-msg-acl-connect",
    "bm64-msg-write-uart-ipf-file",
    "bm64-msg-write-ipf-file",
    "bm64-msg-read-uart-ipf-file",
    "bm64-msg-read-ipf-file",
    "bm64-msg-verify-uart-ipf-file",
    "bm64-msg-verify-ipf-file",
    "bm64-msg-erase-fw-file",
    "bm64-msg-write-fw-file",
    "bm64-msg-read-fw-file",
    "bm64-msg-verify-fw-file",
    "bm64-msg-get-uart-version",
    "bm64-msg-get-ipf-version",
    "bm64-msg-get-fw-version",
    "rc_clear",
};

// The attribute's value, "" when the element has none.
std::string attr_of(XmlNode* node, const char* name) {
    const char* value = xml_attr(node, name);
    return value != nullptr ? value : "";
}

bool parse_number(const std::string& text, SettingKind kind, double& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    if (kind == SettingKind::integer) {
        const long v = std::strtol(text.c_str(), &end, 10);
        out = static_cast<double>(v);
    } else {
        out = std::strtod(text.c_str(), &end);
    }
    return errno == 0 && end != nullptr && *end == '\0';
}

const SettingRange* range_for(std::string_view key) {
    for (const SettingRange& row : coresim_ranges())
        if (key == row.key) return &row;
    return nullptr;
}

bool is_line(std::string_view id) {
    return std::any_of(std::begin(LINES), std::end(LINES), [&](const char* l) { return id == l; });
}

std::string now_text() {
    char buf[32] = {};
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return buf;
}

}  // namespace

std::string xml_escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
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
            case '\'':
                out += "&apos;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

bool parse_request(std::string_view record, Request& request) {
    record = record.substr(0, record.find('\0'));
    const std::size_t start = record.find("<client_request");
    if (start == std::string_view::npos) return false;
    // A record cut short still yields its envelope and what came before the cut.
    std::string text(record.substr(start));
    text += '\0';
    const XmlDocumentPtr envelope(xml_parse_string(text.data(), text.size()));
    if (!envelope || envelope->name == nullptr ||
        std::string_view(envelope->name) != "client_request")
        return false;
    request.client_id = attr_of(envelope.get(), "client_id");
    request.sub_client_id = attr_of(envelope.get(), "sub_client_id");
    request.message_seq = attr_of(envelope.get(), "message_seq");
    XmlNode* body = xml_child(envelope.get(), "request");
    if (XmlNode* action = xml_child(body, "action")) {
        request.action = action->text;
        request.property = attr_of(action, "property");
        request.target = attr_of(action, "target");
    }
    for (XmlNode* p = xml_child(body, "p"); p != nullptr; p = p->next)
        request.params.emplace_back(attr_of(p, "name"), p->text);
    request.complete = record.find("</client_request>", start) != std::string_view::npos;
    return true;
}

Core::Core() {
    for (const DeviceValue& row : coresim_device_values()) settings_[row.key] = row.value;
    for (const PropertyNameMap* row = property_name_map; row->key != nullptr && row->key[0] != '\0';
         ++row) {
        const std::optional<std::string> stated = tx::grammar::stated_default(row->name);
        if (stated) {
            settings_[row->key] = *stated;
        } else {
            settings_.emplace(row->key, "0");
        }
    }
    for (const char* line : LINES) calls_[line] = CallState{};
}

const std::string* Core::setting(const std::string& key) const {
    const auto it = settings_.find(key);
    return it == settings_.end() ? nullptr : &it->second;
}

void Core::forget_registrations(int instance) {
    registered_[instance & 1].clear();
}

bool Core::load_state(const std::string& path) {
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t eq = line.find('=');
        if (eq == std::string::npos || eq == 0) continue;
        settings_[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return true;
}

bool Core::save_state(const std::string& path) const {
    const std::string temp = path + ".new";
    {
        std::ofstream out(temp, std::ios::trunc);
        if (!out) return false;
        for (const auto& [key, value] : settings_) out << key << '=' << value << '\n';
        if (!out.flush()) return false;
    }
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

std::string Core::param_value(const Request& request) const {
    for (const auto& [name, value] : request.params)
        if (name == "default") return value;
    if (request.params.empty()) return {};
    if (request.params.size() == 1) return request.params.front().second;
    std::string joined;
    for (const auto& [name, value] : request.params) {
        if (!joined.empty()) joined += ' ';
        joined += value;
    }
    return joined;
}

Output Core::handle(int instance, std::string_view record) {
    Output output;
    Request request;
    if (!parse_request(record, request)) return output;
    if (!request.complete) {
        // What is missing could have changed its meaning.
        output.records.emplace_back(
            instance, render_response(request, {"error", "", "", {{"", "request cut short"}}}));
        return output;
    }
    std::vector<Change> changes;
    const Reply reply = handle_request(instance, request, changes);
    output.records.emplace_back(instance, render_response(request, reply));
    output.changed = !changes.empty();
    for (const Change& change : changes) {
        for (int i = 0; i < 2; ++i) {
            if (registered_[i].empty()) continue;
            // One notification per connector: the connector fans it out.
            output.records.emplace_back(i, render_notify(registered_[i].begin()->first, change));
        }
    }
    return output;
}

Core::Reply Core::handle_request(int instance, const Request& request,
                                 std::vector<Change>& changes) {
    const std::string& action = request.action;
    if (action.empty()) return {"error", request.property, request.target, {{"", "empty action"}}};
    if (action == "client_register_notify") {
        registered_[instance & 1].emplace(request.client_id, request.sub_client_id);
        return {action, request.property, request.target, {{"", "ok"}}};
    }
    if (action == "get" && request.property.starts_with("call.")) return handle_call_get(request);
    if (action == "report" && request.property.starts_with("call."))
        return handle_call(request, changes);
    if (action == "get" || action == "set" || action == "report" || action == "increment" ||
        action == "decrement")
        return handle_setting(request, changes);
    if (action == "dial" || action == "answer" || action == "hangup" || action == "hold" ||
        action == "resume" || action == "swap" || action == "transfer" || action == "join")
        return handle_call(request, changes);
    if (std::any_of(std::begin(PLAIN_ACTIONS), std::end(PLAIN_ACTIONS),
                    [&](const char* a) { return action == a; }))
        return {action, request.property, request.target, {{"", "ok"}}};
    return {action, request.property, request.target, {{"", "error unknown action"}}};
}

Core::Reply Core::handle_setting(const Request& request, std::vector<Change>& changes) {
    Reply reply{request.action, request.property, request.target, {}};
    const std::string& key = request.property;
    const std::string scoped = request.target.empty() ? key : key + "#" + request.target;
    auto it = settings_.find(scoped);
    if (it == settings_.end()) it = settings_.find(key);
    if (key.empty() || (it == settings_.end() && request.action != "report")) {
        reply.values = {{"", "error unknown property"}};
        return reply;
    }
    if (request.action == "get") {
        reply.values = {{"", it->second}};
        return reply;
    }
    const SettingRange* row = range_for(key);
    std::string value = param_value(request);
    if (request.action == "increment" || request.action == "decrement") {
        const auto steps = coresim_camera_steps();
        const auto step = std::find_if(steps.begin(), steps.end(),
                                       [&](const CameraStep& s) { return key == s.key; });
        double limit = 0;
        double current = 0;
        if (step == steps.end() || !parse_number(value, SettingKind::integer, limit) ||
            !parse_number(it->second, SettingKind::integer, current)) {
            reply.values = {{"", "error not adjustable"}};
            return reply;
        }
        const long cur = static_cast<long>(current);
        const long lim = static_cast<long>(limit);
        const long next = request.action == "increment"
                              ? std::min(cur + step->step, std::max(cur, lim))
                              : std::max(cur - step->step, std::min(cur, lim));
        value = std::to_string(next);
    } else if (row != nullptr) {
        double number = 0;
        if (!parse_number(value, row->kind, number) || number < row->min || number > row->max) {
            reply.values = {{"", "error out of range"}};
            return reply;
        }
    }
    if (value.size() > VALUE_LIMIT) value.resize(VALUE_LIMIT);
    // A newline would break the state file; the grammar never sends one.
    std::replace(value.begin(), value.end(), '\n', ' ');
    settings_[scoped] = value;
    reply.values = {{"", value}};
    changes.push_back({key, request.target, value});
    return reply;
}

void Core::set_call_status(const std::string& line, const std::string& status,
                           std::vector<Change>& changes) {
    CallState& call = calls_[line];
    call.status = status;
    if (status == "idle") {
        call.number.clear();
        call.start_time.clear();
    }
    changes.push_back({"call.status", line, status});
}

// The call actions answer with a single value: what became of the call, or
// the reason nothing did.
Core::Reply Core::call_reply(const Request& request, std::string value) {
    return {request.action, request.property, request.target, {{"", std::move(value)}}};
}

Core::Reply Core::handle_call(const Request& request, std::vector<Change>& changes) {
    const std::string& action = request.action;
    if (action == "report") return handle_call_report(request, changes);
    if (action == "dial") return handle_dial(request, changes);
    if (action == "hangup" || action == "hold") return handle_hangup_or_hold(request, changes);
    if (action == "answer" || action == "resume") return handle_answer_or_resume(request, changes);
    if (action == "swap" || action == "transfer") return handle_swap_or_transfer(request, changes);
    return handle_join(request, changes);
}

// The core's own publishing path: "report status 1 connected" and the like.
Core::Reply Core::handle_call_report(const Request& request, std::vector<Change>& changes) {
    const std::string& line = request.target;
    if (!is_line(line)) return call_reply(request, "error unknown call");
    CallState& call = calls_[line];
    const std::string field = request.property.substr(5);
    if (field == "call-info") {
        for (const auto& [name, value] : request.params) {
            if (name == "call.number" || name == "call.caller") call.number = value;
            if (name == "call.status") set_call_status(line, value, changes);
        }
    } else if (field == "status") {
        set_call_status(line, param_value(request), changes);
    } else {
        if (field == "number" || field == "caller") call.number = param_value(request);
        if (field == "start-time") call.start_time = param_value(request);
        changes.push_back({request.property, line, param_value(request)});
    }
    return call_reply(request, param_value(request));
}

Core::Reply Core::handle_dial(const Request& request, std::vector<Change>& changes) {
    const std::string& line = request.target;
    if (!is_line(line)) return call_reply(request, "error unknown line");
    if (calls_[line].status != "idle") return call_reply(request, "error line busy");
    const std::string number = param_value(request);
    if (number.empty()) return call_reply(request, "error no number");
    // The far end picks up at once: the whole progression is reported.
    set_call_status(line, "dialing", changes);
    calls_[line].number = number;
    set_call_status(line, "ringing", changes);
    set_call_status(line, "connected", changes);
    calls_[line].start_time = now_text();
    return call_reply(request, number);
}

Core::Reply Core::handle_hangup_or_hold(const Request& request, std::vector<Change>& changes) {
    const std::string& line = request.target;
    const bool hangup = request.action == "hangup";
    const bool all = line == "all";
    if (!all && !is_line(line)) return call_reply(request, "error unknown line");
    int changed = 0;
    for (const char* l : LINES) {
        if (!all && line != l) continue;
        const std::string& status = calls_[l].status;
        if (hangup && status != "idle") {
            set_call_status(l, "idle", changes);
            ++changed;
        } else if (!hangup && status == "connected") {
            set_call_status(l, "held", changes);
            ++changed;
        }
    }
    if (changed == 0) return call_reply(request, "error no call");
    return call_reply(request, all ? "ok" : calls_[line].status);
}

Core::Reply Core::handle_answer_or_resume(const Request& request, std::vector<Change>& changes) {
    const std::string& line = request.target;
    if (!is_line(line)) return call_reply(request, "error unknown line");
    const std::string& status = calls_[line].status;
    const bool ok = request.action == "answer" ? (status == "ringing" || status == "incoming")
                                               : status == "held";
    if (!ok) return call_reply(request, "error no call");
    set_call_status(line, "connected", changes);
    return call_reply(request, "connected");
}

Core::Reply Core::handle_swap_or_transfer(const Request& request, std::vector<Change>& changes) {
    std::string source;
    std::string target;
    for (const auto& [name, value] : request.params) {
        if (name == "source-call") source = value;
        if (name == "target-call") target = value;
    }
    if (!is_line(source) || !is_line(target) || source == target)
        return call_reply(request, "error unknown call");
    if (calls_[source].status == "idle" || calls_[target].status == "idle")
        return call_reply(request, "error no call");
    if (request.action == "swap") {
        const std::string a = calls_[source].status;
        const std::string b = calls_[target].status;
        set_call_status(source, b, changes);
        set_call_status(target, a, changes);
    } else {
        set_call_status(source, "transferred", changes);
        set_call_status(source, "idle", changes);
        set_call_status(target, "idle", changes);
    }
    return call_reply(request, "ok");
}

// Named slots: call id -> mix state.
Core::Reply Core::handle_join(const Request& request, std::vector<Change>& changes) {
    int joined = 0;
    for (const auto& [id, mix] : request.params) {
        if (!is_line(id) || mix != "1" || calls_[id].status == "idle") continue;
        set_call_status(id, "conferenced", changes);
        ++joined;
    }
    return call_reply(request, joined == 0 ? "error no call" : "ok");
}

Core::Reply Core::handle_call_get(const Request& request) {
    Reply reply{request.action, request.property, request.target, {}};
    const std::string field = request.property.substr(5);
    if (field == "status-all") {
        for (const char* l : LINES) reply.values.emplace_back(l, calls_[l].status);
        return reply;
    }
    if (!is_line(request.target)) {
        reply.values = {{"", "error unknown call"}};
        return reply;
    }
    const CallState& call = calls_[request.target];
    if (field == "status")
        reply.values = {{"", call.status}};
    else if (field == "number" || field == "caller")
        reply.values = {{"", call.number}};
    else if (field == "start-time")
        reply.values = {{"", call.start_time}};
    else if (field == "codec")
        reply.values = {{"", call.status == "idle" ? "" : "G.722"}};
    else if (field == "call-quality")
        reply.values = {{"", call.status == "idle" ? "" : "good"}};
    else if (field == "call-info")
        reply.values = {{"call.caller", call.number},
                        {"call.number", call.number},
                        {"call.status", call.status}};
    else
        reply.values = {{"", "error unknown property"}};
    return reply;
}

std::string Core::render_response(const Request& request, const Reply& reply) const {
    std::vector<std::pair<std::string, std::string>> values = reply.values;
    for (;;) {
        std::string out = "<server_response client_id=\"" + xml_escape(request.client_id) +
                          "\" sub_client_id=\"" + xml_escape(request.sub_client_id) +
                          "\" message_seq=\"" + xml_escape(request.message_seq) +
                          "\"><response><action";
        if (!reply.property.empty()) out += " property=\"" + xml_escape(reply.property) + "\"";
        if (!reply.target.empty()) out += " target=\"" + xml_escape(reply.target) + "\"";
        out += ">" + xml_escape(reply.action) + "</action>";
        for (const auto& [name, value] : values) {
            out += name.empty() ? std::string("<v>") : "<v name=\"" + xml_escape(name) + "\">";
            out += xml_escape(value) + "</v>";
        }
        out += "</response></server_response>";
        if (out.size() < RECORD_LEN) return out;
        // Too long for one record: shorten the longest value and try again.
        auto longest = std::max_element(
            values.begin(), values.end(),
            [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
        if (longest == values.end() || longest->second.empty())
            return out.substr(0, RECORD_LEN - 1);
        const std::size_t excess = out.size() - (RECORD_LEN - 1);
        longest->second.resize(longest->second.size() > excess ? longest->second.size() - excess
                                                               : 0);
    }
}

std::string Core::render_notify(const std::string& client_id, const Change& change) {
    std::string value = change.value;
    for (;;) {
        std::string out = "<server_notify client_id=\"" + xml_escape(client_id) +
                          "\" message_seq=\"" + std::to_string(notify_seq_) +
                          "\"><notify event=\"" + xml_escape(change.event) + "\"";
        if (!change.target.empty()) out += " target=\"" + xml_escape(change.target) + "\"";
        out += "><v>" + xml_escape(value) + "</v></notify></server_notify>";
        if (out.size() < RECORD_LEN || value.empty()) {
            ++notify_seq_;
            return out.substr(0, RECORD_LEN - 1);
        }
        const std::size_t excess = out.size() - (RECORD_LEN - 1);
        value.resize(value.size() > excess ? value.size() - excess : 0);
    }
}

}  // namespace coresim
