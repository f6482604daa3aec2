// Kernel command-line parameters, read from /proc/cmdline or, for a test rig or
// a simulated device, from the file named by PLATFORM_CMDLINE.
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

#include "fixed_text.hpp"
#include "osal.hpp"

namespace {

constexpr std::size_t kCmdlineMax = 4096;
constexpr std::size_t kVoipCapableLen = 4;

// Read with stdio: a file stream would set up the C++ locale machinery, some
// hundreds of KiB, for one short line.
bool read_cmdline(std::string& text) {
    const char* override_path = std::getenv(kPlatformCmdlineEnv);
    const char* path =
        override_path != nullptr && override_path[0] != '\0' ? override_path : "/proc/cmdline";
    FILE* in = std::fopen(path, "rb");
    if (in == nullptr) {
        return false;
    }
    char chunk[512];
    std::size_t n = 0;
    while (text.size() < kCmdlineMax && (n = std::fread(chunk, 1, sizeof chunk, in)) > 0) {
        text.append(chunk, n);
    }
    const bool failed = std::ferror(in) != 0;
    std::fclose(in);
    if (text.size() > kCmdlineMax) {
        text.resize(kCmdlineMax);
    }
    return !failed;
}

bool is_separator(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0';
}

}  // namespace

int get_os_cmdline_param(const char* name, char* out, std::size_t capacity) {
    const std::span<char> field(out, out != nullptr ? capacity : 0);
    tx::copy_bounded(field, "");
    if (name == nullptr || name[0] == '\0') {
        return -1;
    }

    std::string text;
    if (!read_cmdline(text)) {
        return -1;
    }

    const std::string_view wanted(name);
    std::size_t pos = 0;
    while (pos < text.size()) {
        while (pos < text.size() && is_separator(text[pos])) {
            ++pos;
        }
        std::size_t end = pos;
        while (end < text.size() && !is_separator(text[end])) {
            ++end;
        }
        const std::string_view word(text.data() + pos, end - pos);
        pos = end;
        if (word.empty()) {
            continue;
        }

        const std::size_t eq = word.find('=');
        if (word.substr(0, eq) != wanted) {
            continue;
        }
        tx::copy_bounded(field, eq == std::string_view::npos ? "" : word.substr(eq + 1));
        return 0;
    }
    return -1;
}

bool osal_voip_capable() {
    char value[kVoipCapableLen] = {};
    if (get_os_cmdline_param("voip_capable", value, sizeof value) != 0) {
        return false;
    }
    return std::atoi(value) != 0;
}
