// Stand-ins for the channel and the FIFO pair, and connectors wired to them:
// they record what connector code sends, flushes and writes, and stop the
// program where that code breaks the contract of the real ones.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "cgi_connector.hpp"
#include "cli_connector.hpp"
#include "fixed_text.hpp"

namespace fake {

struct Transport {
    std::vector<std::pair<long, std::string>> sent;  // type, text
    std::vector<long> flushed;
    std::vector<std::string> written;
    int failing_sends = 0;            // the next N sends report a full queue
    std::deque<IpcMessage> incoming;  // then the queue is gone
};
inline Transport transport;

// The real send copies a terminated text of at most 511 characters.
inline int send(IpcChannel*, const char* text, long type, int) {
    if (text == nullptr || strnlen(text, IPC_TEXT_LEN) == IPC_TEXT_LEN) std::abort();
    if (transport.failing_sends-- > 0) return 0;
    transport.sent.emplace_back(type, text);
    return 1;
}
inline int receive(IpcChannel*, IpcMessage* buffer, long) {
    errno = EIDRM;
    if (transport.incoming.empty()) return 0;
    *buffer = transport.incoming.front();
    transport.incoming.pop_front();
    return 1;
}
inline int flush(IpcChannel*, long type) {
    transport.flushed.push_back(type);
    return 0;
}
// The real write hands all record_len bytes to the pipe: all must be readable.
inline int write(FdPair*, char* record, std::size_t record_len) {
    const std::string whole(record, record_len);
    if (record_len != CORE_RECORD_LEN || whole.find('\0') == std::string::npos) std::abort();
    transport.written.push_back(whole.substr(0, whole.find('\0')));
    return 0;
}

inline IpcChannel channel{"", "", 0, 0, 0, 0, nullptr, send, receive, nullptr, flush, nullptr};
inline FdPair pair{"", "", 0, 0, 0, nullptr, nullptr, write, nullptr, fd_pairs[0].next_sequence};

inline CliConnector cli{.name = "CLI",
                        .channel = &channel,
                        .pair = &pair,
                        .handle_client_message = cli_handle_client_message};
inline CgiConnector cgi{.name = "CGI", .channel = &channel, .pair = &pair};

inline void reset() {
    transport = Transport{};
    pair.sequence = 0;
    cli_reset_sessions(&cli);
}

inline IpcMessage message(long type, const std::string& text) {
    IpcMessage m{};
    m.type = type;
    tx::copy_bounded(m.text, text);
    return m;
}

}  // namespace fake
