// command: the CGI program that runs one command line for the settings page.
#include "web_cgi.hpp"

int main() {
    return tx::web::serve_request<tx::web::CommandRequest>();
}
