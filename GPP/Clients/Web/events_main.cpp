// events: the CGI program that streams the device's notifications to the
// settings page as Server-Sent Events.
#include <unistd.h>

#include "web_cgi.hpp"

int main() {
    return tx::web::stream_events(STDOUT_FILENO);
}
