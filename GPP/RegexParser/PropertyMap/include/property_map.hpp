// Full property keys ("audio.speaker-volume") and command names
// ("speaker-volume"), and response action words and their display words.
#pragma once

#include <string_view>

struct PropertyNameMap {
    const char* key;   // namespace, dot, name
    const char* name;  // the command name
};
struct ActionNameMap {
    const char* action;
    const char* display;
};

// 265 rows in table order, closed by a row of nulls.
extern const PropertyNameMap property_name_map[];
extern const ActionNameMap action_name_map[];

// Linear, exact, case-sensitive lookups; first match wins; null when absent.
const char* property_key_for_name(std::string_view name);
const char* property_name_for_key(std::string_view key);
const char* action_name_for_key(std::string_view action);
