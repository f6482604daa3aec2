#include "bin_serialization.hpp"

#include <cstdio>
#include <cstring>
#include <memory>

#include "fixed_text.hpp"

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

int block_load(void* buffer, std::size_t size, const char* path) {
    File file(std::fopen(path, "rb"));
    if (!file) {
        std::printf("%s:%d: failed to open file %s\n", "bin_serialization", 68, path);
        return 0;
    }
    return std::fread(buffer, size, 1, file.get()) == 1 ? 1 : 0;
}

int block_save(const void* buffer, std::size_t size, const char* path) {
    File file(std::fopen(path, "wb+"));
    if (!file) {
        std::printf("%s:%d: failed to open file %s\n", "bin_serialization", 36, path);
        return 0;
    }
    if (std::fwrite(buffer, size, 1, file.get()) != 1) return 0;
    // A failure to flush the block is a failure to save it.
    return std::fclose(file.release()) == 0 ? 1 : 0;
}

const char* table_value(NameValueTable table, std::string_view name) {
    for (const RecordSlot& entry : table) {
        if (tx::field_view(entry.name) == name) return entry.value;
    }
    return nullptr;
}

const char* pair_first_of(std::string_view second, const TextPair* pairs) {
    if (pairs == nullptr) return nullptr;
    for (const TextPair* p = pairs; p->second != nullptr; ++p) {
        if (second == p->second) return p->first;
    }
    return nullptr;
}

const char* pair_second_of(std::string_view first, const TextPair* pairs) {
    if (pairs == nullptr) return nullptr;
    for (const TextPair* p = pairs; p->first != nullptr; ++p) {
        if (first == p->first) return p->second;
    }
    return nullptr;
}

std::size_t strip_trailing_space(std::span<char> text) {
    std::size_t length = strnlen(text.data(), text.size());
    if (length >= 2 && text[length - 1] == ' ') text[--length] = '\0';
    return length;
}
