// Whole-block binary load and save of a memory block, and lookups in the
// fixed name/value and pair tables.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "request_record.hpp"

// 1 when the whole block of size bytes was read from path, else 0 (bytes that
// were read stay in the buffer). An unopenable file prints
// "bin_serialization:68: failed to open file PATH".
int block_load(void* buffer, std::size_t size, const char* path);
// 1 when the whole block was written to path (created or truncated), else 0.
int block_save(const void* buffer, std::size_t size, const char* path);

// A name/value table: 15 entries of {name, value}, 64 characters each.
using NameValueTable = std::span<const RecordSlot, RECORD_SLOT_COUNT>;
// The value of the first entry whose name equals name exactly, or null.
const char* table_value(NameValueTable table, std::string_view name);

// A pair table ends with a pair whose looked-at member is null.
struct TextPair {
    const char* first;
    const char* second;
};
// The first member of the first pair whose second equals second, or null.
const char* pair_first_of(std::string_view second, const TextPair* pairs);
// The second member of the first pair whose first equals first, or null.
const char* pair_second_of(std::string_view first, const TextPair* pairs);

// Removes one trailing blank from a text of at least 2 characters; returns the
// resulting length.
std::size_t strip_trailing_space(std::span<char> text);
