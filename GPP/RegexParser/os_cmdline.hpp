// Reading parameters of the kernel command line ("name=value" words).
#pragma once

#include <cstddef>

// The file read instead of /proc/cmdline when this environment variable names one.
inline constexpr const char* kPlatformCmdlineEnv = "PLATFORM_CMDLINE";

// Copies the value of the first parameter called `name` into out, cut to
// capacity - 1 characters and terminated. Returns 0 when found, -1 when the
// parameter is absent or the command line cannot be read (out then empty).
int get_os_cmdline_param(const char* name, char* out, std::size_t capacity);

namespace tx::grammar {
// The device's voip_capable parameter as a decimal number; 0 when absent.
// Read afresh on every call.
int voip_capable();
}  // namespace tx::grammar
