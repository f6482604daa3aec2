#include "cgi_connector.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "connector_common.hpp"
#include "fixed_text.hpp"
#include "osal.hpp"
#include "queue.hpp"
#include "request_record.hpp"

namespace {

int no_hook(CgiConnector*) {
    return 0;
}

constexpr const char* kSource = "cgi_connector";
constexpr useconds_t kRegistrationPauseUs = 100000;
// The notification line's pieces are cut one by one; the 256-byte line
// bounds their sum.
constexpr NotifyLineCuts kLineCuts{65, 321};

struct DirCloser {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};

// Names of the marker files in /tmp whose process is gone.
std::vector<std::string> dead_markers() {
    std::vector<std::string> dead;
    std::unique_ptr<DIR, DirCloser> dir(opendir("/tmp"));
    if (!dir) return dead;
    while (const dirent* entry = readdir(dir.get())) {
        const std::string_view pid = cgi_marker_pid(entry->d_name);
        if (pid.empty()) continue;
        const std::string proc = "/proc/" + std::string(pid);
        struct stat st {};
        // Only a definite "no such process" counts as dead.
        if (stat(proc.c_str(), &st) == 0 || errno != ENOENT) continue;
        dead.emplace_back(entry->d_name);
    }
    return dead;
}

// The core has its end of the out FIFO open: a non-blocking open for
// writing succeeds only then. Nothing is reported while it is away.
bool core_listens(const FdPair& pair) {
    const int fd = open(pair.out_path, O_WRONLY | O_NONBLOCK);
    if (fd < 0) return false;
    close(fd);
    return true;
}

}  // namespace

CgiConnector cgi_connector = {
    .name = "CGI",
    .channel = &cgi_connector_channel,
    .pair = &fd_pairs[0],
    .start = cgi_connector_start,
    .handle_client_message = cgi_handle_client_message,
    .hook_a = no_hook,
    .hook_b = no_hook,
    .thread_routines = {cgi_client_receiver, cgi_core_reader},
};

int cgi_handle_client_message(CgiConnector* connector, const IpcMessage& message) {
    return forward_to_core(connector->pair, connector->name, message);
}

int cgi_register_for_notifications(CgiConnector* connector) {
    RequestRecord record{};
    tx::copy_bounded(record.action, "client_register_notify");
    IpcMessage message{};
    generate_xml_request(record, std::span<char>(message.text, IPC_TEXT_LEN));
    if (message.text[0] == '\0') return -1;
    message.type = 0;  // not on behalf of any one client
    // Kept up for as long as the core's pipe can be opened: the core forgets
    // registrations when it restarts. Only a failed open (a positive error
    // number) ends it.
    while (forward_to_core(connector->pair, connector->name, message) <= 0) {
        usleep(kRegistrationPauseUs);
    }
    return 1;
}

void cgi_keep_registered(CgiConnector* connector) {
    while (cgi_register_for_notifications(connector) == 1) {
        while (!core_listens(*connector->pair)) usleep(kRegistrationPauseUs);
    }
}

int cgi_write_inter_comm(std::string_view line) {
    // The pipe belongs to its reader, the web side's event fan-out, which
    // makes it: only an existing pipe of that reader (or of this connector's
    // own user) gets the record. A symlink planted in /tmp, a regular file or
    // another user's pipe does not: root would otherwise write over a file,
    // or hand every notification to whoever made the pipe. Without a reader
    // the non-blocking open fails and the record is dropped.
    const std::string path = std::string("/tmp/") + CGI_INTER_COMM_NAME;
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        osal_report(kSource, 500, "\n");
        return -1;
    }
    struct stat st {};
    struct stat runtime {};
    if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode) ||
        !(st.st_uid == geteuid() ||
          (stat(CGI_RUNTIME_DIR, &runtime) == 0 && runtime.st_uid == st.st_uid))) {
        close(fd);
        osal_report(kSource, 500, "\n");
        return -1;
    }
    char record[CGI_LINE_LEN] = {};
    tx::copy_bounded(record, line);
    const ssize_t written = write(fd, record, sizeof record);
    close(fd);
    return written == static_cast<ssize_t>(sizeof record) ? 0 : -1;
}

CgiRoute cgi_worker_step(CgiConnector* connector, std::string_view record) {
    record = record.substr(0, record.find('\0'));
    if (record.empty()) return CgiRoute::dropped;
    if (is_server_notify(record)) {
        tx::HeapText notify = cut_notify(record);
        if (!notify || !is_notify(notify.get())) return CgiRoute::notify_failed;
        NotifyRecord parsed{};
        parse_notify(notify.get(), std::strlen(notify.get()) + 1, &parsed);
        char line[CGI_LINE_LEN] = {};
        render_notify_line(parsed, line, kLineCuts);
        return cgi_write_inter_comm(line) == 0 ? CgiRoute::notified : CgiRoute::notify_failed;
    }
    if (!is_server_response(record)) return CgiRoute::dropped;
    if (message_contains(record, "client_register_notify")) return CgiRoute::registration;
    const long pid = sub_client_id_of(record);
    if (pid <= 0) return CgiRoute::no_client;
    tx::HeapText response = cut_response(record);
    if (!response) return CgiRoute::no_client;
    char text[IPC_TEXT_LEN] = {};
    tx::copy_bounded(text, response.get());
    if (connector->channel->send(connector->channel, text, pid, 0)) return CgiRoute::sent;
    osal_report(kSource, 373, "cgi message queue is full, clear the queue.\n");
    // Every waiting reply to every CGI client is given up for this one.
    connector->channel->flush(connector->channel, 0);
    connector->channel->send(connector->channel, text, pid, 0);
    return CgiRoute::resent;
}

std::string_view cgi_marker_pid(std::string_view file_name) {
    const std::string_view prefix = CGI_MARKER_PREFIX;
    if (!file_name.starts_with(prefix)) return {};
    const std::string_view rest = file_name.substr(prefix.size());
    const std::size_t end = rest.find(CGI_MARKER_SUFFIX);
    if (end == std::string_view::npos || end < 1 || end > 15) return {};
    // What strtol makes of anything else could be 0 (every client's
    // replies), negative (a range of types) or a live client's id ("007").
    const std::string_view pid = rest.substr(0, end);
    if (pid.front() == '0' || pid.find_first_not_of("0123456789") != std::string_view::npos)
        return {};
    return pid;
}

int cgi_monitor_pass(CgiConnector* connector) {
    for (const std::string& name : dead_markers()) {
        const std::string pid(cgi_marker_pid(name));
        connector->channel->flush(connector->channel, std::strtol(pid.c_str(), nullptr, 10));
    }
    int deleted = 0;
    for (const std::string& name : dead_markers()) {
        const std::string path = "/tmp/" + name;
        if (std::remove(path.c_str()) == 0) ++deleted;
    }
    return deleted;
}

void* cgi_client_receiver(void* arg) {
    return connector_client_receiver<CgiConnector>(arg);
}

void* cgi_core_reader(void* arg) {
    // The worker takes the records off the stack, newest first.
    read_core_records(
        static_cast<CgiConnector*>(arg)->pair,
        [](void*, std::string_view text) { message_stack_push(text); }, nullptr);
}

void* cgi_worker(void* arg) {
    auto* connector = static_cast<CgiConnector*>(arg);
    char record[CORE_RECORD_LEN + 1];
    for (;;) {
        std::memset(record, 0, sizeof record);
        message_stack_pop(record, CORE_RECORD_LEN);
        if (record[0] == '\0') continue;
        cgi_worker_step(connector, std::string_view(record, CORE_RECORD_LEN));
    }
    return nullptr;
}

void* cgi_monitor(void* arg) {
    auto* connector = static_cast<CgiConnector*>(arg);
    for (;;) {
        sleep(CGI_MONITOR_PERIOD_S);
        cgi_monitor_pass(connector);
    }
    return nullptr;
}

int cgi_connector_start(CgiConnector* connector) {
    if (connector->channel->open(connector->channel, 'c') < 0) {
        std::printf("%s:%d: error creating channel. \n", "cgi_connector", 404);
        std::fflush(stdout);
        std::exit(0);
    }
    connector->pair->create(connector->pair);

    struct Start {
        void* (*routine)(void*);
        int line;
        const char* text;
    };
    const Start starts[] = {
        {connector->thread_routines[0], 417, "%s:%d: error creating CGI connector thread. \n"},
        {connector->thread_routines[1], 426,
         "%s:%d: error creating CGI connector file reader thread. \n"},
        {cgi_worker, 439,
         "%s:%d: error creating CGI connector message processing worker thread. \n"},
        {cgi_monitor, 451, "%s:%d: error creating CGI monitoring worker thread. \n"},
    };
    for (std::size_t i = 0; i < std::size(starts); ++i) {
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, starts[i].routine, connector) != 0) {
            std::printf(starts[i].text, "cgi_connector", starts[i].line);
            std::fflush(stdout);
            std::exit(1);
        }
        pthread_detach(thread);
        if (i < 2) {
            connector->threads[i] = thread;
            connector->thread_started[i] = true;
        }
    }
    return 0;
}
