// The command handlers: each turns a line accepted by its table row into a
// request record. They never send and never print: a refusal is the match's
// refusal text and leaves an empty action, and the caller decides what to
// show and whether to send the record anyway.
#include "handlers.hpp"

#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "fixed_text.hpp"
#include "property_map.hpp"
#include "tokens.hpp"

namespace {

using tx::grammar::Caller;
using tx::grammar::Match;
using tx::grammar::TokenList;

// Call and line ids that exist only on a VoIP-capable device.
constexpr std::string_view kVoipIds = "123";
// join mixes calls 1 and 2 only.
constexpr std::string_view kJoinVoipIds = "12";

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
    set_text(r.values.single, value);
}

void set_slot(RequestRecord& r, std::size_t slot, std::string_view name, std::string_view value) {
    set_text(r.values.slots[slot].name, name);
    set_text(r.values.slots[slot].value, value);
}

constexpr std::string_view kVoipRefusal = "val voip-capable 0";

// The record a handler fills, and what it needs to refuse the line.
struct Filling {
    RequestRecord& r;
    std::string& refusal;
    bool voip;
};

// The action is emptied; the handler stops there.
void refuse(Filling& f, std::string_view why) {
    f.refusal = why;
    f.r.action[0] = '\0';
}

// On a device without VoIP, a command naming one of `ids` in `id` is refused.
// True when refused.
bool refused_voip_id(Filling& f, std::string_view id, std::string_view ids = kVoipIds) {
    if (f.voip || id.find_first_of(ids) == std::string_view::npos) {
        return false;
    }
    refuse(f, kVoipRefusal);
    return true;
}

// How a handler reads its line.
struct Opening {
    bool voip_only = false;   // refused whole on a device without VoIP
    bool plain = false;       // split_plain_tokens: quotes stay as typed
    std::string_view action;  // when not the command word
};

constexpr Opening kVoipOnly = {true, false, {}};
constexpr Opening kPlainTokens = {false, true, {}};
constexpr Opening with_action(std::string_view action) {
    return {false, false, action};
}

using Fill = void (*)(Filling&, const TokenList&);

// The opening every handler shares: a cleared record (no value), the line's
// tokens and the action; `fill` does the rest. A refused VoIP-only command
// leaves the record cleared.
void open_and_fill(std::string_view line, const Caller& caller, Match& match, Fill fill,
                   const Opening& opening = {}) {
    match.record = RequestRecord{};
    Filling f{match.record, match.refusal, caller.voip};
    if (opening.voip_only && !caller.voip) {
        f.refusal = kVoipRefusal;
        return;
    }
    // regexec stops at the first NUL, so the handlers do too.
    line = line.substr(0, line.find('\0'));
    TokenList t;
    if (opening.plain) {
        tx::grammar::split_plain_tokens(line, t);
    } else {
        tx::grammar::split_command_tokens(line, t);
    }
    set_text(f.r.action, opening.action.empty() ? t.at(0) : opening.action);
    fill(f, t);
}

void fill_nothing(Filling&, const TokenList&) {}

void fill_property(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    set_property_of(r, t.at(1));
}

void fill_property_value(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    set_property_of(r, t.at(1));
    set_single(r, t.at(2));
}

// Tokens 2 to `last` joined by blanks.
std::string joined(const TokenList& t, std::size_t last) {
    std::string value;
    for (std::size_t i = 2; i <= last; ++i) {
        value += i > 2 ? " " : "";
        value += t.at(i);
    }
    return value;
}

// Seven image values, or three of pan, tilt and zoom; anything shorter sends
// an empty value.
void fill_multi(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    set_property_of(r, t.at(1));
    std::size_t present = 2;
    while (t.has(present)) {
        ++present;
    }
    set_single(r, present > 8 ? joined(t, 8) : present > 4 ? joined(t, 4) : "");
}

void fill_mic_get(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    set_property_of(r, t.at(1));
    // One external microphone: id 1, also when none is given.
    if (t.has(2) && t.at(2) != "1") {
        refuse(f, tx::grammar::kSyntaxError);
        return;
    }
    set_text(r.target, "1");
}

void fill_call_info(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    set_property_of(r, t.at(1));
    if (refused_voip_id(f, t.at(2))) {
        return;
    }
    set_text(r.target, t.at(2));
    r.value_mode = REQUEST_MODE_LIST;
    static constexpr std::array<std::string_view, 3> kNames = {"call.caller", "call.number",
                                                               "call.status"};
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (t.has(3 + i)) {
            set_slot(r, i, kNames[i], t.at(3 + i));
        }
    }
}

void fill_swap(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    r.value_mode = REQUEST_MODE_LIST;
    set_slot(r, 0, "source-call", t.at(1));
    if (t.has(2)) {
        set_slot(r, 1, "target-call", t.at(2));
    }
    // Refused with both ids in view, and then nothing of the record is kept.
    if (refused_voip_id(f, std::string(t.at(1)).append(t.at(2)))) {
        r = RequestRecord{};
    }
}

// Call ids sit in the odd slots, each followed by its mix state.
constexpr std::array<std::size_t, 4> kJoinIdSlots = {1, 3, 5, 7};
constexpr std::array<std::string_view, 4> kJoinCalls = {"1", "2", "usb", "bt"};

void fill_join(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    std::string ids;
    for (std::size_t slot : kJoinIdSlots) {
        ids += t.at(slot);
    }
    if (refused_voip_id(f, ids, kJoinVoipIds)) {
        return;
    }
    std::array<std::string_view, kJoinCalls.size()> mix = {"0", "0", "0", "0"};
    std::array<int, kJoinCalls.size()> seen = {};
    for (std::size_t i = 0; i < kJoinCalls.size(); ++i) {
        for (std::size_t slot : kJoinIdSlots) {
            if (t.at(slot) == kJoinCalls[i] && seen[i]++ == 0) {
                mix[i] = t.at(slot + 1);
            }
        }
        if (seen[i] > 1) {
            refuse(f, "command syntax error - duplicate lines");
            return;
        }
    }
    r.value_mode = REQUEST_MODE_LIST;
    for (std::size_t i = 0; i < kJoinCalls.size(); ++i) {
        set_slot(r, i, kJoinCalls[i], mix[i]);
    }
}

void fill_source_target(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    r.value_mode = REQUEST_MODE_LIST;
    if (t.has(1)) {
        set_slot(r, 0, "source-call", t.at(1));
    }
    if (t.has(2)) {
        set_slot(r, 1, "target-url", t.at(2));
    }
}

// The camera step commands move to a fixed end of the range.
struct CameraStep {
    std::string_view command;
    std::string_view action;
    std::string_view property;
    std::string_view value;
};

constexpr std::array<CameraStep, 6> kCameraSteps = {{
    {"cam-zoom-out", "decrement", "cam.camera-zoom", "100"},
    {"cam-pan-left", "decrement", "cam.camera-pan", "-30"},
    {"cam-tilt-down", "decrement", "cam.camera-tilt", "-18"},
    {"cam-zoom-in", "increment", "cam.camera-zoom", "400"},
    {"cam-pan-right", "increment", "cam.camera-pan", "30"},
    {"cam-tilt-up", "increment", "cam.camera-tilt", "18"},
}};

// The action names the direction: each handler knows the steps of its own
// direction only, and an unknown word leaves property and value empty.
void fill_camera_step(Filling& f, const TokenList& t) {
    RequestRecord& r = f.r;
    r.value_mode = REQUEST_MODE_SINGLE;
    for (const CameraStep& step : kCameraSteps) {
        if (step.action == tx::field_view(r.action) && step.command == t.at(0)) {
            set_text(r.property, step.property);
            set_single(r, step.value);
        }
    }
}

}  // namespace

void handle_get(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_property);
}

void handle_get_voip(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_property, kVoipOnly);
}

void handle_set(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_property_value);
}

void handle_set_voip(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_property_value, kVoipOnly);
}

void handle_set_plain(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_property_value, kPlainTokens);
}

void handle_set_as_report(std::string_view line, const Caller& caller, Match& match) {
    // The device applies these settings when it reports them.
    open_and_fill(line, caller, match, fill_property_value, with_action("report"));
}

void handle_set_multi(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_multi);
}

void handle_line_value(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_property_of(r, t.at(1));
        if (!refused_voip_id(f, t.at(2))) {
            set_text(r.target, t.at(2));
            set_single(r, t.at(3));
        }
    });
}

void handle_mic_report(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_property_of(r, t.at(1));
        set_text(r.target, t.at(2));
        set_single(r, t.at(3));
    });
}

void handle_mic_get(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_mic_get);
}

void handle_line_get(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_property_of(r, t.at(1));
        if (!refused_voip_id(f, t.at(2))) {
            set_text(r.target, t.at(2));
        }
    });
}

void handle_reset_setting(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_property_of(r, t.at(1));
        set_text(r.target, t.at(2));
    });
}

void handle_call_info_report(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_call_info);
}

void handle_call_action(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        if (!refused_voip_id(f, t.at(1))) {
            set_text(r.target, t.at(1));
        }
    });
}

void handle_dial(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        if (!refused_voip_id(f, t.at(1))) {
            set_text(r.target, t.at(1));
            set_single(r, t.at(2));
        }
    });
}

void handle_swap(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_swap);
}

void handle_transfer(std::string_view line, const Caller& caller, Match& match) {
    handle_swap(line, caller, match);
}

void handle_join(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_join);
}

void handle_source_target(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_source_target);
}

void handle_property_value(std::string_view line, const Caller& caller, Match& match) {
    // The property is the word as typed, not a mapped name.
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_text(r.property, t.at(1));
        set_single(r, t.at(2));
    });
}

void handle_property_only(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_text(r.property, t.at(1));
    });
}

void handle_single_arg(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, [](Filling& f, const TokenList& t) {
        RequestRecord& r = f.r;
        set_single(r, t.at(1));
    });
}

void handle_word_only(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_nothing);
}

void handle_regnotify(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_nothing, with_action("client_register_notify"));
}

void handle_cam_decrement(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_camera_step, with_action("decrement"));
}

void handle_cam_increment(std::string_view line, const Caller& caller, Match& match) {
    open_and_fill(line, caller, match, fill_camera_step, with_action("increment"));
}

namespace tx::grammar {

bool voip_only(const command_entry& row) noexcept {
    return row.handler == handle_get_voip || row.handler == handle_set_voip;
}

}  // namespace tx::grammar
