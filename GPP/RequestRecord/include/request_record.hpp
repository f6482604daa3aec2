// The request record: one accepted command line (or one parsed response). The
// grammar fills it, the message routines render and parse it.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t RECORD_FIELD_LEN = 64;    // action, property, target, slot texts
inline constexpr std::size_t RECORD_SINGLE_LEN = 321;  // one value of up to 320 characters
inline constexpr std::size_t RECORD_SLOT_COUNT = 15;

struct RecordSlot {
    char name[RECORD_FIELD_LEN];
    char value[RECORD_FIELD_LEN];
};

// One single value, or up to 15 named values, over the same storage.
union RecordValues {
    char single[RECORD_SINGLE_LEN];
    RecordSlot slots[RECORD_SLOT_COUNT];
};

// Value modes of a request: 0 none, 1 one default value, 2 named list.
inline constexpr std::uint32_t REQUEST_MODE_NONE = 0;
inline constexpr std::uint32_t REQUEST_MODE_SINGLE = 1;
inline constexpr std::uint32_t REQUEST_MODE_LIST = 2;

struct RequestRecord {
    char action[RECORD_FIELD_LEN];
    char property[RECORD_FIELD_LEN];
    char target[RECORD_FIELD_LEN];
    std::uint32_t value_mode;
    RecordValues values;
};
