#include "queue.hpp"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// Last in, first out on purpose: under load the most recent record from the
// core is the one worth handling first.
struct MessageStack {
    std::array<std::string, MESSAGE_STACK_DEPTH> entries;
    int count = 0;
    std::mutex mutex;
    std::condition_variable not_empty;
};

MessageStack& message_stack() {
    static MessageStack stack;
    return stack;
}

}  // namespace

void message_stack_push(std::string_view text) {
    MessageStack& stack = message_stack();
    {
        std::lock_guard lock(stack.mutex);
        if (stack.count < MESSAGE_STACK_DEPTH) {
            stack.entries[static_cast<std::size_t>(stack.count)].assign(text);
            ++stack.count;
        } else {
            std::printf("%s:%d: queue if full, unable to enqueue", "queue", 60);
            std::fflush(stdout);
        }
        // Wakes a waiting worker even when the text was dropped.
        stack.not_empty.notify_one();
    }
}

void message_stack_pop(char* destination, std::size_t length) {
    MessageStack& stack = message_stack();
    std::unique_lock lock(stack.mutex);
    stack.not_empty.wait(lock, [&] { return stack.count >= 1; });
    std::string& entry = stack.entries[static_cast<std::size_t>(stack.count - 1)];
    if (destination != nullptr && length > 0) {
        // Deliberately unterminated when the text fills the destination.
        std::strncpy(destination, entry.c_str(), length);
    }
    entry.clear();
    entry.shrink_to_fit();
    --stack.count;
}

int message_stack_count() {
    MessageStack& stack = message_stack();
    std::lock_guard lock(stack.mutex);
    return stack.count;
}

void message_stack_clear() {
    MessageStack& stack = message_stack();
    std::lock_guard lock(stack.mutex);
    for (auto& entry : stack.entries) entry.clear();
    stack.count = 0;
}

void ring_init(WordRing& ring, std::span<std::uint32_t> storage) {
    std::lock_guard lock(ring.mutex);
    ring.slots = storage.data();
    ring.capacity = static_cast<std::uint32_t>(storage.size());
    ring.count = 0;
    ring.put_index = 0;
    ring.take_index = 0;
}

void ring_put(WordRing& ring, std::uint32_t word) {
    {
        std::unique_lock lock(ring.mutex);
        ring.not_full.wait(lock, [&] { return ring.count != ring.capacity; });
        ring.slots[ring.put_index] = word;
        ++ring.count;
        ring.put_index = (ring.put_index + 1) % ring.capacity;
    }
    ring.not_empty.notify_all();
}

std::uint32_t ring_take(WordRing& ring) {
    std::uint32_t word = 0;
    {
        std::unique_lock lock(ring.mutex);
        ring.not_empty.wait(lock, [&] { return ring.count != 0; });
        word = ring.slots[ring.take_index];
        --ring.count;
        ring.take_index = (ring.take_index + 1) % ring.capacity;
    }
    ring.not_full.notify_all();
    return word;
}

std::uint32_t ring_count(WordRing& ring) {
    std::lock_guard lock(ring.mutex);
    return ring.count;
}
