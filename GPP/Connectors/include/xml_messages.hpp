// Response and notification messages: parsing into records, one-line display
// formatting, and the connector-side message routines (cutting, envelopes,
// acknowledgements, sequence and sub-client numbers).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "fixed_text.hpp"
#include "request_record.hpp"

struct IpcChannel;

// Renders the record as "<request><action ...>...</action><p name=..>..</p></request>"
// into out. A document that does not fit (or cannot be built) leaves out empty.
// Always returns 0; callers judge success by a non-empty out.
int generate_xml_request(const RequestRecord& record, std::span<char> out);

// A parsed response uses RequestRecord with value mode 0 = single value,
// 1 = named list.
inline constexpr std::uint32_t PARSED_MODE_SINGLE = 0;
inline constexpr std::uint32_t PARSED_MODE_LIST = 1;

struct NotifyRecord {
    char event[RECORD_FIELD_LEN];
    char target[RECORD_FIELD_LEN];
    std::uint32_t value_mode;  // 0 single value, 1 named list
    RecordValues values;
};

// Display hooks: consulted before the default formats. Both lists are empty in
// this system but the lookup runs all the same.
struct ResponseHook {
    int (*detect)(const RequestRecord& record);
    int (*format)(const RequestRecord& record, std::span<char> out, const ResponseHook& self);
};
struct NotifyHook {
    int (*detect)(const NotifyRecord& record);
    int (*format)(const NotifyRecord& record, std::span<char> out, const NotifyHook& self);
};
extern const ResponseHook response_hooks[];  // ended by an entry with no detector
extern const NotifyHook notify_hooks[];

// Recognisers: true when the text occurs anywhere in the message.
bool message_contains(std::string_view message, std::string_view what);
bool is_notify(std::string_view message);           // "<notify"
bool is_response(std::string_view message);         // "<response"
bool is_server_response(std::string_view message);  // "<server_response"
bool is_server_notify(std::string_view message);    // "<server_notify"

int parse_response(const char* text, std::size_t length, RequestRecord* record);
int parse_notify(const char* text, std::size_t length, NotifyRecord* record);
int format_response(const RequestRecord& record, std::span<char> out);
int format_notify(const NotifyRecord& record, std::span<char> out);

// How far each piece of a notification line is cut: the event, the target
// and every slot name and value at `item` characters, a single value at
// `single`. Each rendering of the line has its own.
struct NotifyLineCuts {
    std::size_t item;
    std::size_t single;
};
// Writes "notify EVENT [TARGET] VALUE" or "notify EVENT [TARGET] NAME VALUE
// ..." from the start of out, bounded by out: slots need a name and a value,
// and a list value with a blank in it is quoted. One trailing blank is
// dropped. Returns the length.
std::size_t render_notify_line(const NotifyRecord& record, std::span<char> out,
                               NotifyLineCuts cuts);

// What a message to a client is, once its display line has been made.
enum class MessageKind { other, notify, response };
// A client's view of one message: a notification (tested first, so a text
// holding both tags is one) or a response, parsed and formatted into out as
// the one line cli shows; out is left empty for anything else.
MessageKind format_message(std::string_view text, std::span<char> out);

// Heap texts below belong to the caller (released with free()); null on failure.
tx::HeapText cut_notify(std::string_view message);
tx::HeapText cut_response(std::string_view message);
tx::HeapText build_client_ack(std::string_view notify_text,
                              const RecordSlot* slots /* 15 or null */);
int build_client_ack_into(std::string_view notify_text, const RecordSlot* slots,
                          std::span<char> out);
int send_client_ack(IpcChannel* channel, std::string_view notify_text, const RecordSlot* slots,
                    long message_type);
// 512-byte allocation: <client_request client_id=".." sub_client_id=".."
// message_seq="..">text</client_request>
tx::HeapText wrap_client_request(const struct IpcMessage& message, const char* client_id,
                                 const char* sequence_text);

long message_seq_of(std::string_view text);
long sub_client_id_of(std::string_view text);
