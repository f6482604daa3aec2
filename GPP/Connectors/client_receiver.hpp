// The client receiver thread body shared by the connectors: a blocking
// receive of any client's message (type 0), handed to the connector's own
// handle-client-message operation, until a receive fails.
#pragma once

#include <cstring>

#include "ipc_channel.hpp"

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
