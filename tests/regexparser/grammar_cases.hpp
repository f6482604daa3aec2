// Case files of the command grammar tests, and the kernel command line they
// run under. A case file holds one case per line, fields separated by tabs;
// blank lines and lines starting with '#' are skipped. In a field "\t", "\n",
// "\r" and "\\" stand for those characters and "\s" for a blank (for texts
// that end in one).
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

namespace grammar_test {

using Case = std::vector<std::string>;

inline std::string unescape(std::string_view field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const char c = field[i] == '\\' && i + 1 < field.size() ? field[++i] : '\0';
        out += c == '\0'  ? field[i]
               : c == 't' ? '\t'
               : c == 'n' ? '\n'
               : c == 'r' ? '\r'
               : c == 's' ? ' '
                          : c;
    }
    return out;
}

// The cases of a file in the test's source directory.
inline std::vector<Case> read_cases(const std::string& name) {
    std::ifstream in(std::string(TX_CASES_DIR) + "/" + name);
    EXPECT_TRUE(in.is_open()) << name;
    std::vector<Case> cases;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        Case& c = cases.emplace_back();
        for (std::size_t start = 0, tab = 0; tab != std::string::npos; start = tab + 1) {
            tab = line.find('\t', start);
            c.push_back(unescape(std::string_view(line).substr(start, tab - start)));
        }
    }
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
