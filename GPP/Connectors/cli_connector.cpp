#include "cli_connector.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "connector_common.hpp"
#include "fixed_text.hpp"
#include "osal.hpp"
#include "xml_messages.hpp"

namespace {

int no_hook(CliConnector*) {
    return 0;
}

void on_sigusr2(int) {
    cli_reset_sessions(&cli_connector);
}

void send_text(CliConnector* connector, const char* text, long type) {
    connector->channel->send(connector->channel, text, type, 0);
}

int report_lock_failure(int rc, const char* text) {
    if (rc != 0) {
        errno = rc;
        std::perror(text);
    }
    return rc;
}

bool is_keep_alive(std::string_view text) {
    RequestRecord request{};
    parse_response(text.data(), text.size(), &request);
    return tx::field_view(request.action) == CLI_KEEP_ALIVE_ACTION;
}

// A keep-alive only refreshes the session; anything else goes to the core.
// Returns 1 for a keep-alive, 0 for a written record, otherwise the error.
int forward(CliConnector* connector, const IpcMessage& message) {
    if (is_keep_alive(tx::field_view(message.text))) return 1;
    return forward_to_core(connector->pair, connector->name, message);
}

void route_core_text(void* connector, std::string_view text) {
    cli_route_core_record(static_cast<CliConnector*>(connector), text);
}

}  // namespace

CliConnector cli_connector = {
    .name = "CLI",
    .channel = &cli_connector_channel,
    .pair = &fd_pairs[1],
    .start = cli_connector_start,
    .handle_client_message = cli_handle_client_message,
    .hook_a = no_hook,
    .hook_b = no_hook,
    .thread_routines = {cli_client_receiver, cli_session_monitor, cli_core_reader},
};

int cli_lock_sessions(CliConnector* connector) {
    return report_lock_failure(pthread_mutex_lock(&connector->session_mutex),
                               "Failed to lock session objects.");
}

int cli_unlock_sessions(CliConnector* connector) {
    return report_lock_failure(pthread_mutex_unlock(&connector->session_mutex),
                               "Failed to unlock session objects.");
}

int cli_handle_client_message(CliConnector* connector, const IpcMessage& message) {
    const long pid = message.type;
    timeval now{};
    gettimeofday(&now, nullptr);

    cli_lock_sessions(connector);
    CliSession* session = nullptr;
    for (CliSession& s : connector->sessions) {
        if (s.pid.load() == pid) {
            session = &s;
            break;
        }
    }
    if (session == nullptr) {
        for (CliSession& s : connector->sessions) {
            if (s.pid.load() <= 0) {
                session = &s;
                s.pid.store(static_cast<int>(pid));
                break;
            }
        }
    }
    if (session != nullptr) {
        session->seen_sec.store(now.tv_sec);
        session->seen_usec.store(now.tv_usec);
    }
    cli_unlock_sessions(connector);

    if (session == nullptr) {
        // The table is full: the newcomer is turned away, its request dropped.
        send_text(connector, CLI_TERMINATE_TEXT, pid);
        return 0;
    }
    const int rc = forward(connector, message);
    return rc == 0 || rc == 1 ? 1 : -1;
}

int cli_expire_one(CliConnector* connector, const timeval& now) {
    int dropped = 0;
    cli_lock_sessions(connector);
    for (CliSession& s : connector->sessions) {
        const int pid = s.pid.load();
        if (pid <= 0) continue;
        long age = now.tv_sec - s.seen_sec.load();
        if (now.tv_usec < s.seen_usec.load()) --age;
        if (age > CLI_SESSION_EXPIRY_S) {
            s.pid.store(0);
            s.seen_sec.store(0);
            s.seen_usec.store(0);
            dropped = pid;
            break;
        }
    }
    cli_unlock_sessions(connector);
    // Replies to a vanished client would only fill the queue.
    if (dropped > 0) connector->channel->flush(connector->channel, dropped);
    return dropped;
}

int cli_route_core_record(CliConnector* connector, std::string_view record) {
    record = record.substr(0, record.find('\0'));
    if (record.empty()) return 0;
    int sends = 0;
    if (is_server_notify(record)) {
        for (CliSession& s : connector->sessions) {
            const int pid = s.pid.load();
            if (pid <= 0) continue;
            tx::HeapText notify = cut_notify(record);
            if (!notify) continue;
            char text[IPC_TEXT_LEN] = {};
            tx::copy_bounded(text, notify.get());
            send_text(connector, text, pid);
            ++sends;
        }
        return sends;
    }
    const long pid = sub_client_id_of(record);
    if (pid <= 0) {
        osal_report("cli_connector", __LINE__, "response without a client: %.*s\n",
                    static_cast<int>(std::min<std::size_t>(record.size(), 80)), record.data());
        return 0;
    }
    tx::HeapText response = cut_response(record);
    if (!response) return 0;
    char text[IPC_TEXT_LEN] = {};
    tx::copy_bounded(text, response.get());
    send_text(connector, text, pid);
    return 1;
}

void cli_reset_sessions(CliConnector* connector) {
    for (CliSession& s : connector->sessions) {
        s.pid.store(0);
        s.seen_sec.store(0);
        s.seen_usec.store(0);
    }
}

void* cli_client_receiver(void* arg) {
    return connector_client_receiver<CliConnector>(arg);
}

void* cli_session_monitor(void* arg) {
    auto* connector = static_cast<CliConnector*>(arg);
    for (;;) {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += CLI_MONITOR_PERIOD_S;
        pthread_mutex_lock(&connector->wake_mutex);
        pthread_cond_timedwait(&connector->wake, &connector->wake_mutex, &deadline);
        pthread_mutex_unlock(&connector->wake_mutex);
        timeval now{};
        gettimeofday(&now, nullptr);
        cli_expire_one(connector, now);
    }
    return nullptr;
}

void* cli_core_reader(void* arg) {
    read_core_records(static_cast<CliConnector*>(arg)->pair, route_core_text, arg);
}

int cli_connector_start(CliConnector* connector) {
    if (connector->channel->open(connector->channel, 'c') < 0) {
        std::exit(0);
    }
    connector->pair->create(connector->pair);

    // SIGUSR2 is blocked (see run_connector_process) and stays so in the
    // worker threads: a blocking queue receive that a signal interrupts would
    // fail. This thread takes it once the handler is in place.
    for (int i = 0; i < 3; ++i) {
        if (pthread_create(&connector->threads[i], nullptr, connector->thread_routines[i],
                           connector) != 0) {
            std::perror("pthread_create");
            std::exit(1);
        }
        pthread_detach(connector->threads[i]);
        connector->thread_started[i] = true;
    }

    struct sigaction action {};
    action.sa_handler = on_sigusr2;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR2, &action, nullptr);
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_UNBLOCK, &usr2, nullptr);
    return 0;
}
