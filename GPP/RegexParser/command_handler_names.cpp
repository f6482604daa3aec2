// Handler names for listings and documentation: the table stores function
// pointers, and people read names.
#include <array>

#include "regexparser.hpp"

namespace {

struct handler_name {
    command_handler handler;
    const char* name;
};

#define TX_HANDLER(fn) \
    handler_name {     \
        fn, #fn        \
    }

constexpr std::array handler_names{
    TX_HANDLER(handle_get),
    TX_HANDLER(handle_get_voip),
    TX_HANDLER(handle_set),
    TX_HANDLER(handle_set_voip),
    TX_HANDLER(handle_set_plain),
    TX_HANDLER(handle_set_as_report),
    TX_HANDLER(handle_set_multi),
    TX_HANDLER(handle_line_value),
    TX_HANDLER(handle_mic_report),
    TX_HANDLER(handle_mic_get),
    TX_HANDLER(handle_line_get),
    TX_HANDLER(handle_reset_setting),
    TX_HANDLER(handle_call_info_report),
    TX_HANDLER(handle_call_action),
    TX_HANDLER(handle_dial),
    TX_HANDLER(handle_swap),
    TX_HANDLER(handle_transfer),
    TX_HANDLER(handle_join),
    TX_HANDLER(handle_source_target),
    TX_HANDLER(handle_property_value),
    TX_HANDLER(handle_property_only),
    TX_HANDLER(handle_single_arg),
    TX_HANDLER(handle_word_only),
    TX_HANDLER(handle_regnotify),
    TX_HANDLER(handle_cam_decrement),
    TX_HANDLER(handle_cam_increment),
};

#undef TX_HANDLER

}  // namespace

const char* command_handler_name(command_handler handler) {
    if (handler == nullptr) return nullptr;
    for (const auto& entry : handler_names) {
        if (entry.handler == handler) return entry.name;
    }
    return nullptr;
}
