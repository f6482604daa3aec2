// The simulated device under a benchmark: coresim and cliconn, started by the
// benchmark itself and stopped when it ends. They meet through /tmp paths
// and System V queues, so a benchmark that uses them runs inside the sandbox
// (tools/sandbox build/bin/NAME_bench) and refuses to run anywhere else. The
// programs are taken from TX_BIN_DIR, or from the benchmark's own directory.
#pragma once

#include <sys/types.h>

#include <string>

namespace tx::bench {

// The directory the system's programs are taken from.
std::string bin_dir();

// Waits for a started program and gives its exit status (-1: a signal ended it).
int reap(pid_t pid);

class SimulatedStack {
  public:
    // Prints why and leaves ready() false when not inside the sandbox or when
    // a program does not come up. `name` is the benchmark's, for the message.
    explicit SimulatedStack(const char* name);
    ~SimulatedStack();
    SimulatedStack(const SimulatedStack&) = delete;
    SimulatedStack& operator=(const SimulatedStack&) = delete;

    bool ready() const { return ready_; }

  private:
    pid_t coresim_ = -1;
    pid_t cliconn_ = -1;
    bool ready_ = false;
};

}  // namespace tx::bench
