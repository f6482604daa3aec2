// Response and notification messages: parsing, one-line display text and the
// connector-side helpers built on the same texts.
#include "xml_messages.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "bin_serialization.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "property_map.hpp"
#include "xmltree.hpp"

namespace {

// Each appended display item is cut to this many characters; the output
// buffer bounds the whole line as well.
constexpr std::size_t ITEM_CUT = 65;
constexpr std::size_t SINGLE_CUT = 321;
constexpr NotifyLineCuts DISPLAY_CUTS{ITEM_CUT, SINGLE_CUT};

// The quoted numbers that follow "message_seq" and "sub_client_id" are read
// into fields of these capacities.
constexpr std::size_t SEQUENCE_TEXT_LEN = 33;
constexpr std::size_t SUB_CLIENT_TEXT_LEN = 6;

constexpr std::size_t ENVELOPE_LEN = 512;
constexpr std::size_t ACK_SEND_LEN = 512;

// An absent attribute reads as an empty text (never as a null pointer).
std::string_view text_of(const char* s) {
    return s == nullptr ? std::string_view{""} : s;
}

// Parses a private, writable copy of the text: the tree points into the copy,
// so the copy lives as long as the parsed document.
struct ParsedCopy {
    std::vector<char> buffer;
    XmlDocumentPtr doc;

    ParsedCopy(const char* text, std::size_t length) {
        const std::size_t n = text == nullptr ? 0 : strnlen(text, length);
        buffer.assign(n + 1, '\0');
        if (n > 0) std::memcpy(buffer.data(), text, n);
        doc.reset(xml_parse_string(buffer.data(), n + 1));
    }
    // A document that reported an error is not trusted for anything.
    XmlNode* root() const {
        if (!doc || doc->error[0] != '\0') return nullptr;
        return doc.get();
    }
};

// Copies the attribute into the field when the element has it.
void copy_attr(std::span<char> field, XmlNode* node, const char* name) {
    if (const char* value = xml_attr(node, name); value != nullptr) tx::copy_bounded(field, value);
}

// Parses the text and hands the root to fill; an unparseable text leaves
// the record as it was.
template <class Fill>
int parse_message(const char* text, std::size_t length, Fill fill) {
    const ParsedCopy parsed(text, length);
    if (XmlNode* root = parsed.root(); root != nullptr) fill(root);
    return 0;
}

// The "v" elements, shared by responses and notifications.
void read_values(XmlNode* root, std::uint32_t* mode, RecordValues* values) {
    XmlNode* v = xml_child(root, "v");
    if (v == nullptr) return;
    if (v->next != nullptr) {
        *mode = PARSED_MODE_LIST;
        std::size_t i = 0;
        for (; v != nullptr && i < RECORD_SLOT_COUNT; v = v->next, ++i) {
            tx::copy_bounded(values->slots[i].name, text_of(xml_attr(v, "name")));
            tx::copy_bounded(values->slots[i].value, text_of(v->text));
        }
    } else {
        *mode = PARSED_MODE_SINGLE;
        tx::copy_bounded(values->single, text_of(v->text));
    }
}

void append_item(std::span<char> out, std::string_view item, std::size_t cut = ITEM_CUT) {
    tx::append_bounded(out, item, cut);
    tx::append_bounded(out, " ");
}

bool slot_used(const RecordSlot& slot) {
    return slot.name[0] != '\0' && slot.value[0] != '\0';
}

void default_response_format(const RequestRecord& record, std::span<char> out) {
    const std::string_view action = tx::field_view(record.action);
    if (!action.empty()) {
        const char* display = action_name_for_key(action);
        append_item(out, display != nullptr ? std::string_view{display} : action);
    }
    const std::string_view property = tx::field_view(record.property);
    if (!property.empty()) {
        const char* name = property_name_for_key(property);
        append_item(out, name != nullptr ? std::string_view{name} : property);
    }
    const std::string_view target = tx::field_view(record.target);
    if (!target.empty()) {
        // Channel targets read better with a gap: "ch1" shows as "ch 1".
        if (target.size() == 3 && target.starts_with("ch")) {
            tx::append_bounded(out, "ch ");
            tx::append_bounded(out, target.substr(2));
        } else {
            tx::append_bounded(out, target, ITEM_CUT);
        }
        tx::append_bounded(out, " ");
    }
    if (record.value_mode == PARSED_MODE_SINGLE) {
        append_item(out, tx::field_view(record.values.single), SINGLE_CUT);
    } else {
        for (const RecordSlot& slot : record.values.slots) {
            if (slot_used(slot)) append_item(out, tx::field_view(slot.value));
        }
    }
    strip_trailing_space(out);
    // A response that parsed to nothing (unparseable text) leaves only the
    // separator behind: there is nothing to show.
    if (std::string_view(out.data(), strnlen(out.data(), out.size())) == " ") out[0] = '\0';
}

tx::HeapText heap_copy(std::string_view text) {
    tx::HeapText copy{static_cast<char*>(std::malloc(text.size() + 1))};
    if (copy) {
        std::memcpy(copy.get(), text.data(), text.size());
        copy.get()[text.size()] = '\0';
    }
    return copy;
}

// The part of the message from `open` up to and including `close`, or up to
// and including the first "/>" when the closing tag is missing.
tx::HeapText cut_message(std::string_view message, std::string_view open, std::string_view close) {
    const std::size_t start = message.find(open);
    if (start == std::string_view::npos) return nullptr;
    const std::string_view rest = message.substr(start);
    std::size_t end = rest.find(close);
    if (end != std::string_view::npos) return heap_copy(rest.substr(0, end + close.size()));
    end = rest.find("/>");
    if (end != std::string_view::npos) return heap_copy(rest.substr(0, end + 2));
    return nullptr;
}

// The decimal number in the quoted value that follows `name`, read through a
// field of `capacity` characters.
long quoted_number_after(std::string_view text, std::string_view name, std::size_t capacity) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return 0;
    std::string_view rest = text.substr(at + name.size());
    const std::size_t open = rest.find('"');
    if (open == std::string_view::npos) return 0;
    rest = rest.substr(open + 1);
    const std::size_t close = rest.find('"');
    if (close != std::string_view::npos) rest = rest.substr(0, close);
    std::vector<char> field(capacity, '\0');
    tx::copy_bounded(field, rest);
    return std::strtol(field.data(), nullptr, 10);
}

}  // namespace

const ResponseHook response_hooks[] = {{nullptr, nullptr}};
const NotifyHook notify_hooks[] = {{nullptr, nullptr}};

bool message_contains(std::string_view message, std::string_view what) {
    return message.find(what) != std::string_view::npos;
}
bool is_notify(std::string_view message) {
    return message_contains(message, "<notify");
}
bool is_response(std::string_view message) {
    return message_contains(message, "<response");
}
bool is_server_response(std::string_view message) {
    return message_contains(message, "<server_response");
}
bool is_server_notify(std::string_view message) {
    return message_contains(message, "<server_notify");
}

int parse_response(const char* text, std::size_t length, RequestRecord* record) {
    if (record == nullptr) return 0;
    return parse_message(text, length, [record](XmlNode* root) {
        XmlNode* action = xml_child(root, "action");
        if (action != nullptr && action->text[0] != '\0') {
            tx::copy_bounded(record->action, action->text);
            copy_attr(record->property, action, "property");
            copy_attr(record->target, action, "target");
        }
        read_values(root, &record->value_mode, &record->values);
    });
}

int parse_notify(const char* text, std::size_t length, NotifyRecord* record) {
    if (record == nullptr) return 0;
    return parse_message(text, length, [record](XmlNode* root) {
        copy_attr(record->event, root, "event");
        copy_attr(record->target, root, "target");
        read_values(root, &record->value_mode, &record->values);
    });
}

int format_response(const RequestRecord& record, std::span<char> out) {
    if (out.empty()) return 0;
    for (const ResponseHook* hook = response_hooks; hook->detect != nullptr; ++hook) {
        if (hook->detect(record) > 0) return hook->format(record, out, *hook);
    }
    default_response_format(record, out);
    return 0;
}

int format_notify(const NotifyRecord& record, std::span<char> out) {
    if (out.empty()) return 0;
    for (const NotifyHook* hook = notify_hooks; hook->detect != nullptr; ++hook) {
        if (hook->detect(record) > 0) {
            hook->format(record, out, *hook);
            break;
        }
    }
    std::vector<char> plain(out.size(), '\0');
    render_notify_line(record, plain, DISPLAY_CUTS);
    tx::append_bounded(out, tx::field_view(plain));
    return 0;
}

std::size_t render_notify_line(const NotifyRecord& record, std::span<char> out,
                               NotifyLineCuts cuts) {
    if (out.empty()) return 0;
    out[0] = '\0';
    tx::append_bounded(out, "notify ");
    append_item(out, tx::field_view(record.event), cuts.item);
    const std::string_view target = tx::field_view(record.target);
    if (!target.empty()) append_item(out, target, cuts.item);
    if (record.value_mode == PARSED_MODE_SINGLE) {
        append_item(out, tx::field_view(record.values.single), cuts.single);
    } else if (record.value_mode == PARSED_MODE_LIST) {
        for (const RecordSlot& slot : record.values.slots) {
            if (!slot_used(slot)) continue;
            append_item(out, tx::field_view(slot.name), cuts.item);
            const std::string_view value = tx::field_view(slot.value);
            const bool quoted = value.find(' ') != std::string_view::npos;
            if (quoted) tx::append_bounded(out, "\"");
            tx::append_bounded(out, value, cuts.item);
            tx::append_bounded(out, quoted ? "\" " : " ");
        }
    }
    return strip_trailing_space(out);
}

MessageKind format_message(std::string_view text, std::span<char> out) {
    if (out.empty()) return MessageKind::other;
    out[0] = '\0';
    if (is_notify(text)) {
        NotifyRecord record{};
        parse_notify(text.data(), text.size(), &record);
        format_notify(record, out);
        return MessageKind::notify;
    }
    if (is_response(text)) {
        RequestRecord record{};
        parse_response(text.data(), text.size(), &record);
        format_response(record, out);
        return MessageKind::response;
    }
    return MessageKind::other;
}

tx::HeapText cut_notify(std::string_view message) {
    return cut_message(message, "<notify", "</notify>");
}

tx::HeapText cut_response(std::string_view message) {
    return cut_message(message, "<response", "</response>");
}

tx::HeapText build_client_ack(std::string_view notify_text, const RecordSlot* slots) {
    char client_id[RECORD_FIELD_LEN] = {};
    char message_seq[RECORD_FIELD_LEN] = {};
    char event[RECORD_FIELD_LEN] = {};
    parse_message(notify_text.data(), notify_text.size(), [&](XmlNode* root) {
        copy_attr(client_id, root, "client_id");
        copy_attr(message_seq, root, "message_seq");
        if (XmlNode* notify = xml_child(root, "notify"); notify != nullptr) {
            copy_attr(event, notify, "event");
        }
    });

    // The tree borrows its strings: keep terminated copies of the slots alive
    // until the document has been rendered.
    RecordSlot values[RECORD_SLOT_COUNT] = {};
    const XmlDocumentPtr ack_doc{xml_new("client_ack")};
    if (!ack_doc) return nullptr;
    xml_set_attr(ack_doc.get(), "client_id", client_id);
    xml_set_attr(ack_doc.get(), "message_seq", message_seq);
    XmlNode* ack = xml_add_child(ack_doc.get(), "ack", 0);
    if (ack == nullptr) return nullptr;
    xml_set_attr(ack, "event", event);
    if (slots != nullptr) {
        for (std::size_t i = 0; i < RECORD_SLOT_COUNT; ++i) {
            tx::copy_bounded(values[i].name, tx::field_view(slots[i].name));
            tx::copy_bounded(values[i].value, tx::field_view(slots[i].value));
            if (!slot_used(values[i])) continue;
            const int index = static_cast<int>(i);
            std::printf("%s:%d: value %d (%s)\n", "connector", 472, index, values[i].name);
            std::printf("%s:%d: value %d (%s)\n", "connector", 473, index, values[i].value);
            XmlNode* value = xml_add_child(ack, "value", 0);
            if (value == nullptr) continue;
            xml_set_attr(value, "name", values[i].name);
            xml_set_text(value, values[i].value);
        }
    }
    // The tree borrows the fields above; render before they go.
    return tx::HeapText{xml_render(ack_doc.get())};
}

int build_client_ack_into(std::string_view notify_text, const RecordSlot* slots,
                          std::span<char> out) {
    const tx::HeapText ack = build_client_ack(notify_text, slots);
    if (!ack) return -1;
    tx::copy_bounded(out, ack.get());
    return 0;
}

int send_client_ack(IpcChannel* channel, std::string_view notify_text, const RecordSlot* slots,
                    long message_type) {
    if (channel == nullptr || channel->send == nullptr) return 0;
    char text[ACK_SEND_LEN] = {};
    if (build_client_ack_into(notify_text, slots, text) != 0) return 0;
    return channel->send(channel, text, message_type, 0);
}

tx::HeapText wrap_client_request(const IpcMessage& message, const char* client_id,
                                 const char* sequence_text) {
    tx::HeapText envelope{static_cast<char*>(std::calloc(ENVELOPE_LEN, 1))};
    if (!envelope) return nullptr;
    // The sub-client number is the 32-bit message type of the sending client.
    const long sub_client = static_cast<std::int32_t>(message.type);
    const int text_len = static_cast<int>(strnlen(message.text, sizeof message.text));
    std::snprintf(envelope.get(), ENVELOPE_LEN,
                  "<client_request client_id=\"%s\" sub_client_id=\"%ld\" message_seq=\"%s\">%.*s"
                  "</client_request>",
                  client_id != nullptr ? client_id : "", sub_client,
                  sequence_text != nullptr ? sequence_text : "", text_len, message.text);
    return envelope;
}

long message_seq_of(std::string_view text) {
    return quoted_number_after(text, "message_seq", SEQUENCE_TEXT_LEN);
}

long sub_client_id_of(std::string_view text) {
    return quoted_number_after(text, "sub_client_id", SUB_CLIENT_TEXT_LEN);
}
