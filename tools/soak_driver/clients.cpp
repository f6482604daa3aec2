#include "clients.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "processes.hpp"
#include "spawn.hpp"

namespace soak {

namespace {

using namespace std::chrono_literals;

// What each client asks about: a setting whose value 1 to 15 the grammar
// takes, and a call line.
constexpr std::array<std::pair<const char*, const char*>, 4> CLIENT_SUBJECTS = {{
    {"speaker-volume", "1"},
    {"ringer-volume", "2"},
    {"reg-timeout", "3"},
    {"aux-in-level", "usb"},
}};
constexpr auto LINE_INTERVAL = 300ms;
constexpr auto STOP_GRACE = 3s;

// Message type and the property it asks about.
constexpr std::array<std::pair<long, const char*>, 2> CGI_SUBJECTS = {{
    {4242, "audio.mute"},
    {4343, "sys.systemname"},
}};
constexpr auto CGI_INTERVAL = 250ms;

std::string line_for(unsigned step, const char* setting, const char* call_line) {
    switch (step % 5) {
        case 0:
        case 3:
            return std::string("get ") + setting;
        case 1:
            return std::string("set ") + setting + " " + std::to_string(1 + step % 15);
        case 2:
            return std::string("dial ") + call_line + " 1234";
        default:
            return std::string("hangup ") + call_line;
    }
}

std::chrono::milliseconds between(std::mt19937& random, int low_ms, int high_ms) {
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(low_ms, high_ms)(random));
}

}  // namespace

CliClient::~CliClient() {
    close_pipes();
}

void CliClient::close_pipes() {
    for (int* fd : {&input_fd_, &output_fd_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

void CliClient::start() {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0) return;
    if (pipe2(output, O_CLOEXEC) != 0) {
        close(input[0]);
        close(input[1]);
        return;
    }
    // Its replies are printed from another thread than the one that reads;
    // unbuffered, they arrive as they are printed.
    tx::SpawnOptions options;
    options.in_fd = input[0];
    options.out_fd = output[1];
    pid_ = tx::spawn({"/usr/bin/stdbuf", "-o0", cli_path_}, options);
    close(input[0]);
    close(output[1]);
    input_fd_ = input[1];
    output_fd_ = output[0];
    fcntl(output_fd_, F_SETFL, O_NONBLOCK);
    stopping_ = false;
    cut_off_ = false;
    pending_.clear();
}

void CliClient::stop(Ending how, Clock::time_point now) {
    if (pid_ <= 0 || stopping_) return;
    stopping_ = true;
    kill_at_ = now + STOP_GRACE;
    if (how == Ending::end_of_input && input_fd_ >= 0) {
        close(input_fd_);
        input_fd_ = -1;
    } else {
        kill(pid_, how == Ending::kill ? SIGKILL : SIGTERM);
    }
}

void CliClient::tend(Clock::time_point now, std::mt19937& random, Tally& tally) {
    if (pid_ <= 0) {
        if (now >= start_at_) start();
        return;
    }
    if (stopping_) {
        if (now >= kill_at_) kill(pid_, SIGKILL);
        return;
    }
    if (cut_off_) {
        stop(Ending::end_of_input, now);
        return;
    }
    if (now < next_line_) return;
    const auto [setting, call_line] = CLIENT_SUBJECTS[static_cast<std::size_t>(index_)];
    const std::string line = line_for(step_++, setting, call_line) + "\n";
    if (write(input_fd_, line.data(), line.size()) == static_cast<ssize_t>(line.size()))
        ++tally.sent;
    next_line_ = now + LINE_INTERVAL + between(random, 0, 50);
}

void CliClient::read_output(Tally& tally) {
    if (output_fd_ < 0) return;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(output_fd_, buffer, sizeof buffer)) > 0)
        pending_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end = pending_.find('\n'); end != std::string::npos;
         end = pending_.find('\n')) {
        std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        std::erase(line, '\r');
        if (!line.empty()) judge(line, tally);
    }
}

void CliClient::judge(std::string_view line, Tally& tally) {
    const auto [setting, call_line] = CLIENT_SUBJECTS[static_cast<std::size_t>(index_)];
    if (line.starts_with("cli_client:")) {
        // Its queues are gone or were never there: only a new client helps.
        if (line.find("error sending") != std::string_view::npos ||
            line.find("error access queue") != std::string_view::npos)
            cut_off_ = true;
        return;
    }
    if (line.find("terminate_client") != std::string_view::npos) {
        ++tally.received;
        ++tally.turned_away;
        return;
    }
    const std::size_t first = line.find(' ');
    const std::string_view word = line.substr(0, first);
    if (first == std::string_view::npos || (word != "val" && word != "dial" && word != "hangup")) {
        ++tally.unexpected_lines;
        std::fprintf(stderr, "soak: client %d printed \"%.*s\"\n", index_,
                     static_cast<int>(line.size()), line.data());
        return;
    }
    ++tally.received;
    const std::string_view subject = line.substr(first + 1, line.find(' ', first + 1) - first - 1);
    if (subject == setting || subject == call_line) return;
    ++tally.misrouted;
    std::fprintf(stderr, "soak: client %d got another client's reply \"%.*s\"\n", index_,
                 static_cast<int>(line.size()), line.data());
}

void CliClient::ended(int status, Clock::time_point now, std::mt19937& random, Tally& tally) {
    read_output(tally);
    if (!stopping_) {
        ++tally.clients_lost;
        std::fprintf(stderr, "soak: client %d ended by itself (%s)\n", index_,
                     describe_status(status).c_str());
    }
    close_pipes();
    pid_ = -1;
    start_at_ = now + between(random, 100, 1000);
}

CgiClient::CgiClient() : channel_(cgi_connector_channel) {
    // The client's end: it sends where the connector receives.
    channel_.send_token_path = cgi_connector_channel.receive_token_path;
    channel_.receive_token_path = cgi_connector_channel.send_token_path;
}

void CgiClient::tend(Clock::time_point now, Tally& tally) {
    if (now < next_send_) return;
    next_send_ = now + CGI_INTERVAL;
    if (!open_) open_ = channel_.open(&channel_, 'u') == 0;
    if (!open_) return;
    take_replies(tally);
    const auto [type, property] = CGI_SUBJECTS[turn_++ % CGI_SUBJECTS.size()];
    const std::string request =
        std::string("<request><action property=\"") + property + "\">get</action></request>";
    if (channel_.send(&channel_, request.c_str(), type, 0) == 1) {
        ++tally.sent;
    } else {
        open_ = false;  // the connector was started again: new queues
    }
}

void CgiClient::take_replies(Tally& tally) {
    for (const auto& [type, property] : CGI_SUBJECTS) {
        IpcMessage reply{};
        while (channel_.receive_retry(&channel_, &reply, type, 0, 1) == 1) {
            ++tally.received;
            const std::string expected = std::string("property=\"") + property + "\"";
            if (std::strstr(reply.text, expected.c_str()) != nullptr) continue;
            ++tally.misrouted;
            std::fprintf(stderr, "soak: CGI type %ld got another type's reply \"%s\"\n", type,
                         reply.text);
        }
    }
}

}  // namespace soak
