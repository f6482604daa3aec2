// The command language: the table of accepted commands, the matcher that
// turns a line into a request record, help listings and the command handlers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "request_record.hpp"

struct command_entry;

// handler(line, length, record, row): fills the cleared record from the line.
using command_handler = void (*)(const char* line, std::size_t length, RequestRecord* record,
                                 const command_entry* row);

struct command_entry {
    const char* regex;        // POSIX extended, anchored with '^'
    command_handler handler;  // null only in the terminating row
    const char* help;         // "\"syntax\" - description"
    std::int32_t category;    // one of the categories below
};

namespace tx::grammar {

// Help categories. 1..9 are the help topics, open to everyone.
inline constexpr std::int32_t kHidden = 0;  // root only, listed by "help hidden" alone
inline constexpr std::int32_t kSys = 1;
inline constexpr std::int32_t kAudio = 2;
inline constexpr std::int32_t kCall = 3;
inline constexpr std::int32_t kNet = 4;
inline constexpr std::int32_t kBt = 5;
inline constexpr std::int32_t kBm64 = 6;
inline constexpr std::int32_t kBle = 7;
inline constexpr std::int32_t kCam = 8;
inline constexpr std::int32_t kVoip = 9;
inline constexpr std::int32_t kUnlisted = 10;      // everyone, never listed by help
inline constexpr std::int32_t kRootUnlisted = 11;  // root only, never listed by help

// Rows that only root may run; to anyone else they are lines that match nothing.
constexpr bool is_root_only(std::int32_t category) noexcept {
    return category == kHidden || category == kRootUnlisted;
}

}  // namespace tx::grammar

// 502 rows and a terminating row of zeros.
extern const command_entry command_table[];

// 1 when the line was accepted and the record filled, 0 when rejected.
int regexparser_match(const char* line, std::size_t length, RequestRecord* record);
// Prints help; topic_text is what followed "help" on the line.
void regexparser_help(const char* topic_text);
void regexparser_help_usage();
// The index position at which the matcher starts scanning.
int command_index_lookup(const char* line, std::size_t length);

// The handler's name as written in the table ("handle_get"), or null.
const char* command_handler_name(command_handler handler);

// Handlers.
void handle_get(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_get_voip(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_set(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_set_voip(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_set_plain(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_set_as_report(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_set_multi(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_line_value(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_mic_report(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_mic_get(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_line_get(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_reset_setting(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_call_info_report(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_call_action(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_dial(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_swap(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_transfer(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_join(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_source_target(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_property_value(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_property_only(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_single_arg(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_word_only(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_regnotify(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_cam_decrement(const char*, std::size_t, RequestRecord*, const command_entry*);
void handle_cam_increment(const char*, std::size_t, RequestRecord*, const command_entry*);
