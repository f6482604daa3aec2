// cgievents: the event fan-out beside cgiconn. Runs as the web server's user
// for as long as the web pages are served; see web_events.cpp.
#include "web_cgi.hpp"

int main() {
    return tx::web::fan_out_events();
}
