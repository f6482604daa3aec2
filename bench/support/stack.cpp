#include "stack.hpp"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "spawn.hpp"

namespace tx::bench {

namespace {

bool queue_exists(const char* token) {
    const key_t key = ftok(token, 'a');
    return key != -1 && msgget(key, 0) >= 0;
}

template <typename Ready>
bool wait_for(Ready ready) {
    for (int i = 0; i < 500; ++i) {
        if (ready()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    reap(pid);
}

}  // namespace

std::string bin_dir() {
    if (const char* dir = std::getenv("TX_BIN_DIR")) return dir;
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

int reap(pid_t pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

SimulatedStack::SimulatedStack(const char* name) {
    if (getpid() != 1) {
        std::fprintf(stderr,
                     "%s starts its own cliconn and coresim; run it inside the sandbox:\n"
                     "  tools/sandbox %s/%s\n",
                     name, bin_dir().c_str(), name);
        return;
    }
    // Leaving clients signal cliconn around; nothing here should mind.
    signal(SIGUSR2, SIG_IGN);
    // The simulated device is a VoIP model.
    std::ofstream("/tmp/cmdline") << "voip_capable=1\n";
    setenv("PLATFORM_CMDLINE", "/tmp/cmdline", 1);
    const std::string dir = bin_dir();
    coresim_ = tx::spawn({dir + "/coresim"});
    if (!wait_for([] {
            return std::filesystem::exists("/tmp/CoreTxEvent0") &&
                   std::filesystem::exists("/tmp/CoreTxEvent1");
        })) {
        std::fprintf(stderr, "coresim did not come up\n");
        return;
    }
    cliconn_ = tx::spawn({dir + "/cliconn"});
    if (!wait_for([] {
            return queue_exists("/tmp/cli_in_token") && queue_exists("/tmp/cli_out_token");
        })) {
        std::fprintf(stderr, "cliconn did not come up\n");
        return;
    }
    ready_ = true;
}

SimulatedStack::~SimulatedStack() {
    stop(cliconn_);
    stop(coresim_);
}

}  // namespace tx::bench
