// The command handlers, listed once: the declarations below and the table of
// their names for listings come from this one list.
#pragma once

#include <string_view>

#include "regexparser.hpp"

#define TX_COMMAND_HANDLERS(X) \
    X(handle_get)              \
    X(handle_get_voip)         \
    X(handle_set)              \
    X(handle_set_voip)         \
    X(handle_set_plain)        \
    X(handle_set_as_report)    \
    X(handle_set_multi)        \
    X(handle_line_value)       \
    X(handle_mic_report)       \
    X(handle_mic_get)          \
    X(handle_line_get)         \
    X(handle_reset_setting)    \
    X(handle_call_info_report) \
    X(handle_call_action)      \
    X(handle_dial)             \
    X(handle_swap)             \
    X(handle_transfer)         \
    X(handle_join)             \
    X(handle_source_target)    \
    X(handle_property_value)   \
    X(handle_property_only)    \
    X(handle_single_arg)       \
    X(handle_word_only)        \
    X(handle_regnotify)        \
    X(handle_cam_decrement)    \
    X(handle_cam_increment)

#define TX_DECLARE_HANDLER(name) \
    void name(std::string_view line, const tx::grammar::Caller& caller, tx::grammar::Match& match);
TX_COMMAND_HANDLERS(TX_DECLARE_HANDLER)
#undef TX_DECLARE_HANDLER
