// What the CLI and the CGI connector do alike: the thread that receives the
// requests of all clients, the thread that reads the core's records, the
// forwarding of a client request to the core, and the life of the process.
#pragma once

#include <cerrno>
#include <cstring>
#include <string_view>

#include "ipc_channel.hpp"

// Wraps the client's message in the client_request envelope under the pair's
// next sequence number and writes it to the core as one 512-byte record.
// Returns the pair's write result, or -1 when no envelope could be built.
int forward_to_core(FdPair* pair, const char* client_id, const IpcMessage& message);

// Reads the core's records from the pair for ever and hands the text of every
// non-empty one to take(context, text).
[[noreturn]] void read_core_records(FdPair* pair,
                                    void (*take)(void* context, std::string_view text),
                                    void* context);

// Runs a connector process. SIGINT and SIGTERM are blocked before start
// runs, so every thread it starts inherits the mask, and then taken
// synchronously: on either one the channel's queues are removed and the
// process ends. SIGUSR2 is blocked as well, for start to take up when it has
// a handler for it in place, and SIGPIPE is ignored: a core that goes away
// while a record is written to it fails that write and nothing more.
[[noreturn]] void run_connector_process(IpcChannel* channel, void (*start)());

// Whether a message type can name a client: a process id. A wider type, cut
// to a session's pid, would be taken for another client.
bool is_client_type(long type);

// A connector whose client queue is gone can serve nobody any more: it says
// so and ends with status 1, so that whatever supervises it starts it again.
[[noreturn]] void end_deaf_connector(const char* name, int error);

// Receives the messages of all clients (type 0) and hands those from a
// process to the connector's own handle-client-message operation; returns
// when a receive fails other than by a signal.
template <class Connector>
void receive_client_messages(Connector* connector) {
    IpcMessage message{};
    for (;;) {
        std::memset(&message, 0, sizeof message);
        if (!connector->channel->receive(connector->channel, &message, 0)) {
            if (errno == EINTR) continue;
            return;
        }
        if (is_client_type(message.type)) connector->handle_client_message(connector, message);
    }
}

// The client receiver thread body: it hears the clients for as long as
// their queue lasts, and the process with it.
template <class Connector>
void* connector_client_receiver(void* arg) {
    auto* connector = static_cast<Connector*>(arg);
    receive_client_messages(connector);
    end_deaf_connector(connector->name, errno);
}
