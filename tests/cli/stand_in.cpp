// The client's counterpart in its end-to-end cases. Built under the
// connector's name, so that the client's "pidof cliconn" finds it, and under
// another one as a bystander that no lookup finds. Either creates the
// connector's queue pair, answers each request that contains a MATCH text
// with its REPLY, and reports "READY" and then each SIGUSR2 it receives on
// its standard output.
//
// Usage: cliconn [MATCH REPLY]...
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "queue.hpp"

int main(int argc, char** argv) {
    signal(SIGUSR2, [](int) { static_cast<void>(!write(1, "SIGUSR2\n", 8)); });
    const int requests = tx::test::queue_of("/tmp/cli_out_token", true);
    const int replies = tx::test::queue_of("/tmp/cli_in_token", true);
    if (requests < 0 || replies < 0) return 2;
    static_cast<void>(!write(1, "READY\n", 6));
    // A receive that a signal interrupts leaves the record empty: it matches nothing.
    for (tx::test::QueueRecord request;; request = {}) {
        if (msgrcv(requests, &request, tx::test::kQueuePayload, 0, 0) < 0 && errno != EINTR)
            return 1;
        for (int i = 1; i + 1 < argc; i += 2) {
            if (std::strstr(request.text, argv[i]) != nullptr)
                tx::test::send_text(replies, request.type, argv[i + 1]);
        }
    }
}
