// Case files of the command grammar tests (see support/table.hpp), and the
// kernel command line they run under.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "osal.hpp"
#include "support/table.hpp"

namespace grammar_test {

using Case = tx::test::Row;

// The cases of a file in the test's source directory.
inline std::vector<Case> read_cases(const std::string& name) {
    std::vector<Case> cases = tx::test::read_table(std::string(TX_CASES_DIR) + "/" + name);
    EXPECT_FALSE(cases.empty()) << name;
    return cases;
}

// Points the kernel command-line reader at a file with the given contents
// ("<no file>": at a file that does not exist) for the lifetime of the object.
class FakeCmdline {
  public:
    explicit FakeCmdline(std::string_view contents)
        : path_(testing::TempDir() + "grammar_cmdline_" + std::to_string(getpid())) {
        if (contents != "<no file>") std::ofstream(path_, std::ios::trunc) << contents;
        setenv(kPlatformCmdlineEnv, path_.c_str(), 1);
    }
    FakeCmdline(const FakeCmdline&) = delete;
    FakeCmdline& operator=(const FakeCmdline&) = delete;
    ~FakeCmdline() {
        unsetenv(kPlatformCmdlineEnv);
        std::remove(path_.c_str());
    }

  private:
    std::string path_;
};

}  // namespace grammar_test
