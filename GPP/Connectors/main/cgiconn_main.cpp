// cgiconn: the CGI connector process. Runs until SIGINT or SIGTERM, then
// removes its queues.
#include <pthread.h>
#include <signal.h>

#include "cgi_connector.hpp"
#include "connector_common.hpp"

namespace {

void* register_routine(void* connector) {
    cgi_keep_registered(static_cast<CgiConnector*>(connector));
    return nullptr;
}

void start() {
    // A leaving cli signals every process it can reach when it finds no
    // cliconn; that is no reason for this one to end.
    signal(SIGUSR2, SIG_IGN);
    cgi_connector.start(&cgi_connector);
    // The registration repeats for as long as the core is there, and starts
    // again when it is back, so it gets a thread of its own.
    pthread_t registration{};
    if (pthread_create(&registration, nullptr, register_routine, &cgi_connector) == 0) {
        pthread_detach(registration);
    }
}

}  // namespace

int main() {
    run_connector_process(cgi_connector.channel, start);
}
