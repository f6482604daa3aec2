// Arbitrary command lines (up to 500 bytes, any bytes) through the matcher as
// root and as an ordinary user, through one handler chosen by the first byte,
// and every resulting record through the request renderer.
#include <stdlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "matcher_detail.hpp"
#include "regexparser.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t kMaxLine = 500;
constexpr std::size_t kCallerBuffer = 256;

constexpr std::array<command_handler, 26> kHandlers = {
    handle_get,
    handle_get_voip,
    handle_set,
    handle_set_voip,
    handle_set_plain,
    handle_set_as_report,
    handle_set_multi,
    handle_line_value,
    handle_mic_report,
    handle_mic_get,
    handle_line_get,
    handle_reset_setting,
    handle_call_info_report,
    handle_call_action,
    handle_dial,
    handle_swap,
    handle_transfer,
    handle_join,
    handle_source_target,
    handle_property_value,
    handle_property_only,
    handle_single_arg,
    handle_word_only,
    handle_regnotify,
    handle_cam_decrement,
    handle_cam_increment,
};

void render(const RequestRecord& record) {
    std::array<char, kCallerBuffer> out{};
    generate_xml_request(record, out);
    if (out.back() != '\0') {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Refusals and regcomp reports would flood the fuzzer's output.
    std::FILE* sink = std::freopen("/dev/null", "w", stdout);
    static_cast<void>(sink);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxLine) {
        size = kMaxLine;
    }
    const std::string line(reinterpret_cast<const char*>(data), size);
    const tx::grammar::Matcher& matcher = tx::grammar::command_matcher();

    for (uid_t uid : {uid_t{0}, uid_t{1001}}) {
        RequestRecord record{};
        matcher.match(line.c_str(), line.size(), &record, uid);
        render(record);
    }

    if (size > 0) {
        RequestRecord record{};
        const command_handler handler = kHandlers[data[0] % kHandlers.size()];
        handler(line.c_str() + 1, line.size() - 1, &record, nullptr);
        render(record);
    }
    return 0;
}
