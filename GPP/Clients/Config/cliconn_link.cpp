// The device through cliconn. Requests go out on cli's queue with this
// process's id as their type, at most kInFlight at a time: the connector's
// outgoing queue, shared by all its clients, holds some 31 records, and a
// reply that finds it full is lost.
#include "cliconn_link.hpp"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "ipc_channel.hpp"

namespace tx::config {

namespace {

constexpr std::size_t kInFlight = 16;
constexpr std::chrono::seconds kNoAnswerLimit{5};
// The connector reads back at most five digits of a client's process id.
constexpr pid_t kMaxRoutablePid = 99999;

volatile std::sig_atomic_t interrupt_signal = 0;

void on_interrupt(int signo) {
    interrupt_signal = signo;
}

// A process's name and state from /proc/PID/stat ("PID (NAME) STATE ..."),
// false when it has gone.
bool name_and_state(pid_t pid, std::string& name, char& state) {
    char path[64] = {};
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE* stat = std::fopen(path, "r");
    if (stat == nullptr) return false;
    char text[512] = {};
    const std::size_t n = std::fread(text, 1, sizeof text - 1, stat);
    std::fclose(stat);
    const std::string_view fields(text, n);
    const std::size_t open = fields.find('(');
    const std::size_t close = fields.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open ||
        close + 2 >= fields.size()) {
        return false;
    }
    name = fields.substr(open + 1, close - open - 1);
    state = fields[close + 2];
    return true;
}

}  // namespace

// What "pidof NAME" gives, without a shell and a program to run: the running
// processes of that name (an emulated program too: its emulator is started
// under the program's name). A zombie is as gone as a reaped process.
std::vector<pid_t> pids_of(const char* name) {
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return pids;
    while (const dirent* entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        std::string found;
        char state = 0;
        // Only a real process: kill() takes 0 and below for groups.
        if (*end != '\0' || pid <= 1 || !name_and_state(static_cast<pid_t>(pid), found, state)) {
            continue;
        }
        if (found == name && state != 'Z' && state != 'X') pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    return pids;
}

std::unique_ptr<CliconnLink> CliconnLink::open(std::string& error) {
    const std::vector<pid_t> pids = pids_of("cliconn");
    if (pids.empty()) {
        error = "cliconn is not running; txconfig reaches the device through it";
        return nullptr;
    }
    if (getpid() > kMaxRoutablePid) {
        error = "process id " + std::to_string(getpid()) +
                " is above 99999, and cliconn routes replies by five digits";
        return nullptr;
    }
    IpcChannel* channel = &cli_client_channel;
    if (channel->open(channel, 'u') < 0) {
        error = "cannot reach cliconn's queues";
        return nullptr;
    }
    // Without SA_RESTART, so that the signal ends a wait for an answer.
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return std::unique_ptr<CliconnLink>(new CliconnLink(pids.front(), channel));
}

CliconnLink::CliconnLink(pid_t connector, IpcChannel* channel)
    : QueueLink(channel, getpid(), "cliconn", kInFlight, kNoAnswerLimit), connector_(connector) {}

CliconnLink::~CliconnLink() {
    // Its session table has four places; a client that leaves says so. A
    // connector that is gone, or whose id now names another process, is
    // not signalled.
    if (connector_alive()) kill(connector_, SIGUSR2);
}

bool CliconnLink::interrupted() {
    return interrupt_signal != 0;
}

bool CliconnLink::connector_alive() const {
    std::string name;
    char state = 0;
    return name_and_state(connector_, name, state) && name == "cliconn" && state != 'Z' &&
           state != 'X';
}

std::string CliconnLink::interruption() const {
    if (!interrupted()) return {};
    return interrupt_signal == SIGTERM ? "terminated" : "interrupted";
}

std::string CliconnLink::silence() const {
    if (connector_alive()) return {};
    return "cliconn (process " + std::to_string(connector_) + ") has gone";
}

std::string CliconnLink::turned_away(std::string_view action) const {
    if (action != "terminate_client") return {};
    return "cliconn serves four clients already and turned txconfig away";
}

}  // namespace tx::config
