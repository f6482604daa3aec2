// Fixed-capacity text fields: every copy into one goes through copy_bounded,
// which cuts the text to the field's capacity minus one and terminates it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace tx {

// Copies at most min(limit, dst.size() - 1) characters of src into dst and
// terminates it. Returns the number of characters copied.
inline std::size_t copy_bounded(std::span<char> dst, std::string_view src,
                                std::size_t limit = std::string_view::npos) noexcept {
    if (dst.empty()) return 0;
    const std::size_t n = std::min({src.size(), dst.size() - 1, limit});
    if (n != 0) std::memcpy(dst.data(), src.data(), n);
    dst[n] = '\0';
    return n;
}

// Appends at most `limit` characters of src to the terminated text in dst,
// never beyond dst's capacity. Returns the new length.
inline std::size_t append_bounded(std::span<char> dst, std::string_view src,
                                  std::size_t limit = std::string_view::npos) noexcept {
    if (dst.empty()) return 0;
    const std::size_t used = strnlen(dst.data(), dst.size() - 1);
    return used + copy_bounded(dst.subspan(used), src, limit);
}

// The field's text as a view (up to its terminator, never past its end).
inline std::string_view field_view(std::span<const char> field) noexcept {
    return {field.data(), strnlen(field.data(), field.size())};
}

// Heap texts handed to callers by the message routines are released with free().
struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
using HeapText = std::unique_ptr<char, FreeDeleter>;

}  // namespace tx
