// Forms, JSON and CGI answers, and the command program's exchange with cgiconn.
#include "web_cgi.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cgi_connector.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"
#include "regexparser.hpp"
#include "xml_messages.hpp"

namespace tx::web {

namespace {

constexpr std::size_t kRequestTextLen = 256;
constexpr std::size_t kDisplayLen = 512;
constexpr const char* kSlotFile = "/tmp/cgi_slots.lock";
constexpr std::string_view kSyntaxError = tx::grammar::kSyntaxError;

std::string_view env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> form_decode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] != '%') {
            out += text[i];
        } else {
            const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
            const int low = high >= 0 ? hex_digit(text[i + 2]) : -1;
            if (low < 0) return std::nullopt;
            out += static_cast<char>(high * 16 + low);
            i += 2;
        }
    }
    return out;
}

const char* reason_of(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 405:
            return "Method Not Allowed";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Internal Server Error";
    }
}

// The form of a GET (its query string) or of a POST (its body).
std::optional<std::string> read_form(Answer* failure) {
    const std::string_view method = env("REQUEST_METHOD");
    if (method == "GET") {
        const std::string_view query = env("QUERY_STRING");
        if (query.size() <= kMaxFormBytes) return std::string(query);
        *failure = error_answer(414, "query over 500 bytes");
        return std::nullopt;
    }
    if (method != "POST") {
        *failure = error_answer(405, "only GET and POST are served");
        return std::nullopt;
    }
    std::string body;
    if (std::strtoul(env("CONTENT_LENGTH").data(), nullptr, 10) <= kMaxFormBytes) {
        char chunk[kMaxFormBytes + 1];
        ssize_t n = 0;
        while (body.size() <= kMaxFormBytes && (n = read(STDIN_FILENO, chunk, sizeof chunk)) > 0) {
            body.append(chunk, static_cast<std::size_t>(n));
        }
        if (body.size() <= kMaxFormBytes) return body;
    }
    *failure = error_answer(413, "body over 500 bytes");
    return std::nullopt;
}

// The line as the operator account runs it, or why it may not be sent.
std::optional<std::string> refusal_of(const std::string& line, RequestRecord* record) {
    const tx::grammar::Match match = tx::grammar::match(line, {kOperatorUid, osal_voip_capable()});
    if (match.row == nullptr) return std::string(kSyntaxError);
    // A refusal the console would still send, with an empty action, is an
    // error here.
    if (!match.refusal.empty()) return match.refusal;
    if (match.record.action[0] == '\0') return std::string(kSyntaxError);
    *record = match.record;
    return std::nullopt;
}

void on_alarm(int) {}

// Blocking receive of this process's reply, given up after wait_ms.
bool receive_within(IpcChannel* channel, IpcMessage* reply, long pid, int wait_ms) {
    struct sigaction action {};
    action.sa_handler = on_alarm;  // no SA_RESTART: the alarm ends the receive
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value.tv_sec = wait_ms / 1000;
    timer.it_value.tv_usec = (wait_ms % 1000) * 1000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    const int received = channel->receive(channel, reply, pid);
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    return received != 0;
}

}  // namespace

std::optional<std::string> form_field(std::string_view form, std::string_view name) {
    while (!form.empty()) {
        const std::string_view pair = form.substr(0, form.find('&'));
        form.remove_prefix(std::min(form.size(), pair.size() + 1));
        const std::size_t equals = pair.find('=');
        if (form_decode(pair.substr(0, equals)) != name) continue;
        return form_decode(equals == std::string_view::npos ? "" : pair.substr(equals + 1));
    }
    return std::nullopt;
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

Answer error_answer(int status, std::string_view text) {
    return Answer{status, "application/json", "{\"error\": " + json_string(text) + "}"};
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool write_answer(int fd, const Answer& answer) {
    char head[256];
    std::snprintf(head, sizeof head,
                  "Status: %d %s\r\nContent-Type: %s\r\nCache-Control: no-store\r\n\r\n",
                  answer.status, reason_of(answer.status), answer.content_type.c_str());
    return write_all(fd, head) && write_all(fd, answer.body);
}

CommandRequest::~CommandRequest() {
    if (slot_fd_ >= 0) close(slot_fd_);
}

std::optional<Answer> CommandRequest::read_line(std::string* line) const {
    Answer failure;
    const std::optional<std::string> form = read_form(&failure);
    if (!form) return failure;
    const std::optional<std::string> value = form_field(*form, "cmd");
    if (!value) return error_answer(400, "form without a well-formed field cmd");
    *line = *value;
    if (line->size() > kMaxLineBytes) return error_answer(400, "line over 126 characters");
    for (const char c : *line) {
        // cli's editor hands over no control characters, and a newline would
        // let one line match as two.
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return error_answer(400, kSyntaxError);
    }
    return std::nullopt;
}

Answer CommandRequest::serve() {
    std::string line;
    if (std::optional<Answer> refused = read_line(&line)) return *refused;
    RequestRecord record{};
    if (line.size() < 2) return error_answer(400, kSyntaxError);
    if (std::optional<std::string> refusal = refusal_of(line, &record)) {
        return error_answer(400, *refusal);
    }
    char request[kRequestTextLen] = {};
    generate_xml_request(record, request);
    if (request[0] == '\0') return error_answer(400, "the request does not fit in 255 characters");
    return exchange(line, request);
}

bool CommandRequest::take_slot() {
    slot_fd_ = open(kSlotFile, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (slot_fd_ < 0) return false;
    fchmod(slot_fd_, 0666);  // whoever comes first, every web server user may lock
    for (int waited_ms = 0; waited_ms < kReplyWaitMs; waited_ms += 5) {
        for (int slot = 0; slot < kRequestSlots; ++slot) {
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = slot;
            lock.l_len = 1;
            if (fcntl(slot_fd_, F_SETLK, &lock) == 0) return true;
        }
        usleep(5000);
    }
    return false;
}

Answer CommandRequest::exchange(const std::string& line, const char* request) {
    const long pid = getpid();
    if (pid > kMaxRoutablePid) {
        return error_answer(503, "process id above 99999: cgiconn could not route the reply");
    }
    if (!take_slot()) return error_answer(503, "too many requests in progress");
    IpcChannel* channel = &cgi_client_channel;
    if (channel->open(channel, 'u') < 0) {
        return error_answer(503, "the CGI connector cgiconn is not running");
    }
    marker_ = std::string("/tmp/") + CGI_MARKER_PREFIX + std::to_string(pid) + CGI_MARKER_SUFFIX;
    close(open(marker_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (channel->send(channel, request, pid, 0) == 0) {
        std::remove(marker_.c_str());
        return error_answer(503, "the CGI connector's queue is full");
    }
    IpcMessage reply{};
    if (!receive_within(channel, &reply, pid, kReplyWaitMs)) {
        late_ = true;
        return error_answer(504, "no reply within 2 s");
    }
    std::remove(marker_.c_str());
    char shown[kDisplayLen] = {};
    format_message(tx::field_view(reply.text), shown);
    return Answer{200, "application/json",
                  "{\"line\": " + json_string(line) + ", \"reply\": " + json_string(shown) + "}"};
}

void CommandRequest::finish() {
    if (!late_) return;
    IpcMessage reply{};
    if (receive_within(&cgi_client_channel, &reply, getpid(), kLateReplyWaitMs)) {
        std::remove(marker_.c_str());
    }
}

}  // namespace tx::web
