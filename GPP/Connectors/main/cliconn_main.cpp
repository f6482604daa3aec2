// cliconn: the CLI connector process. Runs until SIGINT or SIGTERM, then
// removes its queues so that a later start finds none in the way.
#include "cli_connector.hpp"
#include "connector_common.hpp"

int main() {
    run_connector_process(cli_connector.channel, [] { cli_connector.start(&cli_connector); });
}
