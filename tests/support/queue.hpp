// The system's message queues as its programs see them: a queue is found
// through ftok of a token path (project id 'a') and carries records of a
// message type (a client's process id), a word that is always 0 and a text.
#pragma once

#include <fcntl.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

#include "fixed_text.hpp"

namespace tx::test {

struct QueueRecord {
    long type = 0;
    std::int32_t word = 0;
    char text[512] = {};
};

// The size that msgsnd and msgrcv are given for a record.
inline constexpr std::size_t kQueuePayload = sizeof(QueueRecord::word) + sizeof(QueueRecord::text);

// The queue of `token` (-1 when there is none); with `create` it is made,
// token file and all.
inline int queue_of(const char* token, bool create) {
    if (create) close(open(token, O_WRONLY | O_CREAT, 0666));
    return msgget(ftok(token, 'a'), create ? IPC_CREAT | 0666 : 0);
}

inline bool send_text(int queue, long type, std::string_view text) {
    QueueRecord record{type, 0, {}};
    copy_bounded(record.text, text);
    return msgsnd(queue, &record, kQueuePayload, IPC_NOWAIT) == 0;
}

}  // namespace tx::test
