// The command handlers: each turns a line accepted by its table row into a
// request record. They never send; refusals are printed here and leave an
// empty action, and the caller still renders and sends the record.
#include <array>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "fixed_text.hpp"
#include "os_cmdline.hpp"
#include "property_map.hpp"
#include "regexparser.hpp"
#include "tokens.hpp"

namespace {

using tx::grammar::TokenList;

constexpr std::size_t kSingleMax = RECORD_SINGLE_LEN - 1;
// Call and line ids that exist only on a VoIP-capable device.
constexpr std::string_view kVoipIds = "123";
// join mixes calls 1 and 2 only.
constexpr std::string_view kJoinVoipIds = "12";

// The part of the line a C string would see: regexec stops at the first NUL,
// so the handlers do too.
std::string_view line_text(const char* line, std::size_t length) {
    return line != nullptr ? std::string_view(line, strnlen(line, length)) : std::string_view{};
}

void split(const char* line, std::size_t length, TokenList& tokens) {
    tx::grammar::split_command_tokens(line_text(line, length), tokens);
}

void set_text(std::span<char> field, std::string_view text) {
    tx::copy_bounded(field, text);
}

void set_property_of(RequestRecord& r, std::string_view name) {
    if (const char* key = property_key_for_name(name)) {
        set_text(r.property, key);
    }
}

void set_single(RequestRecord& r, std::string_view value) {
    r.value_mode = REQUEST_MODE_SINGLE;
    tx::copy_bounded(r.values.single, value, kSingleMax);
}

void set_slot(RequestRecord& r, std::size_t slot, std::string_view name, std::string_view value) {
    set_text(r.values.slots[slot].name, name);
    set_text(r.values.slots[slot].value, value);
}

bool has_voip_id(std::string_view id, std::string_view ids) {
    return id.find_first_of(ids) != std::string_view::npos;
}

void print_voip_refusal() {
    std::puts("val voip-capable 0");
}

// The per-id gate: on a device without VoIP, ids naming VoIP lines are refused
// and the action emptied. True when the handler must stop.
bool refused_voip_id(RequestRecord& r, std::string_view id) {
    if (!has_voip_id(id, kVoipIds) || tx::grammar::voip_capable() != 0) {
        return false;
    }
    print_voip_refusal();
    r.action[0] = '\0';
    return true;
}

// The whole-command gate of VoIP settings.
bool refused_voip_command() {
    if (tx::grammar::voip_capable() != 0) {
        return false;
    }
    print_voip_refusal();
    return true;
}

// action tok 0, property map(tok 1), and tok 2 as the single value.
void fill_set(RequestRecord& r, const TokenList& t) {
    set_text(r.action, t.at(0));
    set_property_of(r, t.at(1));
    set_single(r, t.at(2));
}

void fill_get(RequestRecord& r, const TokenList& t) {
    set_text(r.action, t.at(0));
    set_property_of(r, t.at(1));
    r.value_mode = REQUEST_MODE_NONE;
}

struct CameraStep {
    std::string_view command;
    const char* property;
    const char* value;
};

constexpr std::array<CameraStep, 3> kDecrements = {{
    {"cam-zoom-out", "cam.camera-zoom", "100"},
    {"cam-pan-left", "cam.camera-pan", "-30"},
    {"cam-tilt-down", "cam.camera-tilt", "-18"},
}};
constexpr std::array<CameraStep, 3> kIncrements = {{
    {"cam-zoom-in", "cam.camera-zoom", "400"},
    {"cam-pan-right", "cam.camera-pan", "30"},
    {"cam-tilt-up", "cam.camera-tilt", "18"},
}};

void fill_camera_step(const char* line, std::size_t length, RequestRecord* record,
                      const char* action, std::span<const CameraStep> steps) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, action);
    record->target[0] = '\0';
    record->value_mode = REQUEST_MODE_SINGLE;
    for (const CameraStep& step : steps) {
        if (t.at(0) == step.command) {
            set_text(record->property, step.property);
            set_single(*record, step.value);
            return;
        }
    }
}

}  // namespace

void handle_get(const char* line, std::size_t length, RequestRecord* record, const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_get(*record, t);
}

void handle_get_voip(const char* line, std::size_t length, RequestRecord* record,
                     const command_entry*) {
    if (record == nullptr || refused_voip_command()) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_get(*record, t);
}

void handle_set(const char* line, std::size_t length, RequestRecord* record, const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_set(*record, t);
}

void handle_set_voip(const char* line, std::size_t length, RequestRecord* record,
                     const command_entry*) {
    if (record == nullptr || refused_voip_command()) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_set(*record, t);
}

void handle_set_plain(const char* line, std::size_t length, RequestRecord* record,
                      const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    tx::grammar::split_plain_tokens(line_text(line, length), t);
    fill_set(*record, t);
}

void handle_set_as_report(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_set(*record, t);
    // The device applies these settings when it reports them.
    set_text(record->action, "report");
}

void handle_set_multi(const char* line, std::size_t length, RequestRecord* record,
                      const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_property_of(*record, t.at(1));

    auto all_present = [&t](std::size_t first, std::size_t last) {
        for (std::size_t i = first; i <= last; ++i) {
            if (!t.has(i)) {
                return false;
            }
        }
        return true;
    };
    std::string value;
    std::size_t last = 0;
    if (all_present(2, 8)) {
        last = 8;
    } else if (all_present(2, 4)) {
        last = 4;
    }
    for (std::size_t i = 2; last != 0 && i <= last; ++i) {
        if (i > 2) {
            value += ' ';
        }
        value += t.at(i);
    }
    set_single(*record, value);
}

void handle_line_value(const char* line, std::size_t length, RequestRecord* record,
                       const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_property_of(*record, t.at(1));
    if (refused_voip_id(*record, t.at(2))) {
        return;
    }
    set_text(record->target, t.at(2));
    set_single(*record, t.at(3));
}

void handle_mic_report(const char* line, std::size_t length, RequestRecord* record,
                       const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_property_of(*record, t.at(1));
    set_text(record->target, t.at(2));
    set_single(*record, t.at(3));
}

void handle_mic_get(const char* line, std::size_t length, RequestRecord* record,
                    const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_get(*record, t);
    // One external microphone: id 1, also when none is given.
    if (t.has(2) && t.at(2) != "1") {
        std::puts("command syntax error");
        record->action[0] = '\0';
        return;
    }
    set_text(record->target, "1");
}

void handle_line_get(const char* line, std::size_t length, RequestRecord* record,
                     const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_get(*record, t);
    if (refused_voip_id(*record, t.at(2))) {
        return;
    }
    set_text(record->target, t.at(2));
}

void handle_reset_setting(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    fill_get(*record, t);
    set_text(record->target, t.at(2));
}

void handle_call_info_report(const char* line, std::size_t length, RequestRecord* record,
                             const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_property_of(*record, t.at(1));
    if (refused_voip_id(*record, t.at(2))) {
        return;
    }
    set_text(record->target, t.at(2));
    record->value_mode = REQUEST_MODE_LIST;
    static constexpr std::array<const char*, 3> kNames = {"call.caller", "call.number",
                                                          "call.status"};
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (t.has(3 + i)) {
            set_slot(*record, i, kNames[i], t.at(3 + i));
        }
    }
}

void handle_call_action(const char* line, std::size_t length, RequestRecord* record,
                        const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    if (refused_voip_id(*record, t.at(1))) {
        return;
    }
    set_text(record->target, t.at(1));
    record->value_mode = REQUEST_MODE_NONE;
}

void handle_dial(const char* line, std::size_t length, RequestRecord* record,
                 const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    if (refused_voip_id(*record, t.at(1))) {
        return;
    }
    set_text(record->target, t.at(1));
    set_single(*record, t.at(2));
}

void handle_swap(const char* line, std::size_t length, RequestRecord* record,
                 const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    record->value_mode = REQUEST_MODE_LIST;
    set_slot(*record, 0, "source-call", t.at(1));
    if (t.has(2)) {
        set_slot(*record, 1, "target-call", t.at(2));
    }

    const bool names_voip_call = has_voip_id(t.at(1), kVoipIds) || has_voip_id(t.at(2), kVoipIds);
    if (names_voip_call && tx::grammar::voip_capable() == 0) {
        print_voip_refusal();
        *record = RequestRecord{};
    }
}

void handle_transfer(const char* line, std::size_t length, RequestRecord* record,
                     const command_entry* row) {
    handle_swap(line, length, record, row);
}

void handle_join(const char* line, std::size_t length, RequestRecord* record,
                 const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));

    // Call ids sit in the odd slots, each followed by its mix state.
    static constexpr std::array<std::size_t, 4> kIdSlots = {1, 3, 5, 7};
    static constexpr std::array<std::string_view, 4> kCalls = {"1", "2", "usb", "bt"};

    bool names_voip_call = false;
    for (std::size_t slot : kIdSlots) {
        names_voip_call |= has_voip_id(t.at(slot), kJoinVoipIds);
    }
    if (names_voip_call && tx::grammar::voip_capable() == 0) {
        print_voip_refusal();
        record->action[0] = '\0';
        return;
    }

    for (std::string_view call : kCalls) {
        std::size_t seen = 0;
        for (std::size_t slot : kIdSlots) {
            seen += t.has(slot) && t.at(slot) == call ? 1 : 0;
        }
        if (seen > 1) {
            std::puts("command syntax error - duplicate lines");
            record->action[0] = '\0';
            return;
        }
    }

    record->value_mode = REQUEST_MODE_LIST;
    for (std::size_t i = 0; i < kCalls.size(); ++i) {
        std::string_view mix = "0";
        for (std::size_t slot : kIdSlots) {
            if (t.has(slot) && t.at(slot) == kCalls[i]) {
                mix = t.at(slot + 1);
                break;
            }
        }
        set_slot(*record, i, kCalls[i], mix);
    }
}

void handle_source_target(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    record->value_mode = REQUEST_MODE_LIST;
    if (t.has(1)) {
        set_slot(*record, 0, "source-call", t.at(1));
    }
    if (t.has(2)) {
        set_slot(*record, 1, "target-url", t.at(2));
    }
}

void handle_property_value(const char* line, std::size_t length, RequestRecord* record,
                           const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_text(record->property, t.at(1));
    set_single(*record, t.at(2));
}

void handle_property_only(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_text(record->property, t.at(1));
    record->value_mode = REQUEST_MODE_NONE;
}

void handle_single_arg(const char* line, std::size_t length, RequestRecord* record,
                       const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    set_single(*record, t.at(1));
}

void handle_word_only(const char* line, std::size_t length, RequestRecord* record,
                      const command_entry*) {
    if (record == nullptr) {
        return;
    }
    TokenList t;
    split(line, length, t);
    set_text(record->action, t.at(0));
    record->value_mode = REQUEST_MODE_NONE;
}

void handle_regnotify(const char*, std::size_t, RequestRecord* record, const command_entry*) {
    if (record == nullptr) {
        return;
    }
    set_text(record->action, "client_register_notify");
    record->value_mode = REQUEST_MODE_NONE;
}

void handle_cam_decrement(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    fill_camera_step(line, length, record, "decrement", kDecrements);
}

void handle_cam_increment(const char* line, std::size_t length, RequestRecord* record,
                          const command_entry*) {
    fill_camera_step(line, length, record, "increment", kIncrements);
}
