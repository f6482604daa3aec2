// Small work queues of the connector library: the process-wide message stack
// between a connector's core reader and its worker, and a blocking ring of
// 32-bit words.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string_view>

inline constexpr int MESSAGE_STACK_DEPTH = 20;

// Stores a copy of text on the stack; never blocks. A full stack prints
// "queue:60: queue if full, unable to enqueue" and drops the text.
void message_stack_push(std::string_view text);
// Blocks until an entry exists, then hands out the newest one: at most length
// characters are copied, so a text of length characters or more arrives
// without a terminator.
void message_stack_pop(char* destination, std::size_t length);
// Number of filled slots.
int message_stack_count();
// Drops every entry (used when a process restarts its pipeline).
void message_stack_clear();

// A bounded FIFO of words; put blocks while full, take while empty.
struct WordRing {
    std::uint32_t* slots;  // owned by the creator
    std::uint32_t capacity;
    std::uint32_t count;
    std::uint32_t put_index;
    std::uint32_t take_index;
    std::mutex mutex;
    std::condition_variable not_full;
    std::condition_variable not_empty;
};

// Prepares ring over storage (capacity = storage.size(), which must be >= 1).
void ring_init(WordRing& ring, std::span<std::uint32_t> storage);
void ring_put(WordRing& ring, std::uint32_t word);
std::uint32_t ring_take(WordRing& ring);
std::uint32_t ring_count(WordRing& ring);
