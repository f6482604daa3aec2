// cliconn: the CLI connector process. Runs until SIGINT or SIGTERM, then
// removes its queues so that a later start finds none in the way.
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "cli_connector.hpp"

int main() {
    // SIGINT and SIGTERM are taken synchronously below; every thread started
    // from here inherits the blocked mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    cli_connector.start(&cli_connector);

    int received = 0;
    while (sigwait(&stop, &received) != 0) {
    }
    cli_connector.channel->remove(cli_connector.channel);
    // The worker threads are never joined and are still running: ending
    // without static destructors keeps them off objects being torn down.
    std::fflush(nullptr);
    std::_Exit(0);
}
