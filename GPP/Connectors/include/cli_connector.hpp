// The CLI connector: the process side of the channel that cli talks to. It
// keeps a table of four client sessions, forwards client requests to the core
// over FIFO pair 1 and routes the core's responses to the client they name and
// its notifications to every registered session.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <string_view>

#include "ipc_channel.hpp"

inline constexpr int CLI_SESSION_COUNT = 4;
inline constexpr long CLI_SESSION_EXPIRY_S = 30;
inline constexpr int CLI_MONITOR_PERIOD_S = 10;
inline constexpr const char* CLI_TERMINATE_TEXT =
    "<response><action>terminate_client</action></response>";
inline constexpr const char* CLI_KEEP_ALIVE_ACTION = "cli_keep_alive";

// One client session. The SIGUSR2 handler and the core reader touch the table
// without the session mutex, so every field is a lock-free atomic.
struct CliSession {
    std::atomic<int> pid;  // 0 or below: free
    std::atomic<long> seen_sec;
    std::atomic<long> seen_usec;
};

// Fields that an instance does not name start empty.
struct CliConnector {
    char name[64];
    IpcChannel* channel = nullptr;
    FdPair* pair = nullptr;
    int (*start)(CliConnector* connector) = nullptr;
    int (*handle_client_message)(CliConnector* connector, const IpcMessage& message) = nullptr;
    int (*hook_a)(CliConnector* connector) = nullptr;
    int (*hook_b)(CliConnector* connector) = nullptr;
    pthread_mutex_t session_mutex = PTHREAD_MUTEX_INITIALIZER;
    CliSession sessions[CLI_SESSION_COUNT] = {};
    pthread_t threads[3] = {};
    bool thread_started[3] = {};
    void* (*thread_routines[3])(void* connector) = {};  // receiver, monitor, core reader
    pthread_mutex_t wake_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t wake = PTHREAD_COND_INITIALIZER;
};

// The process's connector: "CLI", cli_connector_channel, FIFO pair 1.
extern CliConnector cli_connector;

// Opens the channel (role 'c'; a failure ends the process with status 0),
// creates the FIFOs, starts the three threads and installs the SIGUSR2
// handler. The caller keeps SIGUSR2 blocked until then (run_connector_process
// does): a client that leaves while the connector starts must not end it.
// The calling thread takes SIGUSR2 from then on, the worker threads never.
int cli_connector_start(CliConnector* connector);

// The session step for one client message: refresh or take a session and
// forward the request, or answer the terminate text when the table is full.
// Returns 1 when the message was forwarded (or was a keep-alive), 0 when the
// client was told to terminate, -1 when the forward failed.
int cli_handle_client_message(CliConnector* connector, const IpcMessage& message);

// Finds the first session older than the expiry at `now`, frees it and
// flushes its undelivered replies. Returns the dropped pid, or 0.
int cli_expire_one(CliConnector* connector, const timeval& now);

// Routes one record from the core: notifications to every session, anything
// else to the client named by its sub_client_id. Returns the number of sends.
int cli_route_core_record(CliConnector* connector, std::string_view record);

// Clears every session (the SIGUSR2 reset). Async-signal-safe.
void cli_reset_sessions(CliConnector* connector);

int cli_lock_sessions(CliConnector* connector);
int cli_unlock_sessions(CliConnector* connector);

// Thread routines.
void* cli_client_receiver(void* connector);
void* cli_session_monitor(void* connector);
void* cli_core_reader(void* connector);
