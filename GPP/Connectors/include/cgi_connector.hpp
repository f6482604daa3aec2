// The CGI connector: serves the device's web (CGI) clients. It forwards their
// requests to the core over FIFO pair 0, returns the core's responses to the
// client named in them and hands notifications, rendered as one line of text,
// to the local pipe /tmp/CgiInterComm. A CGI client is alive while its marker
// file /tmp/cgi_rx_<pid>.txt and its /proc entry exist.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <span>
#include <string_view>

#include "ipc_channel.hpp"
#include "xml_messages.hpp"

inline constexpr std::size_t CGI_LINE_LEN = 256;
inline constexpr const char* CGI_INTER_COMM_NAME = "CgiInterComm";
inline constexpr const char* CGI_MARKER_PREFIX = "cgi_rx_";
inline constexpr const char* CGI_MARKER_SUFFIX = ".txt";
inline constexpr int CGI_MONITOR_PERIOD_S = 10;

// Fields that an instance does not name start empty.
struct CgiConnector {
    char name[64];
    IpcChannel* channel = nullptr;
    FdPair* pair = nullptr;
    int (*start)(CgiConnector* connector) = nullptr;
    int (*handle_client_message)(CgiConnector* connector, const IpcMessage& message) = nullptr;
    int (*hook_a)(CgiConnector* connector) = nullptr;
    int (*hook_b)(CgiConnector* connector) = nullptr;
    pthread_t threads[2] = {};
    bool thread_started[2] = {};
    void* (*thread_routines[2])(void* connector) = {};  // client receiver, core reader
};

// The process's connector: "CGI", cgi_connector_channel, FIFO pair 0.
extern CgiConnector cgi_connector;

// Opens the channel, creates the FIFOs and starts the client receiver, core
// reader, worker and monitor threads. Failures print their text and end the
// process.
int cgi_connector_start(CgiConnector* connector);

// Wraps one client message in the envelope and writes it to the core.
// Returns the pair's write result, or -1 when no envelope could be built.
int cgi_handle_client_message(CgiConnector* connector, const IpcMessage& message);

// Writes the client_register_notify request to the core every 100 ms for as
// long as the core's pipe can be opened. Returns 1 when that stops, -1 when
// the request cannot be rendered.
int cgi_register_for_notifications(CgiConnector* connector);

// Registers for notifications again whenever the core can be reached again:
// the core forgets registrations when it restarts, and a core that starts
// after the connector never had one. Returns only when the request cannot be
// rendered.
void cgi_keep_registered(CgiConnector* connector);

// Writes line as one 256-byte NUL-padded record into /tmp/CgiInterComm.
// Returns 0, or -1 when the pipe cannot be opened or written.
int cgi_write_inter_comm(std::string_view line);

// What the worker did with one record from the core.
enum class CgiRoute {
    dropped,        // empty, or neither a notification nor a response
    notified,       // written to CgiInterComm
    notify_failed,  // a notification that could not be parsed or written
    registration,   // the core's answer to the registration: never forwarded
    sent,           // a response sent to its client
    resent,         // sent only after the outgoing queue was flushed
    no_client,      // a response without a usable sub_client_id
};
CgiRoute cgi_worker_step(CgiConnector* connector, std::string_view record);

// One monitor pass: flushes the replies of every client whose marker exists
// but whose process is gone, then deletes those markers. Returns the number
// of markers deleted.
int cgi_monitor_pass(CgiConnector* connector);

// The pid text of a marker file name, or empty when the name is not a marker
// (no "cgi_rx_" prefix, no ".txt", or a number part not 1 to 15 characters
// or not a process id in plain decimal).
std::string_view cgi_marker_pid(std::string_view file_name);

void* cgi_client_receiver(void* connector);
void* cgi_core_reader(void* connector);
void* cgi_worker(void* connector);
void* cgi_monitor(void* connector);
