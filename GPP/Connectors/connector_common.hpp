// What the CLI and the CGI connector do alike: the thread that receives the
// requests of all clients, the thread that reads the core's records, the
// forwarding of a client request to the core, and the life of the process.
#pragma once

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

// Runs a connector process: SIGINT and SIGTERM are blocked before start runs,
// so every thread it starts inherits the mask, and then taken synchronously;
// on either one the channel's queues are removed and the process ends.
[[noreturn]] void run_connector_process(IpcChannel* channel, void (*start)());

// The client receiver thread body: a blocking receive of any client's message
// (type 0), handed to the connector's own handle-client-message operation,
// until a receive fails.
template <class Connector>
void* connector_client_receiver(void* arg) {
    auto* connector = static_cast<Connector*>(arg);
    IpcMessage message{};
    for (;;) {
        std::memset(&message, 0, sizeof message);
        if (!connector->channel->receive(connector->channel, &message, 0)) break;
        connector->handle_client_message(connector, message);
    }
    return nullptr;
}
