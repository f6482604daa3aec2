// Shared helpers of the command grammar tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include "fixed_text.hpp"
#include "os_cmdline.hpp"
#include "regexparser.hpp"
#include "request_record.hpp"

namespace grammar_test {

// Points the kernel command-line reader at a file with the given contents for
// the lifetime of the object.
class FakeCmdline {
  public:
    explicit FakeCmdline(std::string_view contents)
        : path_(testing::TempDir() + "grammar_cmdline_" + std::to_string(getpid()) + "_" +
                testing::UnitTest::GetInstance()->current_test_info()->name()) {
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << contents;
        setenv(kPlatformCmdlineEnv, path_.c_str(), 1);
    }
    FakeCmdline(const FakeCmdline&) = delete;
    FakeCmdline& operator=(const FakeCmdline&) = delete;
    ~FakeCmdline() {
        unsetenv(kPlatformCmdlineEnv);
        std::remove(path_.c_str());
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// A device with or without VoIP lines.
inline constexpr std::string_view kVoip = "console=ttyS0 voip_capable=1 quiet\n";
inline constexpr std::string_view kNoVoip = "console=ttyS0 quiet\n";

inline std::string_view text(std::span<const char> field) {
    return tx::field_view(field);
}

// Runs a handler on a line the way the matcher does: on a zeroed record.
struct HandlerRun {
    RequestRecord record{};
    std::string out;  // what the handler printed
};

inline HandlerRun run(command_handler handler, std::string_view line) {
    HandlerRun r;
    const std::string copy(line);
    testing::internal::CaptureStdout();
    handler(copy.c_str(), copy.size(), &r.record, nullptr);
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

inline bool is_zero(const RequestRecord& r) {
    static const RequestRecord zero{};
    return std::memcmp(&r, &zero, sizeof r) == 0;
}

}  // namespace grammar_test
