// Handler names for listings and documentation: the table stores function
// pointers, and people read names.
#include <array>

#include "handlers.hpp"

namespace {

struct handler_name {
    command_handler handler;
    const char* name;
};

#define TX_HANDLER_NAME(fn) handler_name{fn, #fn},
constexpr std::array handler_names{TX_COMMAND_HANDLERS(TX_HANDLER_NAME)};
#undef TX_HANDLER_NAME

}  // namespace

namespace tx::grammar {

const char* command_handler_name(command_handler handler) {
    if (handler == nullptr) return nullptr;
    for (const auto& entry : handler_names) {
        if (entry.handler == handler) return entry.name;
    }
    return nullptr;
}

}  // namespace tx::grammar
