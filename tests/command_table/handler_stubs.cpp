// Empty stand-ins for the command handlers, linked only while the handlers
// themselves are not part of the build: the table needs their addresses, the
// table checks never call them.
#include "GPP/RegexParser/regexparser.hpp"

#define TX_STUB(fn) \
    void fn(const char*, std::size_t, RequestRecord*, const command_entry*) {}

TX_STUB(handle_get)
TX_STUB(handle_get_voip)
TX_STUB(handle_set)
TX_STUB(handle_set_voip)
TX_STUB(handle_set_plain)
TX_STUB(handle_set_as_report)
TX_STUB(handle_set_multi)
TX_STUB(handle_line_value)
TX_STUB(handle_mic_report)
TX_STUB(handle_mic_get)
TX_STUB(handle_line_get)
TX_STUB(handle_reset_setting)
TX_STUB(handle_call_info_report)
TX_STUB(handle_call_action)
TX_STUB(handle_dial)
TX_STUB(handle_swap)
TX_STUB(handle_transfer)
TX_STUB(handle_join)
TX_STUB(handle_source_target)
TX_STUB(handle_property_value)
TX_STUB(handle_property_only)
TX_STUB(handle_single_arg)
TX_STUB(handle_word_only)
TX_STUB(handle_regnotify)
TX_STUB(handle_cam_decrement)
TX_STUB(handle_cam_increment)
