// The device through cliconn. Requests go out on cli's queue with this
// process's id as their type, at most kInFlight at a time: the connector's
// outgoing queue, shared by all its clients, holds some 31 records, and a
// reply that finds it full is lost. Answers come back on this process's
// type in the order the core answers, which is not the order of sending
// once several clients share the connector; each is matched to the oldest
// request still waiting for its property and target.
#include "cliconn_link.hpp"

#include <dirent.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <utility>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "xml_messages.hpp"

namespace tx::config {

namespace {

constexpr std::size_t kInFlight = 16;
// How long one wait for an answer lasts before the connector is looked at.
constexpr int kWaitSliceMs = 100;
// How long a full queue is left to drain before a send is tried again.
constexpr int kSendRetryMs = 5;
constexpr std::chrono::seconds kNoAnswerLimit{5};
// The connector reads back at most five digits of a client's process id.
constexpr pid_t kMaxRoutablePid = 99999;

volatile std::sig_atomic_t interrupt_signal = 0;

void on_interrupt(int signo) {
    interrupt_signal = signo;
}
void on_alarm(int) {}

// Without SA_RESTART, so that the signal ends a wait for an answer.
void install(int signo, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

std::string reply_value(const RequestRecord& reply) {
    if (reply.value_mode == PARSED_MODE_SINGLE) return std::string(field_view(reply.values.single));
    std::string value;
    for (const RecordSlot& slot : reply.values.slots) {
        if (slot.name[0] == '\0' && slot.value[0] == '\0') continue;
        if (!value.empty()) value += ' ';
        value += field_view(slot.value);
    }
    return value;
}

using Key = std::pair<std::string, std::string>;  // property, target

}  // namespace

namespace {

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
    install(SIGINT, on_interrupt);
    install(SIGTERM, on_interrupt);
    install(SIGALRM, on_alarm);
    return std::unique_ptr<CliconnLink>(new CliconnLink(pids.front(), channel));
}

CliconnLink::CliconnLink(pid_t connector, IpcChannel* channel)
    : connector_(connector), self_(getpid()), channel_(channel) {}

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

CliconnLink::Received CliconnLink::receive(IpcMessage& message, int wait_ms) {
    // The alarm repeats: one that fires before the receive has begun
    // waiting is followed by another.
    itimerval timer{};
    timer.it_value.tv_sec = wait_ms / 1000;
    timer.it_value.tv_usec = static_cast<suseconds_t>(wait_ms % 1000) * 1000;
    timer.it_interval = timer.it_value;
    setitimer(ITIMER_REAL, &timer, nullptr);
    // The channel's own receive reports every ended wait as an error; here
    // a wait ends on purpose.
    const ssize_t rc = msgrcv(channel_->receive_id, &message, IPC_PAYLOAD_LEN, self_, MSG_NOERROR);
    const int error = errno;
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    if (rc >= 0) return Received::message;
    return error == EINTR ? Received::nothing : Received::gone;
}

std::vector<Answer> CliconnLink::exchange(std::span<const Request> requests) {
    using Clock = std::chrono::steady_clock;
    std::vector<Answer> answers(requests.size());
    std::map<Key, std::deque<std::size_t>> waiting;
    std::size_t sent = 0;
    std::size_t in_flight = 0;
    std::size_t answered = 0;
    auto last_answer = Clock::now();
    while (failure_.empty() && answered < requests.size()) {
        if (interrupted()) {
            failure_ = interrupt_signal == SIGTERM ? "terminated" : "interrupted";
            break;
        }
        bool queue_full = false;
        while (sent < requests.size() && in_flight < kInFlight) {
            const Request& request = requests[sent];
            if (channel_->send(channel_, request.xml.c_str(), self_, 0) == 0) {
                queue_full = errno == EAGAIN;
                if (!queue_full) failure_ = "cliconn's queue is gone";
                break;
            }
            waiting[{request.property, request.target}].push_back(sent);
            ++sent;
            ++in_flight;
        }
        if (!failure_.empty()) break;

        IpcMessage message{};
        const Received received = receive(message, queue_full ? kSendRetryMs : kWaitSliceMs);
        if (received == Received::gone) {
            failure_ = "cliconn's queue is gone";
            break;
        }
        if (received == Received::message) {
            const std::string_view text = field_view(message.text);
            if (is_notify(text) || !is_response(text)) continue;
            RequestRecord reply{};
            parse_response(text.data(), text.size(), &reply);
            if (field_view(reply.action) == "terminate_client") {
                failure_ = "cliconn serves four clients already and turned txconfig away";
                break;
            }
            const auto found = waiting.find(
                {std::string(field_view(reply.property)), std::string(field_view(reply.target))});
            if (found == waiting.end() || found->second.empty()) continue;
            answers[found->second.front()] = {true, reply_value(reply)};
            found->second.pop_front();
            --in_flight;
            ++answered;
            last_answer = Clock::now();
            continue;
        }
        if (!connector_alive()) {
            failure_ = "cliconn (process " + std::to_string(connector_) + ") has gone";
        } else if (Clock::now() - last_answer > kNoAnswerLimit) {
            failure_ = "no answer from the device for 5 s";
        }
    }
    return answers;
}

}  // namespace tx::config
