// A stand-in for the connector, for the client's end-to-end tests. It is built
// under the connector's process name so that the client's "pidof cliconn"
// finds it. It creates the queue pair as the connector does, writes every
// message it receives and every SIGUSR2 it gets to a record file, and answers
// requests that contain a given text with canned replies.
//
// Usage: cliconn RECORD_FILE [MATCH REPLY]...
//
// Record lines: "READY" once the queues exist, "MSG <type> <text>" per
// message, "SIGUSR2" per signal. A message that was already taken off the
// queue when a signal came is recorded before that signal.
#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"

namespace {

volatile std::sig_atomic_t signals_received = 0;

void on_usr2(int) {
    signals_received = signals_received + 1;
}

int record_fd = -1;

void record(const std::string& line) {
    const std::string text = line + "\n";
    if (write(record_fd, text.data(), text.size()) < 0) _exit(4);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc % 2 != 0) return 2;
    record_fd = open(argv[1], O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (record_fd < 0) return 2;
    std::vector<std::pair<std::string, std::string>> replies;
    for (int i = 2; i + 1 < argc; i += 2) replies.emplace_back(argv[i], argv[i + 1]);

    struct sigaction action = {};
    action.sa_handler = on_usr2;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR2, &action, nullptr);

    IpcChannel* channel = &cli_connector_channel;
    if (channel->open(channel, 'c') < 0) {
        record("OPEN FAILED");
        return 3;
    }
    record("READY");

    int signals_recorded = 0;
    for (;;) {
        IpcMessage message = {};
        const ssize_t got = msgrcv(channel->receive_id, &message, IPC_PAYLOAD_LEN, 0, 0);
        const int receive_errno = errno;
        if (got >= 0) {
            const std::string_view text = tx::field_view(message.text);
            record("MSG " + std::to_string(message.type) + " " + std::string(text));
            for (const auto& [match, reply] : replies) {
                if (text.find(match) != std::string_view::npos) {
                    channel->send(channel, reply.c_str(), message.type, 0);
                }
            }
        }
        while (signals_recorded < signals_received) {
            record("SIGUSR2");
            ++signals_recorded;
        }
        if (got < 0 && receive_errno != EINTR) {
            record("RECEIVE FAILED " + std::to_string(receive_errno));
            return 1;
        }
    }
}
