// config: the CGI program that shows, checks and applies the device's
// configuration as a whole for the settings page's admin.
#include "web_cgi.hpp"

int main() {
    return tx::web::serve_request<tx::web::ConfigRequest>();
}
