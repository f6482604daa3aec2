// What the end-to-end tests need to run the system's programs: one process
// launcher, one wait-until, one file reader, and the table files their cases
// live in. The tests run as the first process of tools/sandbox, where every
// path below /tmp is their own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/table.hpp"

namespace tx::test {

using namespace std::chrono_literals;

// The whole file, or "" when it cannot be read.
std::string read_file(const std::string& path);

// Polls `done` until it holds or `limit` has passed; returns its last answer.
bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit = 15s);

// Splits `text` at `separator`; "" gives no parts, nor does a final separator.
std::vector<std::string> split(const std::string& text, char separator);

// The command line that starts a program of this build: the program itself,
// or in a cross build the emulator launcher (TX_EMULATOR) in front of it,
// which keeps the program's name as its process name.
std::vector<std::string> target(const std::string& path);

// The path of a program in the build's bin directory (TX_BIN_DIR).
std::string bin(std::string_view name);

// Whether the test may run a program as `uid`: it is root in a namespace
// that maps the uids from 0 up to that one.
bool uid_usable(uid_t uid);

// The reports that sanitized programs started here have written so far.
std::string sanitizer_reports();

// A started program that is always reaped: ended with SIGTERM (and SIGKILL
// after two seconds) when it still runs at destruction.
class Process {
  public:
    // Standard output goes to `log`, standard error to `log` + ".err"; `env`
    // holds NAME=value entries on top of the test's own; with `input` the
    // standard input is a pipe fed by write(), else /dev/null; a `uid` other
    // than 0 is taken before the program starts.
    Process(const std::vector<std::string>& argv, std::string log,
            std::vector<std::string> env = {}, bool input = false, uid_t uid = 0);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    std::string output() const { return read_file(log_); }
    void write(std::string_view text);
    void close_input();
    void signal(int signo) const;
    // Exit status, 128 + signal number when a signal ended it, or -1 while it
    // still runs after `limit`.
    int wait(std::chrono::milliseconds limit = 15s);

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    int status_ = -1;
    std::string log_;
};

}  // namespace tx::test
