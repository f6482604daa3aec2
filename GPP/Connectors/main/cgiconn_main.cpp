// cgiconn: the CGI connector process. Runs until SIGINT or SIGTERM, then
// removes its queues.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "cgi_connector.hpp"

namespace {

void* register_routine(void* connector) {
    cgi_register_for_notifications(static_cast<CgiConnector*>(connector));
    return nullptr;
}

}  // namespace

int main() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    // A leaving cli signals every process it can reach when it finds no
    // cliconn; that is no reason for this one to end.
    signal(SIGUSR2, SIG_IGN);

    cgi_connector.start(&cgi_connector);

    // The registration repeats for as long as the core is there, so it gets a
    // thread of its own.
    pthread_t registration{};
    if (pthread_create(&registration, nullptr, register_routine, &cgi_connector) == 0) {
        pthread_detach(registration);
    }

    int received = 0;
    while (sigwait(&stop, &received) != 0) {
    }
    cgi_connector.channel->remove(cgi_connector.channel);
    // The worker threads are never joined and are still running: ending
    // without static destructors keeps them off objects being torn down.
    std::fflush(nullptr);
    std::_Exit(0);
}
