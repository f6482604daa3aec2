// Command lines for the programs of this build that a test starts itself.
// In a cross build they cannot be exec'd directly: the test's environment
// names in TX_EMULATOR a launcher that runs them under the emulator and still
// lets them be found by process name. Natively the variable is empty and
// both helpers return what they are given.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace tx::test {

inline bool target_is_emulated() {
    const char* launcher = std::getenv("TX_EMULATOR");
    return launcher != nullptr && *launcher != '\0';
}

// argv[0] must be the path of a program of this build.
inline std::vector<std::string> target_command(std::vector<std::string> argv) {
    if (target_is_emulated()) {
        argv.insert(argv.begin(), std::getenv("TX_EMULATOR"));
    }
    return argv;
}

// Environment entries for such a program: a library to preload is a target
// library, which the launcher hands to the emulated loader.
inline std::vector<std::string> target_environment(std::vector<std::string> env) {
    if (target_is_emulated()) {
        constexpr std::string_view preload = "LD_PRELOAD=";
        for (auto& entry : env) {
            if (entry.starts_with(preload)) {
                entry = "TX_TARGET_PRELOAD=" + entry.substr(preload.size());
            }
        }
    }
    return env;
}

}  // namespace tx::test
