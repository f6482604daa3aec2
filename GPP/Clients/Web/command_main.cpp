// command: the CGI program that runs one command line for the settings page.
#include <unistd.h>

#include <csignal>

#include "web_cgi.hpp"

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    // A browser that gives up does not end the exchange half-way: a reply
    // left behind would wait on the connector's queue for nobody.
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) std::signal(signo, SIG_IGN);
    tx::web::CommandRequest request;
    tx::web::write_answer(STDOUT_FILENO, request.serve());
    close(STDOUT_FILENO);  // the web server can finish the response now
    request.finish();
    return 0;
}
