// Stand-ins for the channel and the FIFO pair: they record what the connector
// code sends, flushes and writes, so that routing runs without queues.
#pragma once

#include <string>
#include <vector>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"

namespace fake {

struct Sent {
    std::string text;
    long type;
};

struct Transport {
    std::vector<Sent> sent;
    std::vector<long> flushed;
    std::vector<std::string> written;
    int failing_sends = 0;  // the next N sends report a full queue
    int sequence = 0;
};

inline Transport& transport() {
    static Transport t;
    return t;
}

inline int send(IpcChannel*, const char* text, long type, int) {
    Transport& t = transport();
    if (t.failing_sends > 0) {
        --t.failing_sends;
        return 0;
    }
    t.sent.push_back({text == nullptr ? "" : text, type});
    return 1;
}
inline int flush(IpcChannel*, long type) {
    transport().flushed.push_back(type);
    return 0;
}
inline int write(FdPair*, char* record, std::size_t) {
    transport().written.emplace_back(record);
    return 0;
}
inline int next_sequence(FdPair*) {
    return transport().sequence++;
}

inline IpcChannel channel{"/nonexistent/in",
                          "/nonexistent/out",
                          0,
                          0,
                          0,
                          0,
                          nullptr,
                          send,
                          nullptr,
                          nullptr,
                          flush,
                          nullptr};
inline FdPair pair{"in", "out", 0, 0, 0, nullptr, nullptr, write, nullptr, next_sequence};

inline void reset() {
    transport() = Transport{};
}

inline IpcMessage message(long pid, const char* text) {
    IpcMessage m{};
    m.type = pid;
    tx::copy_bounded(m.text, text);
    return m;
}

}  // namespace fake
