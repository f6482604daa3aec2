// command: the CGI program that runs one command line for the settings page.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "web_cgi.hpp"

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    // A browser that gives up does not end the exchange half-way: a reply
    // left behind would wait on the connector's queue for nobody.
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) std::signal(signo, SIG_IGN);
    // The grammar prints its refusals on standard output, which is the
    // answer to the web server: the answer gets a descriptor of its own.
    const int http_fd = dup(STDOUT_FILENO);
    const int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDOUT_FILENO);
    close(null_fd);

    tx::web::CommandRequest request;
    tx::web::write_answer(http_fd, request.serve());
    close(http_fd);  // the web server can finish the response now
    request.finish();
    return 0;
}
