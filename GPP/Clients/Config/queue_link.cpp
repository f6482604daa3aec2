// The send/receive-and-correlate loop over a connector's queue pair.
#include "queue_link.hpp"

#include <signal.h>
#include <sys/msg.h>
#include <sys/time.h>

#include <cerrno>
#include <deque>
#include <map>
#include <utility>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "xml_messages.hpp"

namespace tx::config {

namespace {

// How long one wait for an answer lasts before the connector is looked at.
constexpr int kWaitSliceMs = 100;
// How long a full queue is left to drain before a send is tried again.
constexpr int kSendRetryMs = 5;

void on_alarm(int) {}

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

QueueLink::QueueLink(IpcChannel* channel, long type, std::string connector, std::size_t in_flight,
                     std::chrono::seconds no_answer_limit)
    : channel_(channel),
      type_(type),
      connector_(std::move(connector)),
      in_flight_limit_(in_flight),
      no_answer_limit_(no_answer_limit) {
    // Without SA_RESTART, so that the alarm ends a wait for an answer.
    struct sigaction action {};
    action.sa_handler = on_alarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
}

QueueLink::Received QueueLink::receive(IpcMessage& message, int wait_ms) {
    // The alarm repeats: one that fires before the receive has begun
    // waiting is followed by another.
    itimerval timer{};
    timer.it_value.tv_sec = wait_ms / 1000;
    timer.it_value.tv_usec = static_cast<suseconds_t>(wait_ms % 1000) * 1000;
    timer.it_interval = timer.it_value;
    setitimer(ITIMER_REAL, &timer, nullptr);
    // The channel's own receive reports every ended wait as an error; here
    // a wait ends on purpose.
    const ssize_t rc = msgrcv(channel_->receive_id, &message, IPC_PAYLOAD_LEN, type_, MSG_NOERROR);
    const int error = errno;
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    if (rc >= 0) return Received::message;
    return error == EINTR ? Received::nothing : Received::gone;
}

std::vector<Answer> QueueLink::exchange(std::span<const Request> requests) {
    using Clock = std::chrono::steady_clock;
    std::vector<Answer> answers(requests.size());
    std::map<Key, std::deque<std::size_t>> waiting;
    std::size_t sent = 0;
    std::size_t answered = 0;
    auto last_answer = Clock::now();
    while (failure_.empty() && answered < requests.size()) {
        if (failure_ = interruption(); !failure_.empty()) break;
        bool queue_full = false;
        while (sent < requests.size() && in_flight_ < in_flight_limit_) {
            const Request& request = requests[sent];
            if (channel_->send(channel_, request.xml.c_str(), type_, 0) == 0) {
                queue_full = errno == EAGAIN;
                if (!queue_full) failure_ = connector_ + "'s queue is gone";
                break;
            }
            waiting[{request.property, request.target}].push_back(sent);
            ++sent;
            ++in_flight_;
        }
        if (!failure_.empty()) break;

        IpcMessage message{};
        const Received received = receive(message, queue_full ? kSendRetryMs : kWaitSliceMs);
        if (received == Received::gone) {
            failure_ = connector_ + "'s queue is gone";
            break;
        }
        if (received == Received::message) {
            const std::string_view text = field_view(message.text);
            if (is_notify(text) || !is_response(text)) continue;
            RequestRecord reply{};
            parse_response(text.data(), text.size(), &reply);
            if (failure_ = turned_away(field_view(reply.action)); !failure_.empty()) break;
            const auto found = waiting.find(
                {std::string(field_view(reply.property)), std::string(field_view(reply.target))});
            if (found == waiting.end() || found->second.empty()) continue;
            answers[found->second.front()] = {true, reply_value(reply)};
            found->second.pop_front();
            --in_flight_;
            ++answered;
            last_answer = Clock::now();
            continue;
        }
        if (failure_ = silence();
            failure_.empty() && Clock::now() - last_answer > no_answer_limit_) {
            failure_ =
                "no answer from the device for " + std::to_string(no_answer_limit_.count()) + " s";
        }
    }
    return answers;
}

bool QueueLink::drain(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (in_flight_ > 0 && std::chrono::steady_clock::now() < end) {
        IpcMessage message{};
        const Received received = receive(message, kWaitSliceMs);
        if (received == Received::gone) break;
        const std::string_view text = field_view(message.text);
        if (received == Received::message && !is_notify(text) && is_response(text)) --in_flight_;
    }
    return in_flight_ == 0;
}

}  // namespace tx::config
