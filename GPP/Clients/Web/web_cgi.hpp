// The web client: the CGI programs that the device's web server runs for the
// settings page. `command` sends one command line through cgiconn and answers
// JSON; `events` streams the notifications that cgiconn writes to
// /tmp/CgiInterComm (through the fan-out `cgievents`) as Server-Sent Events;
// `page` serves the page itself, the login, the logout and the password
// change. Every one of them serves only a logged-in caller.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "web_auth.hpp"

namespace tx::web {

// The grammar's account of the operator role, and what the page offers.
inline constexpr uid_t kOperatorUid = 1001;
// Longest form accepted, in a query string or a request body.
inline constexpr std::size_t kMaxFormBytes = 500;
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

// The decoded value of the first field called `name` in an
// application/x-www-form-urlencoded text; nothing when there is none or its
// encoding is broken.
std::optional<std::string> form_field(std::string_view form, std::string_view name);

// text as a JSON string literal, quotes included; a byte that is not part
// of UTF-8 becomes U+FFFD, so that the JSON is always valid.
std::string json_string(std::string_view text);
bool valid_utf8(std::string_view text);

struct Answer {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    std::string headers;  // more header lines, each ending in "\r\n"
};

// An answer whose JSON body is {"error": text}.
Answer error_answer(int status, std::string_view text);

// Writes all of text to fd, retrying short writes. False when the peer has gone.
bool write_all(int fd, std::string_view text);
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
// the address the request came in on.
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
// The form of a GET (its query string) or of a POST (its body), at most
// 500 bytes.
std::optional<std::string> read_form(const HttpRequest& request, Answer* failure);

// One run of the command program.
class CommandRequest {
  public:
    CommandRequest() = default;
    ~CommandRequest();
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
    bool take_slot();
    bool make_marker(long pid);

    int slot_fd_ = -1;
    std::string marker_;
    bool late_ = false;
};

// One run of the event program: streams until the web server goes away.
int stream_events(int http_fd);

// The event fan-out beside cgiconn: reads /tmp/CgiInterComm and passes every
// record on to every stream's pipe in the runtime directory, without ever
// waiting for one. Returns only on a fatal error.
int fan_out_events();

// One run of the page program: the page, the login, the logout and the
// password change, by the path it was called for.
Answer serve_site();

}  // namespace tx::web
