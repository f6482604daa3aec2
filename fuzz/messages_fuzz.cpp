// A response or notification text through the recognisers, the parsers and
// the one-line display formats, into a full-size and into a small output
// buffer. Inputs whose first byte is odd are also formatted as raw records, so
// that unterminated fields and stray value modes reach the formatters.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "request_record.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t kDisplayLen = 512;
constexpr std::size_t kSmallMax = 40;

// The output must stay terminated inside its buffer whatever went in.
void expect_terminated(std::span<const char> out) {
    if (strnlen(out.data(), out.size()) >= out.size()) std::abort();
}

template <typename Record>
void format_both(const Record& record, std::size_t small_len,
                 int (*format)(const Record&, std::span<char>)) {
    char display[kDisplayLen] = {};
    format(record, display);
    expect_terminated(display);

    char small[kSmallMax] = {};
    const std::span<char> out(small, small_len);
    format(record, out);
    expect_terminated(out);
    // Nothing may be written past the span handed over.
    for (std::size_t i = small_len; i < kSmallMax; ++i) {
        if (small[i] != '\0') std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t control = data[0];
    const std::size_t small_len = 1 + (control >> 1) % (kSmallMax - 1);
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string_view view(text);

    // The recognisers look for their opening text anywhere in the message.
    if (is_notify(view) != (view.find("<notify") != std::string_view::npos)) std::abort();
    if (is_response(view) != (view.find("<response") != std::string_view::npos)) std::abort();
    (void)is_server_notify(view);
    (void)is_server_response(view);

    RequestRecord parsed_response{};
    parse_response(text.c_str(), text.size() + 1, &parsed_response);
    format_both<RequestRecord>(parsed_response, small_len, format_response);

    NotifyRecord parsed_notify{};
    parse_notify(text.c_str(), text.size() + 1, &parsed_notify);
    format_both<NotifyRecord>(parsed_notify, small_len, format_notify);

    // The length given may end the text early: only that much is parsed.
    RequestRecord cut_response_record{};
    parse_response(text.data(), text.size() / 2, &cut_response_record);
    format_both<RequestRecord>(cut_response_record, small_len, format_response);

    if ((control & 1) != 0) {
        RequestRecord raw_response{};
        std::memcpy(&raw_response, text.data(), std::min(text.size(), sizeof raw_response));
        format_both<RequestRecord>(raw_response, small_len, format_response);
        NotifyRecord raw_notify{};
        std::memcpy(&raw_notify, text.data(), std::min(text.size(), sizeof raw_notify));
        format_both<NotifyRecord>(raw_notify, small_len, format_notify);
    }
    return 0;
}
