// The event stream. cgiconn writes each notification as one 256-byte record
// into the pipe /tmp/CgiInterComm, and a pipe hands each record to one reader
// only. So one stream at a time, the holder of a lock, reads the pipe and
// passes every record on to the pipes of the other streams
// (/tmp/cgi_ev_<pid>.fifo), which read only their own: every open page sees
// every notification, in order.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "cgi_connector.hpp"
#include "web_cgi.hpp"

namespace tx::web {

namespace {

constexpr const char* kTmpDir = "/tmp";
constexpr const char* kLockFile = "/tmp/cgi_events.lock";
constexpr std::string_view kStreamPrefix = "cgi_ev_";
constexpr std::string_view kStreamSuffix = ".fifo";
// A follower checks this often whether it must take over the reading.
constexpr int kPollMs = 1000;
constexpr int kHeartbeatMs = 15000;

volatile std::sig_atomic_t stop_requested = 0;
void on_stop(int) {
    stop_requested = 1;
}

struct DirCloser {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};

std::string stream_path(long pid) {
    return std::string(kTmpDir) + "/" + std::string(kStreamPrefix) + std::to_string(pid) +
           std::string(kStreamSuffix);
}

// Opened read-write, so that the pipe never reports end-of-file between
// writers; non-blocking, so that a record is read whole or not at all.
int open_pipe(const std::string& path) {
    mkfifo(path.c_str(), 0666);
    chmod(path.c_str(), 0666);
    return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

// This stream's own pipe, made under a passing name and renamed when open:
// a leader never finds it without a reader and takes it for a dead one.
int open_own_pipe(const std::string& path) {
    const std::string passing = path + ".new";
    const int fd = open_pipe(passing);
    if (fd >= 0 && rename(passing.c_str(), path.c_str()) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Passes one record on to every other stream; the pipes of streams that are
// gone (no reader any more) are removed. A full pipe loses the record.
void pass_on(const char* record, const std::string& own) {
    std::unique_ptr<DIR, DirCloser> dir(opendir(kTmpDir));
    if (!dir) return;
    while (const dirent* entry = readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with(kStreamPrefix) || !name.ends_with(kStreamSuffix)) continue;
        const std::string path = std::string(kTmpDir) + "/" + std::string(name);
        if (path == own) continue;
        const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENXIO) unlink(path.c_str());
            continue;
        }
        (void)!write(fd, record, CGI_LINE_LEN);
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

long now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

class Stream {
  public:
    explicit Stream(int http_fd) : http_fd_(http_fd), own_path_(stream_path(getpid())) {}
    ~Stream() {
        for (const int fd : {own_fd_, shared_fd_, lock_fd_}) {
            if (fd >= 0) close(fd);
        }
        unlink(own_path_.c_str());
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    bool open_pipes() {
        own_fd_ = open_own_pipe(own_path_);
        lock_fd_ = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (lock_fd_ >= 0) fchmod(lock_fd_, 0666);
        return own_fd_ >= 0 && lock_fd_ >= 0;
    }

    // Until the web server goes away: a failed write, or its signal.
    void run() {
        long last_write = now_ms();
        while (stop_requested == 0) {
            lead_if_free();
            pollfd fds[2] = {{own_fd_, POLLIN, 0}, {shared_fd_, POLLIN, 0}};
            const int ready = poll(fds, shared_fd_ >= 0 ? 2 : 1, kPollMs);
            if (ready > 0 && !(relay(own_fd_, false) && relay(shared_fd_, true))) return;
            if (ready > 0) last_write = now_ms();
            if (now_ms() - last_write >= kHeartbeatMs) {
                if (!write_all(http_fd_, ": heartbeat\n\n")) return;
                last_write = now_ms();
            }
        }
    }

  private:
    void lead_if_free() {
        if (shared_fd_ >= 0 || flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) return;
        shared_fd_ = open_pipe(std::string(kTmpDir) + "/" + CGI_INTER_COMM_NAME);
    }

    // Sends every whole record waiting on fd; the shared pipe's go to the
    // other streams too.
    bool relay(int fd, bool shared) {
        char record[CGI_LINE_LEN];
        while (fd >= 0 && read(fd, record, sizeof record) == static_cast<ssize_t>(sizeof record)) {
            if (shared) pass_on(record, own_path_);
            if (!send_event(http_fd_, record)) return false;
        }
        return true;
    }

    int http_fd_;
    std::string own_path_;
    int own_fd_ = -1;
    int shared_fd_ = -1;
    int lock_fd_ = -1;
};

}  // namespace

int stream_events(int http_fd) {
    struct sigaction action {};
    action.sa_handler = on_stop;
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) sigaction(signo, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    Stream stream(http_fd);
    if (!stream.open_pipes()) {
        write_answer(http_fd, error_answer(503, "cannot open the notification pipes in /tmp"));
        return 1;
    }
    if (!write_all(http_fd,
                   "Status: 200 OK\r\nContent-Type: text/event-stream\r\n"
                   "Cache-Control: no-store\r\n\r\n: connected\n\n")) {
        return 1;
    }
    stream.run();
    return 0;
}

}  // namespace tx::web
