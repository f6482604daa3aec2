// The web client: the CGI programs that the device's web server runs for the
// settings page. `command` sends one command line through cgiconn and answers
// JSON; `events` streams the notifications that cgiconn writes to
// /tmp/CgiInterComm as Server-Sent Events.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tx::web {

// Web requests follow the rules of the device's operator account.
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

// text as a JSON string literal, quotes included.
std::string json_string(std::string_view text);

struct Answer {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
};

// An answer whose JSON body is {"error": text}.
Answer error_answer(int status, std::string_view text);

// Writes all of text to fd, retrying short writes. False when the peer has gone.
bool write_all(int fd, std::string_view text);
// Writes a CGI answer (status and headers, then the body) to fd.
bool write_answer(int fd, const Answer& answer);

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
    std::optional<Answer> read_line(std::string* line) const;
    Answer exchange(const std::string& line, const char* request);
    bool take_slot();

    int slot_fd_ = -1;
    std::string marker_;
    bool late_ = false;
};

// One run of the event program: streams until the web server goes away.
int stream_events(int http_fd);

}  // namespace tx::web
