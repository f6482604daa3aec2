// Forms, JSON and CGI answers, the checks every request passes (host,
// origin, login, anti-CSRF token) and the command program's exchange with
// cgiconn.
#include "web_cgi.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "cgi_connector.hpp"
#include "completion.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"
#include "regexparser.hpp"
#include "xml_messages.hpp"

namespace tx::web {

namespace {

constexpr std::size_t kRequestTextLen = 256;
constexpr std::size_t kDisplayLen = 512;
constexpr std::string_view kSyntaxError = tx::grammar::kSyntaxError;
constexpr std::string_view kFormType = "application/x-www-form-urlencoded";

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
        case 303:
            return "See Other";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 405:
            return "Method Not Allowed";
        case 409:
            return "Conflict";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 415:
            return "Unsupported Media Type";
        case 421:
            return "Misdirected Request";
        case 429:
            return "Too Many Requests";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Internal Server Error";
    }
}

// The line as the role's account runs it, or why it may not be sent.
std::optional<std::string> refusal_of(const std::string& line, RequestRecord* record, uid_t uid) {
    const tx::grammar::Match match = tx::grammar::match(line, {uid, osal_voip_capable()});
    if (match.row == nullptr) return std::string(kSyntaxError);
    // A refusal the console would still send, with an empty action, is an
    // error here.
    if (!match.refusal.empty()) return match.refusal;
    if (match.record.action[0] == '\0') return std::string(kSyntaxError);
    *record = match.record;
    return std::nullopt;
}

// Help as cli prints it for root, without its last newlines.
std::string help_text(std::string_view topic_text) {
    std::string text = tx::grammar::help_text(topic_text, 0);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// What a line does once matched.
struct Verdict {
    std::optional<std::string> refusal;
    RequestRecord record{};
    bool help = false;  // a help line: answered here, the device is not asked
    // Only get rows (and help) read; everything else changes the device.
    bool reads() const { return help || std::string_view(record.action) == "get"; }
};

// The line checked as cli checks it for the role's account.
Verdict judge_line(const std::string& line, Role role) {
    Verdict verdict;
    const uid_t uid = grammar_uid(role);
    if (tx::grammar::classify_builtin(line) == tx::grammar::Builtin::help && uid == 0) {
        verdict.help = true;
        return verdict;
    }
    verdict.refusal = refusal_of(line, &verdict.record, uid);
    return verdict;
}

std::string header_line(std::string_view name, std::string_view value) {
    return std::string(name) + ": " + std::string(value) + "\r\n";
}

// The host part of a Host header: "name", "1.2.3.4", "[::1]" less the port;
// empty when there is none ("[::1" has none).
std::string_view host_name(std::string_view host) {
    if (!host.starts_with('[')) return host.substr(0, host.find(':'));
    const std::size_t close = host.find(']');
    return close == std::string_view::npos ? std::string_view() : host.substr(1, close - 1);
}

// Host names are the same in any case.
bool same_host(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
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

Answer error_answer(int status, std::string_view text) {
    return Answer{status, "application/json", "{\"error\": " + json_string(text) + "}", ""};
}

bool write_answer(int fd, const Answer& answer) {
    char head[256];
    std::snprintf(head, sizeof head,
                  "Status: %d %s\r\nContent-Type: %s\r\nCache-Control: no-store\r\n", answer.status,
                  reason_of(answer.status), answer.content_type.c_str());
    return write_all(fd, head) && write_all(fd, answer.headers) && write_all(fd, "\r\n") &&
           write_all(fd, answer.body);
}

HttpRequest HttpRequest::from_environment() {
    HttpRequest request;
    request.method = env("REQUEST_METHOD");
    request.content_type = env("CONTENT_TYPE");
    request.host = env("HTTP_HOST");
    request.origin = env("HTTP_ORIGIN");
    request.sec_fetch_site = env("HTTP_SEC_FETCH_SITE");
    request.server_addr = env("SERVER_ADDR");
    request.remote_addr = env("REMOTE_ADDR");
    request.cookie = env("HTTP_COOKIE");
    request.authorization = env("HTTP_AUTHORIZATION");
    request.csrf_header = env("HTTP_X_CSRF_TOKEN");
    request.from_browser = !request.origin.empty() || !request.sec_fetch_site.empty() ||
                           !env("HTTP_SEC_FETCH_MODE").empty() ||
                           !env("HTTP_SEC_FETCH_DEST").empty();
    return request;
}

std::optional<Answer> check_host(const HttpRequest& request) {
    const std::string_view name = host_name(request.host);
    if (!name.empty() && same_host(name, request.server_addr)) return std::nullopt;
    std::string_view names = env("TX_WEB_HOSTS");
    while (!names.empty() && !name.empty()) {
        const std::string_view configured = names.substr(0, names.find(' '));
        names.remove_prefix(std::min(names.size(), configured.size() + 1));
        if (same_host(configured, name)) return std::nullopt;
    }
    return error_answer(421, "this device does not serve the host name " + request.host);
}

std::optional<Answer> check_origin(const HttpRequest& request) {
    if (!request.origin.empty() && request.origin != "https://" + request.host) {
        return error_answer(403, "request from another site (Origin " + request.origin + ")");
    }
    // A link from another site may lead to the page (without the session
    // cookie, which stays with same-site requests): only a GET, which never acts.
    if (request.method != "GET" && !request.sec_fetch_site.empty() &&
        request.sec_fetch_site != "same-origin" && request.sec_fetch_site != "none") {
        return error_answer(
            403, "request from another site (Sec-Fetch-Site " + request.sec_fetch_site + ")");
    }
    return std::nullopt;
}

std::optional<Answer> authenticate(const HttpRequest& request, Caller* caller) {
    Accounts accounts;
    std::string error;
    if (!accounts.load(Accounts::default_path(), &error)) return error_answer(503, error);
    if (const auto token = cookie_value(request.cookie, kSessionCookie)) {
        const std::optional<Session> session = find_session(*token);
        const Account* account = session ? accounts.find(session->user) : nullptr;
        // A new password, or an account removed, ends its sessions.
        if (account != nullptr && hash_salt(account->hash) == session->salt) {
            *caller = {account->name, account->role, session->csrf, std::string(*token)};
            return std::nullopt;
        }
    }
    Answer refused = error_answer(401, "log in first");
    // Only a script is asked for credentials: a browser goes to the login
    // page, instead of a dialog of its own.
    if (!request.from_browser)
        refused.headers =
            header_line("WWW-Authenticate", "Basic realm=\"TX-416\", charset=\"UTF-8\"");
    if (!request.authorization.starts_with("Basic ")) return refused;
    const std::optional<std::string> pair = base64_decode(request.authorization.substr(6));
    const std::size_t colon = pair ? pair->find(':') : std::string::npos;
    if (colon == std::string::npos) return refused;
    const std::string user = pair->substr(0, colon);
    LoginThrottle throttle(request.remote_addr);
    if (const long wait = throttle.wait_seconds(); wait > 0) {
        Answer slowed =
            error_answer(429, "too many failed logins from this address: try again in " +
                                  std::to_string(wait) + " s");
        slowed.headers = header_line("Retry-After", std::to_string(wait));
        return slowed;
    }
    const Account* account = accounts.find(user);
    if (account == nullptr || !password_matches(pair->substr(colon + 1), account->hash)) {
        throttle.failed();
        audit(AuditKind::login, true,
              "failed login as " + json_string(user) + " from " + request.remote_addr);
        return refused;
    }
    throttle.succeeded();
    *caller = {account->name, account->role, "", ""};
    return std::nullopt;
}

std::optional<Answer> check_post(const HttpRequest& request, const Caller& caller,
                                 std::string_view form) {
    const std::string_view type =
        std::string_view(request.content_type).substr(0, request.content_type.find(';'));
    if (type != kFormType) {
        return error_answer(415, "a POST takes a form (application/x-www-form-urlencoded)");
    }
    if (!request.from_browser && caller.session.empty()) return std::nullopt;
    const std::string token =
        request.csrf_header.empty() ? form_field(form, "csrf").value_or("") : request.csrf_header;
    if (caller.csrf.empty() || !same_secret(token, caller.csrf)) {
        return error_answer(403, "the page's token is missing or wrong: reload the page");
    }
    return std::nullopt;
}

std::optional<std::string> read_form(const HttpRequest& request, Answer* failure,
                                     std::size_t body_limit) {
    if (request.method == "GET") {
        const std::string_view query = env("QUERY_STRING");
        if (query.size() <= kMaxFormBytes) return std::string(query);
        *failure = error_answer(414, "query over 500 bytes");
        return std::nullopt;
    }
    if (request.method != "POST") {
        *failure = error_answer(405, "only GET and POST are served");
        failure->headers = header_line("Allow", "GET, POST");
        return std::nullopt;
    }
    std::string body;
    if (std::strtoul(env("CONTENT_LENGTH").data(), nullptr, 10) <= body_limit) {
        char chunk[4096];
        ssize_t n = 0;
        while (body.size() <= body_limit && (n = read(STDIN_FILENO, chunk, sizeof chunk)) > 0) {
            body.append(chunk, static_cast<std::size_t>(n));
        }
        if (body.size() <= body_limit) return body;
    }
    *failure = error_answer(413, "body over " + std::to_string(body_limit) + " bytes");
    return std::nullopt;
}

CgiTurn::~CgiTurn() {
    if (fd_ >= 0) close(fd_);
}

std::optional<Answer> CgiTurn::begin(int most) {
    const long pid = getpid();
    if (pid > kMaxRoutablePid) {
        return error_answer(503, "process id above 99999: cgiconn could not route the reply");
    }
    if (!take_slots(most)) return error_answer(503, "too many requests in progress");
    if (cgi_client_channel.open(&cgi_client_channel, 'u') < 0) {
        return error_answer(503, "the CGI connector cgiconn is not running");
    }
    if (!make_marker(pid)) {
        // Not this process's to remove.
        const std::string taken = std::exchange(marker_, {});
        return error_answer(503, "the marker " + taken + " is taken by another user");
    }
    return std::nullopt;
}

void CgiTurn::end() {
    if (!marker_.empty()) std::remove(marker_.c_str());
    marker_.clear();
}

bool CgiTurn::take_slots(int most) {
    const std::optional<std::string> dir = runtime_subdir("slots");
    if (!dir) return false;
    fd_ = open((*dir + "/lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat st {};
    if (fd_ < 0 || fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    for (int waited_ms = 0; waited_ms < kReplyWaitMs; waited_ms += 5) {
        // One pass: a byte this process holds already would lock again.
        for (int slot = 0; slot < kRequestSlots && slots_ < most; ++slot) {
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = slot;
            lock.l_len = 1;
            if (fcntl(fd_, F_SETLK, &lock) == 0) ++slots_;
        }
        if (slots_ > 0) return true;
        usleep(5000);
    }
    return false;
}

bool CgiTurn::make_marker(long pid) {
    marker_ = std::string("/tmp/") + CGI_MARKER_PREFIX + std::to_string(pid) + CGI_MARKER_SUFFIX;
    for (int attempt = 0; attempt < 2; ++attempt) {
        // A new file of this process's own, never whatever a symlink points at.
        const int fd =
            open(marker_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        // One left by an earlier process of the same id and user goes.
        struct stat st {};
        if (errno != EEXIST || lstat(marker_.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
            st.st_uid != geteuid() || unlink(marker_.c_str()) != 0) {
            break;
        }
    }
    return false;
}

std::optional<Answer> CommandRequest::read_line(const HttpRequest& http, std::string_view form,
                                                std::string* line) const {
    (void)http;
    const std::optional<std::string> value = form_field(form, "cmd");
    if (!value) return error_answer(400, "form without a well-formed field cmd");
    *line = *value;
    if (line->size() > kMaxLineBytes) return error_answer(400, "line over 126 characters");
    if (!valid_utf8(*line)) return error_answer(400, "the line is not UTF-8 text");
    for (const char c : *line) {
        // cli's editor hands over no control characters, and a newline would
        // let one line match as two.
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return error_answer(400, "the line holds a control character");
    }
    return std::nullopt;
}

Answer CommandRequest::serve() {
    const HttpRequest http = HttpRequest::from_environment();
    Caller caller;
    if (std::optional<Answer> refused = check_host(http)) return *refused;
    if (std::optional<Answer> refused = check_origin(http)) return *refused;
    if (std::optional<Answer> refused = authenticate(http, &caller)) return *refused;
    Answer failure;
    const std::optional<std::string> form = read_form(http, &failure);
    if (!form) return failure;
    if (http.method == "POST") {
        if (std::optional<Answer> refused = check_post(http, caller, *form)) return *refused;
    }
    std::string line;
    if (std::optional<Answer> refused = read_line(http, *form, &line)) return *refused;
    Answer answer = run_line(http, caller, line);
    return answer;
}

Answer CommandRequest::run_line(const HttpRequest& http, const Caller& caller,
                                const std::string& line) {
    if (line.size() < 2) return error_answer(400, kSyntaxError);
    Verdict verdict = judge_line(line, caller.role);
    if (verdict.help) {
        const std::string_view topic = std::string_view(line).substr(
            tx::grammar::builtin_name(tx::grammar::Builtin::help).size());
        return Answer{200, "application/json",
                      "{\"line\": " + json_string(line) +
                          ", \"reply\": " + json_string(help_text(topic)) + "}",
                      ""};
    }
    if (verdict.refusal) return error_answer(400, *verdict.refusal);
    const bool acts = !verdict.reads();
    if (acts && http.method != "POST") {
        Answer refused = error_answer(405, "a line that changes the device needs a POST");
        refused.headers = header_line("Allow", "POST");
        return refused;
    }
    if (acts && caller.role == Role::viewer) {
        return error_answer(403, "the viewer account only reads (get)");
    }
    char request[kRequestTextLen] = {};
    generate_xml_request(verdict.record, request);
    if (request[0] == '\0') return error_answer(400, "the request does not fit in 255 characters");
    // The connector drops every answer that holds this word: the line would
    // only time out.
    if (std::strstr(request, "client_register_notify") != nullptr) {
        return error_answer(400, "client_register_notify is the connector's own: not from the web");
    }
    Answer answer = exchange(line, request);
    if (acts) {
        const std::size_t reply_at = answer.body.find("\"reply\": ");
        const std::string outcome =
            reply_at != std::string::npos
                ? answer.body.substr(reply_at + 9, answer.body.size() - reply_at - 10)
                : std::to_string(answer.status) + " " + answer.body;
        audit(AuditKind::change, answer.status != 200,
              caller.user + " from " + http.remote_addr + ": " + json_string(line) + " -> " +
                  outcome);
    }
    return answer;
}

Answer CommandRequest::exchange(const std::string& line, const char* request) {
    if (std::optional<Answer> refused = turn_.begin(1)) return *refused;
    const long pid = getpid();
    if (cgi_client_channel.send(&cgi_client_channel, request, pid, 0) == 0) {
        turn_.end();
        return error_answer(503, "the CGI connector's queue is full");
    }
    IpcMessage reply{};
    if (!receive_within(&cgi_client_channel, &reply, pid, kReplyWaitMs)) {
        late_ = true;
        return error_answer(504, "no reply within 2 s");
    }
    turn_.end();
    char shown[kDisplayLen] = {};
    format_message(tx::field_view(reply.text), shown);
    return Answer{200, "application/json",
                  "{\"line\": " + json_string(line) + ", \"reply\": " + json_string(shown) + "}",
                  ""};
}

void CommandRequest::finish() {
    if (!late_) return;
    IpcMessage reply{};
    if (receive_within(&cgi_client_channel, &reply, getpid(), kLateReplyWaitMs)) turn_.end();
}

}  // namespace tx::web
