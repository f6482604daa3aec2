// Both ends of a connector link share this code: the creator ('c') makes the
// two queues afresh, every other role attaches to queues that must exist.
#include "ipc_channel.hpp"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <span>
#include <string_view>

#include "fixed_text.hpp"
#include "osal.hpp"

namespace {

constexpr const char* kSource = "ipc_channel";
constexpr int kProjectId = 'a';
// Decimal on purpose (sticky bit, owner read, group/others execute): the
// token files only exist to be fed to ftok, and already deployed peers
// created them this way.
constexpr mode_t kTokenFileMode = 777;
constexpr int kQueueMode = 0666;

// One lock for the whole process, shared by every channel. msgsnd is atomic
// in the kernel; the lock only keeps the senders of this process in order.
std::mutex channel_mutex;

void log_prefixed(int line, const char* text) {
    osal_log(0, "%s %d [%d, %d]:%s\n", kSource, line, static_cast<int>(getpid()), osal_gettid(),
             text);
}

void ensure_token_file(const char* path) {
    struct stat info {};
    if (stat(path, &info) == 0) return;
    const int fd = open(path, O_RDWR | O_CREAT, kTokenFileMode);
    if (fd >= 0) close(fd);
}

int channel_open(IpcChannel* channel, char role) {
    if (channel == nullptr || channel->send_token_path == nullptr ||
        channel->receive_token_path == nullptr) {
        return -1;
    }
    ensure_token_file(channel->send_token_path);
    ensure_token_file(channel->receive_token_path);

    // A failed ftok (-1) is passed on as it is: msgget then fails or finds
    // the queue of key -1, exactly as on the peer built the same way.
    channel->send_key = ftok(channel->send_token_path, kProjectId);
    if (role == 'c') {
        ipc_remove_stale_queue(channel->send_key);
        channel->send_id = msgget(channel->send_key, IPC_CREAT | IPC_EXCL | kQueueMode);
        if (channel->send_id < 0) return -1;
        channel->receive_key = ftok(channel->receive_token_path, kProjectId);
        ipc_remove_stale_queue(channel->receive_key);
        channel->receive_id = msgget(channel->receive_key, IPC_CREAT | IPC_EXCL | kQueueMode);
        if (channel->receive_id < 0) return -1;
    } else {
        channel->send_id = msgget(channel->send_key, kQueueMode);
        if (channel->send_id < 0) return -1;
        channel->receive_key = ftok(channel->receive_token_path, kProjectId);
        channel->receive_id = msgget(channel->receive_key, kQueueMode);
        if (channel->receive_id < 0) return -1;
    }
    return 0;
}

int channel_send(IpcChannel* channel, const char* text, long type, int word) {
    if (channel == nullptr) return 0;
    IpcMessage message{};
    message.type = type;
    message.word = word;
    if (text != nullptr) {
        // Texts are at most 511 characters by contract; a longer one is cut
        // rather than written past the record.
        tx::copy_bounded(std::span<char>(message.text), std::string_view(text));
    }
    int rc = 0;
    {
        const std::lock_guard lock(channel_mutex);
        rc = msgsnd(channel->send_id, &message, IPC_PAYLOAD_LEN, IPC_NOWAIT);
    }
    return rc == 0 ? 1 : 0;
}

int channel_receive(IpcChannel* channel, IpcMessage* buffer, long type) {
    if (channel != nullptr && buffer != nullptr &&
        msgrcv(channel->receive_id, buffer, IPC_PAYLOAD_LEN, type, MSG_NOERROR) >= 0) {
        return 1;
    }
    // The caller tells a signal from a queue that is gone by errno.
    const int error = errno;
    log_prefixed(201, "error receiving ipc message");
    errno = error;
    return 0;
}

int channel_receive_retry(IpcChannel* channel, IpcMessage* buffer, long type, int wait_ms,
                          int attempts) {
    int made = 0;
    bool received = false;
    bool finished = false;
    while (!finished && made < attempts) {
        const ssize_t rc = (channel != nullptr && buffer != nullptr)
                               ? msgrcv(channel->receive_id, buffer, IPC_PAYLOAD_LEN, type,
                                        IPC_NOWAIT | MSG_NOERROR)
                               : (errno = EINVAL, -1);
        ++made;
        if (rc >= 0) {
            received = true;
            finished = true;
        } else if ((errno == ENOMSG || errno == EAGAIN) && made < attempts) {
            usleep(static_cast<useconds_t>(wait_ms) * 1000U);
        } else {
            const int error = errno;
            osal_log(0, "%s %d [%d, %d]:error receiving ipc message (%s), errorno: %d\n", kSource,
                     233, static_cast<int>(getpid()), osal_gettid(),
                     channel != nullptr && channel->receive_token_path != nullptr
                         ? channel->receive_token_path
                         : "",
                     error);
            finished = true;
        }
    }
    return received ? 1 : 0;
}

int channel_flush(IpcChannel* channel, long type) {
    if (channel == nullptr) return 0;
    IpcMessage scratch{};
    for (;;) {
        ssize_t rc = 0;
        {
            const std::lock_guard lock(channel_mutex);
            rc =
                msgrcv(channel->send_id, &scratch, IPC_PAYLOAD_LEN, type, IPC_NOWAIT | MSG_NOERROR);
        }
        if (rc < 0) break;
    }
    return 0;
}

int channel_remove(IpcChannel* channel) {
    if (channel == nullptr) return -1;
    if (msgctl(channel->send_id, IPC_RMID, nullptr) < 0) return -1;
    if (msgctl(channel->receive_id, IPC_RMID, nullptr) < 0) return -1;
    return 0;
}

constexpr IpcChannel make_channel(const char* send_path, const char* receive_path) {
    return IpcChannel{send_path,
                      receive_path,
                      0,
                      0,
                      0,
                      0,
                      channel_open,
                      channel_send,
                      channel_receive,
                      channel_receive_retry,
                      channel_flush,
                      channel_remove};
}

}  // namespace

void ipc_remove_stale_queue(key_t key) {
    const int id = msgget(key, 0);
    if (id >= 0) (void)msgctl(id, IPC_RMID, nullptr);
}

IpcChannel cli_client_channel = make_channel("/tmp/cli_out_token", "/tmp/cli_in_token");
IpcChannel cli_connector_channel = make_channel("/tmp/cli_in_token", "/tmp/cli_out_token");
IpcChannel cgi_connector_channel = make_channel("/tmp/cgi_in_token", "/tmp/cgi_out_token");
IpcChannel cgi_client_channel = make_channel("/tmp/cgi_out_token", "/tmp/cgi_in_token");
