// The device through cliconn. Requests go out on cli's queue with this
// process's id as their type, at most kInFlight at a time: the connector's
// outgoing queue, shared by all its clients, holds some 31 records, and a
// reply that finds it full is lost. Answers come back on this process's
// type in the order the core answers, which is not the order of sending
// once several clients share the connector; each is matched to the oldest
// request still waiting for its property and target.
#include "cliconn_link.hpp"

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
constexpr std::size_t kRequestTextLen = 256;
// How long one wait for an answer lasts before the connector is looked at.
constexpr int kWaitSliceMs = 100;
// How long a full queue is left to drain before a send is tried again.
constexpr int kSendRetryMs = 5;
constexpr std::chrono::seconds kNoAnswerLimit{5};
// The connector reads back at most five digits of a client's process id.
constexpr pid_t kMaxRoutablePid = 99999;
constexpr std::size_t kPidofLen = 256;

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

Key key_of(const RequestRecord& record) {
    return {std::string(field_view(record.property)), std::string(field_view(record.target))};
}

}  // namespace

std::vector<pid_t> pids_of(const char* name) {
    char command[kPidofLen] = {};
    std::snprintf(command, sizeof command, "pidof %s", name);
    std::vector<pid_t> pids;
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr) return pids;
    char line[kPidofLen] = {};
    if (std::fgets(line, sizeof line, pipe) != nullptr) {
        char* at = line;
        for (;;) {
            char* end = nullptr;
            const long pid = std::strtol(at, &end, 10);
            if (end == at) break;
            // Only a real process: kill() takes 0 and below for groups.
            if (pid > 1) pids.push_back(static_cast<pid_t>(pid));
            at = end;
        }
    }
    pclose(pipe);
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
    for (const pid_t pid : pids_of("cliconn")) {
        if (pid == connector_) kill(connector_, SIGUSR2);
    }
}

bool CliconnLink::interrupted() {
    return interrupt_signal != 0;
}

bool CliconnLink::connector_alive() const {
    char path[64] = {};
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(connector_));
    FILE* stat = std::fopen(path, "r");
    if (stat == nullptr) return false;
    char text[512] = {};
    const std::size_t n = std::fread(text, 1, sizeof text - 1, stat);
    std::fclose(stat);
    // "PID (NAME) STATE ...": a zombie is as gone as a process that was reaped.
    const std::string_view fields(text, n);
    const std::size_t name_end = fields.rfind(')');
    return name_end != std::string_view::npos && name_end + 2 < fields.size() &&
           fields[name_end + 2] != 'Z' && fields[name_end + 2] != 'X';
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

std::vector<Answer> CliconnLink::exchange(std::span<const RequestRecord> requests) {
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
            char xml[kRequestTextLen] = {};
            generate_xml_request(requests[sent], xml);
            if (xml[0] == '\0') {
                failure_ = "a request does not fit in one message";
                return answers;
            }
            if (channel_->send(channel_, xml, self_, 0) == 0) {
                queue_full = errno == EAGAIN;
                if (!queue_full) failure_ = "cliconn's queue is gone";
                break;
            }
            waiting[key_of(requests[sent])].push_back(sent);
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
            const auto found = waiting.find(key_of(reply));
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
