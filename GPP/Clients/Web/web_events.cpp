// The event stream. cgiconn writes each notification as one 256-byte record
// into the pipe /tmp/CgiInterComm, and a pipe hands each record to one reader
// only. So one long-lived process, the fan-out (`cgievents`), is that
// reader: it passes every record on to the pipe of every stream in the
// runtime directory (<runtime>/streams/<pid>), and never waits for one. A
// stream whose pipe is full (its browser stopped reading) is dropped: its
// pipe is removed, and its program ends. No page leads the others, so a page
// that closes or stalls takes nothing from the rest.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "cgi_connector.hpp"
#include "web_cgi.hpp"

namespace tx::web {

namespace {

constexpr int kRetryMs = 1000;
constexpr const char* kInterCommPath = "/tmp/CgiInterComm";

volatile std::sig_atomic_t stop_requested = 0;
void on_stop(int) {
    stop_requested = 1;
}

// SIGTERM, SIGINT and SIGHUP end the program's loop (no SA_RESTART: a wait
// in poll ends at once); a reader gone away is a failed write, not a signal.
void stop_on_signals() {
    struct sigaction action {};
    action.sa_handler = on_stop;
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) sigaction(signo, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

struct DirCloser {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};

// An open pipe that is what it should be: a FIFO of this process's user.
bool own_fifo(int fd) {
    struct stat st {};
    return fd >= 0 && fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == geteuid();
}

// /tmp/CgiInterComm, made by this process when missing (mode 0600: only
// cgiconn, as root, writes to it besides its owner). A symlink, a file or
// another user's pipe there is refused: another user's pipe could carry
// forged notifications.
int open_inter_comm() {
    if (mkfifo(kInterCommPath, 0600) != 0 && errno != EEXIST) return -1;
    // Read-write: the pipe never reports end-of-file between cgiconn's writes.
    const int fd = open(kInterCommPath, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (!own_fifo(fd)) {
        if (fd >= 0) close(fd);
        return -1;
    }
    fchmod(fd, 0600);
    return fd;
}

// Passes one record on to every stream. A stream without a reader is gone;
// one whose pipe is full is dropped. Either way its pipe goes.
void pass_on(const std::string& dir, const char* record) {
    std::unique_ptr<DIR, DirCloser> listing(opendir(dir.c_str()));
    if (!listing) return;
    while (const dirent* entry = readdir(listing.get())) {
        if (entry->d_name[0] == '.') continue;
        const std::string path = dir + "/" + entry->d_name;
        const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENXIO) unlink(path.c_str());
            continue;
        }
        if (own_fifo(fd) && write(fd, record, CGI_LINE_LEN) != static_cast<ssize_t>(CGI_LINE_LEN)) {
            std::fprintf(stderr, "cgievents: stream %s stopped reading: dropped\n", entry->d_name);
            unlink(path.c_str());
        }
        close(fd);
    }
}

// One record as an event: its text up to the padding, on one line.
bool send_event(int http_fd, const char* record) {
    std::string text(record, strnlen(record, CGI_LINE_LEN));
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return write_all(http_fd, "data: " + text + "\n\n");
}

class Stream {
  public:
    explicit Stream(int http_fd) : http_fd_(http_fd) {}
    ~Stream() {
        if (fd_ >= 0) close(fd_);
        if (!path_.empty()) unlink(path_.c_str());
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // This stream's pipe, made new (a leftover of an earlier process of the
    // same id is replaced), in the private runtime directory.
    bool open_pipe() {
        const std::optional<std::string> dir = runtime_subdir("streams");
        if (!dir) return false;
        path_ = *dir + "/" + std::to_string(getpid());
        unlink(path_.c_str());
        if (mkfifo(path_.c_str(), 0600) != 0) return false;
        fd_ = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
        return own_fifo(fd_);
    }

    void run() { relay_events(fd_, http_fd_); }

  private:
    int http_fd_;
    std::string path_;
    int fd_ = -1;
};

}  // namespace

void relay_events(int stream_fd, int http_fd, int heartbeat_ms) {
    while (stop_requested == 0) {
        pollfd fds{stream_fd, POLLIN, 0};
        const int ready = poll(&fds, 1, heartbeat_ms);
        if (ready > 0) {
            char record[CGI_LINE_LEN];
            while (read(stream_fd, record, sizeof record) == static_cast<ssize_t>(sizeof record)) {
                if (!send_event(http_fd, record)) return;
            }
        } else if (ready == 0 && !write_all(http_fd, ": heartbeat\n\n")) {
            return;
        }
        struct stat st {};
        // Dropped: the page reconnects and reads every value again.
        if (fstat(stream_fd, &st) != 0 || st.st_nlink == 0) return;
    }
}

int stream_events(int http_fd) {
    stop_on_signals();

    const HttpRequest http = HttpRequest::from_environment();
    Caller caller;
    std::optional<Answer> refused = check_host(http);
    if (!refused) refused = check_origin(http);
    if (!refused) refused = authenticate(http, &caller);
    if (!refused && http.method != "GET") refused = error_answer(405, "the event stream is a GET");
    if (refused) {
        write_answer(http_fd, *refused);
        return 1;
    }
    Stream stream(http_fd);
    if (!stream.open_pipe()) {
        write_answer(http_fd, error_answer(503, "the runtime directory /run/tx416 is not usable"));
        return 1;
    }
    if (!write_all(http_fd,
                   "Status: 200 OK\r\nContent-Type: text/event-stream\r\n"
                   "Cache-Control: no-store\r\n\r\nretry: 1000\n: connected\n\n")) {
        return 1;
    }
    stream.run();
    return 0;
}

int fan_out_events() {
    // Stopped by a signal, it ends as a program does, between two records.
    stop_on_signals();
    const std::optional<std::string> dir = runtime_subdir("streams");
    if (!dir) {
        std::fprintf(stderr,
                     "cgievents: %s must be a directory of this user (%ld) that no one else may "
                     "enter\n",
                     kRuntimeDir, static_cast<long>(geteuid()));
        return 1;
    }
    int fd = -1;
    bool told = false;
    while (stop_requested == 0) {
        if (fd < 0 && (fd = open_inter_comm()) < 0) {
            if (!told) {
                std::fprintf(stderr,
                             "cgievents: %s is not a pipe of this user: no notifications until "
                             "it is removed\n",
                             kInterCommPath);
                told = true;
            }
            poll(nullptr, 0, kRetryMs);
            continue;
        }
        told = false;
        pollfd fds{fd, POLLIN, 0};
        if (poll(&fds, 1, kRetryMs) <= 0) {
            // Someone removed the pipe: cgiconn can no longer find it.
            struct stat st {};
            if (fstat(fd, &st) != 0 || st.st_nlink == 0) {
                close(fd);
                fd = -1;
            }
            continue;
        }
        char record[CGI_LINE_LEN];
        while (read(fd, record, sizeof record) == static_cast<ssize_t>(sizeof record)) {
            pass_on(*dir, record);
        }
    }
    if (fd >= 0) close(fd);
    return 0;
}

}  // namespace tx::web
