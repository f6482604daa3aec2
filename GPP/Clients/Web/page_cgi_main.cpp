// page: the CGI program of the page itself, the login, the logout and the
// password change.
#include <unistd.h>

#include <csignal>

#include "web_cgi.hpp"

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    return tx::web::write_answer(STDOUT_FILENO, tx::web::serve_site()) ? 0 : 1;
}
