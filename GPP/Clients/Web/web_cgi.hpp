// The web client: the CGI programs that the device's web server runs for the
// settings page. `command` sends one command line through cgiconn and answers
// JSON; `config` shows, checks and applies the configuration as a whole;
// `events` streams the notifications that cgiconn writes to
// /tmp/CgiInterComm (through the fan-out `cgievents`) as Server-Sent Events;
// `page` serves the page itself, the login, the logout and the password
// change. Every one of them serves only a logged-in caller.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "config_client.hpp"
#include "web_auth.hpp"

namespace tx::web {

// The grammar's account of the operator role, and what the page offers.
inline constexpr uid_t kOperatorUid = 1001;
// Longest form accepted, in a query string or a request body.
inline constexpr std::size_t kMaxFormBytes = 500;
// Longest body of the configuration program: a configuration (some 5 KiB)
// sent as a form, each byte of it as up to three. The web server's
// max-request-size for it is the same.
inline constexpr std::size_t kMaxConfigFormBytes = 64 * 1024;
// Longest line cli takes from its editor: its 128-byte buffer less the
// newline and the terminator.
inline constexpr std::size_t kMaxLineBytes = 126;
// The connector routes a reply by at most five digits of the client's pid.
inline constexpr long kMaxRoutablePid = 99999;
inline constexpr int kReplyWaitMs = 2000;
// How much longer a request that missed its answer waits for its reply.
inline constexpr int kLateReplyWaitMs = 8000;
// Requests in flight at once: well below the 31 replies that the
// connector's outgoing queue holds by default, so that replies can never fill
// it (a full queue makes the connector drop every client's replies).
inline constexpr int kRequestSlots = 16;
// The configuration program keeps up to half of them in flight, so that
// the pages' commands still go while it reads or applies a configuration.
inline constexpr int kConfigSlots = kRequestSlots / 2;

// The decoded value of the first field called `name` in an
// application/x-www-form-urlencoded text; nothing when there is none or its
// encoding is broken.
std::optional<std::string> form_field(std::string_view form, std::string_view name);

// JSON answers are always valid UTF-8: txconfig's own text routines.
using tx::config::json_string;
using tx::config::valid_utf8;

struct Answer {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    std::string headers;  // more header lines, each ending in "\r\n"
};

// An answer whose JSON body is {"error": text}.
Answer error_answer(int status, std::string_view text);

// Writes a CGI answer (status and headers, then the body) to fd.
bool write_answer(int fd, const Answer& answer);

// The request as the web server hands it to a CGI program.
struct HttpRequest {
    std::string method;
    std::string content_type;
    std::string host;
    std::string origin;
    std::string sec_fetch_site;
    std::string server_addr;
    std::string remote_addr;
    std::string cookie;
    std::string authorization;
    std::string csrf_header;  // X-CSRF-Token
    // A browser sends Origin or Sec-Fetch-* headers; a script sends neither.
    bool from_browser = false;

    static HttpRequest from_environment();
};

// Who is asking, as authenticated: the role comes from the accounts file.
struct Caller {
    std::string user;
    Role role = Role::viewer;
    std::string csrf;     // the session's token; empty with HTTP Basic
    std::string session;  // the session cookie's token; empty with HTTP Basic
};

// 421 unless Host names this device: a configured name (TX_WEB_HOSTS) or
// the address the request came in on, in any case of letters.
std::optional<Answer> check_host(const HttpRequest& request);
// 403 when Origin, or for anything but a GET Sec-Fetch-Site, tells of
// another site.
std::optional<Answer> check_origin(const HttpRequest& request);
// A session cookie, or HTTP Basic credentials (failures slowed down per
// address and logged). 401 (or 429 while slowed down) otherwise.
std::optional<Answer> authenticate(const HttpRequest& request, Caller* caller);
// What every POST needs: a form content type, and for a browser the
// session's anti-CSRF token (form field csrf or header X-CSRF-Token).
std::optional<Answer> check_post(const HttpRequest& request, const Caller& caller,
                                 std::string_view form);
// The form of a GET (its query string, at most 500 bytes) or of a POST (its
// body, at most body_limit bytes).
std::optional<std::string> read_form(const HttpRequest& request, Answer* failure,
                                     std::size_t body_limit = kMaxFormBytes);

// A CGI program's turn at cgiconn: its request slots, locks in the runtime
// directory that keep the requests of all the web programs in flight at
// once to kRequestSlots, and its marker /tmp/cgi_rx_<pid>.txt, which tells
// the connector's monitor to clear the replies this process leaves behind
// when it ends. The slots are free again when the turn ends.
class CgiTurn {
  public:
    CgiTurn() = default;
    ~CgiTurn();
    CgiTurn(const CgiTurn&) = delete;
    CgiTurn& operator=(const CgiTurn&) = delete;

    // Takes a slot (waiting up to 2 s for one) and up to most - 1 more that
    // are free now, attaches to cgiconn's queues (cgi_client_channel) and
    // makes the marker. The answer to give (503) when any of it fails.
    std::optional<Answer> begin(int most);
    int slots() const { return slots_; }
    // No reply to this process waits on the connector's queue any more.
    void end();

  private:
    bool take_slots(int most);
    bool make_marker(long pid);

    int fd_ = -1;
    int slots_ = 0;
    std::string marker_;
};

// One run of the command program.
class CommandRequest {
  public:
    CommandRequest() = default;
    CommandRequest(const CommandRequest&) = delete;
    CommandRequest& operator=(const CommandRequest&) = delete;

    // Reads the form from the CGI environment and standard input, checks the
    // line, sends it through cgiconn and makes the answer.
    Answer serve();
    // After the answer has gone out: a reply that missed it is waited for a
    // while longer, so that it does not stay on the connector's queue. If it
    // never comes, the marker stays for the connector's monitor.
    void finish();

  private:
    std::optional<Answer> read_line(const HttpRequest& http, std::string_view form,
                                    std::string* line) const;
    Answer run_line(const HttpRequest& http, const Caller& caller, const std::string& line);
    Answer exchange(const std::string& line, const char* request);

    CgiTurn turn_;
    bool late_ = false;
};

// One run of the configuration program: the device's configuration as one
// text, for the admin only, through txconfig's own code (config_client).
// The form's action: show (the running configuration; secrets=1 with its
// secrets), check (the changes that the form's file would make) or apply
// (makes them; confirm= the check's token refuses it when they differ).
class ConfigRequest {
  public:
    ConfigRequest();
    ~ConfigRequest();
    ConfigRequest(const ConfigRequest&) = delete;
    ConfigRequest& operator=(const ConfigRequest&) = delete;

    Answer serve();
    // After the answer has gone out: answers that missed it are waited for
    // a while longer, holding the slots, as the command program does.
    void finish();

  private:
    class Link;
    std::optional<Answer> connect();
    Answer show(const HttpRequest& http, const Caller& caller, bool with_secrets);
    Answer check_or_apply(const HttpRequest& http, const Caller& caller, std::string_view form,
                          bool apply);

    CgiTurn turn_;
    std::unique_ptr<Link> link_;
};

// One run of the event program: streams until the web server goes away.
int stream_events(int http_fd);
// A quiet stream sends a comment line this often, so that the browser and
// anything between keep the connection.
inline constexpr int kHeartbeatMs = 15000;
// Passes each 256-byte record of a stream's pipe on to its HTTP client as one
// event, and a comment line after every heartbeat_ms without one, until the
// client goes away, the web server ends the program, or the pipe is removed
// (the fan-out dropped the stream).
void relay_events(int stream_fd, int http_fd, int heartbeat_ms = kHeartbeatMs);

// The event fan-out beside cgiconn: reads /tmp/CgiInterComm and passes every
// record on to every stream's pipe in the runtime directory, without ever
// waiting for one. Returns only on a fatal error.
int fan_out_events();

// One run of the page program: the page, the login, the logout and the
// password change, by the path it was called for.
Answer serve_site();

// One run of a request program (CommandRequest, ConfigRequest). A browser
// that gives up does not end the exchange half-way: a reply left behind
// would wait on the connector's queue for nobody, and what an apply did goes
// to the audit trail all the same.
template <typename Request>
int serve_request() {
    std::signal(SIGPIPE, SIG_IGN);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) std::signal(signo, SIG_IGN);
    Request request;
    write_answer(STDOUT_FILENO, request.serve());
    close(STDOUT_FILENO);  // the web server can finish the response now
    request.finish();
    return 0;
}

}  // namespace tx::web
