// The cli executable: everything but the entry point lives in cli_client.
#include "cli_client.hpp"

int main(int argc, char** argv) {
    return cli_main(argc, argv);
}
