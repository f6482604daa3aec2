// config: the CGI program that shows, checks and applies the device's
// configuration as a whole for the settings page's admin.
#include <unistd.h>

#include <csignal>

#include "web_cgi.hpp"

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    // A browser that gives up does not end an apply half-way: the report of
    // what took effect goes to the audit trail all the same.
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) std::signal(signo, SIG_IGN);
    tx::web::ConfigRequest request;
    tx::web::write_answer(STDOUT_FILENO, request.serve());
    close(STDOUT_FILENO);  // the web server can finish the response now
    request.finish();
    return 0;
}
