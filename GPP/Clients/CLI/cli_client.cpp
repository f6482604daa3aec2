// Process entry, start-up and the ways the client ends.
#include "cli_client.hpp"

#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"
#include "xml_messages.hpp"

IpcChannel* cli_channel = &cli_client_channel;
std::atomic<int> roomcontrol_active{0};

namespace {

pthread_t receiver_thread_id;
pthread_t keepalive_thread_id;
pthread_t signal_thread_id;

// Taken by the first way out and never given back: a second one (SIGINT
// during a typed exit, or the end of input after SIGINT) waits for the
// process to end. Recursive, as the end of input takes it before it saves
// the history and again before it signals.
pthread_mutex_t departure = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

// The terminal as the client found it. The line editor leaves SIGINT and
// SIGTERM to us while they are blocked, so it cannot put its terminal back
// itself when one of them ends the client.
termios terminal_at_start{};
bool terminal_saved = false;

sigset_t ending_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// The only place SIGINT and SIGTERM arrive: they are blocked in every thread
// and taken here, where the work of leaving may lock, allocate and print.
void* signal_thread(void*) {
    const sigset_t set = ending_signals();
    int signo = 0;
    while (sigwait(&set, &signo) != 0) {
    }
    cli_depart_on_signal(signo);
    return nullptr;
}

constexpr std::size_t PIDOF_LEN = 80;
constexpr std::size_t REQUEST_TEXT_LEN = 256;

}  // namespace

bool cli_parse_options(int argc, char** argv, CliOptions* options) {
    int option = 0;
    while ((option = getopt(argc, argv, ":trc:")) != -1) {
        switch (option) {
            case 't':
                options->timestamps_enabled = 1;
                break;
            case 'r':
                options->register_first = 1;
                break;
            case 'c':
                // A second -c replaces the first. Too long an argument loses its
                // newline; the loop then cuts its last character instead.
                options->one_shot_command = std::make_unique<char[]>(CLI_LINE_LEN);
                std::snprintf(options->one_shot_command.get(), CLI_LINE_LEN, "%s\n", optarg);
                break;
            default:
                return false;
        }
    }
    return true;
}

int cli_main(int argc, char** argv) {
    CliOptions options;
    if (!cli_parse_options(argc, argv, &options)) {
        std::printf("Usage: %s [-t] [-r] [-c\"command\"]\n", argv[0]);
        std::exit(1);
    }

    // Before any other thread exists, so that every thread inherits the mask.
    const sigset_t ending = ending_signals();
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    terminal_saved = isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &terminal_at_start) == 0;
    if (pthread_create(&signal_thread_id, nullptr, signal_thread, nullptr) == 0) {
        pthread_detach(signal_thread_id);
    } else {
        // Nobody would take them: let them end the client as they would anyway.
        pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
    }

    cli_start(options.timestamps_enabled, options.register_first,
              std::move(options.one_shot_command));
    cli_begin_departure();
    cli_notify_departure();
    return 0;
}

int cli_start(int timestamps_enabled, int register_first,
              std::unique_ptr<char[]> one_shot_command) {
    if (cli_channel->open(cli_channel, 'u') < 0) {
        std::printf("%s:%d: error access queue. \n", "cli_client", 184);
    }

    auto cell = std::make_unique<int>(timestamps_enabled);
    if (pthread_create(&receiver_thread_id, nullptr, cli_receiver_thread, cell.get()) != 0) {
        std::printf("%s:%d: error creating CGI client message receiver thread. \n", "cli_client",
                    372);
        cell.reset();
        std::exit(0);
    }
    // The receiver thread owns the cell from here on. Neither thread is ever
    // joined; detached, one that ends early gives its resources back.
    static_cast<void>(cell.release());
    pthread_detach(receiver_thread_id);

    if (pthread_create(&keepalive_thread_id, nullptr, cli_keepalive_thread, nullptr) != 0) {
        std::printf("%s:%d: error creating CGI client keepalive thread. \n", "cli_client", 388);
        std::exit(0);
    }
    pthread_detach(keepalive_thread_id);

    return cli_command_loop(register_first, std::move(one_shot_command));
}

int find_pid_by_name(const char* name) {
    char buffer[PIDOF_LEN] = {};
    std::snprintf(buffer, sizeof buffer, "pidof %s", name);
    FILE* pipe = popen(buffer, "r");
    if (pipe == nullptr) return -1;
    // Only the first of several ids counts.
    const char* line = std::fgets(buffer, sizeof buffer, pipe);
    pclose(pipe);
    if (line == nullptr) return -1;
    return static_cast<int>(std::strtol(buffer, nullptr, 10));
}

void cli_notify_departure() {
    // The connector learns of a departing client only through this signal.
    // When no cliconn runs, the lookup finds nothing and gives -1, and
    // kill(-1) signals every process this user may signal: as root, every
    // process on the machine. The lookup result goes to kill unchecked, as on
    // the device.
    kill(find_pid_by_name("cliconn"), SIGUSR2);
}

void cli_clear_roomcontrol() {
    RequestRecord record = {};
    char out[REQUEST_TEXT_LEN] = {};
    tx::copy_bounded(record.action, "set", 63);
    tx::copy_bounded(record.property, "sys.dialer-connection-mode", 63);
    record.value_mode = REQUEST_MODE_SINGLE;
    tx::copy_bounded(record.values.single, "disconnected", 63);

    generate_xml_request(record, out);
    if (out[0] == '\0') {
        osal_log(0, "%s:%s: generate_xml_request() error", "cli_client", "cli_clear_roomcontrol");
        return;
    }
    const int sent = cli_channel->send(cli_channel, out, getpid(), 0);
    if (sent == 0) {
        osal_log(0, "%s:%s: ipc send error %d", "cli_client", "cli_clear_roomcontrol", sent);
    }
}

void cli_begin_departure() {
    pthread_mutex_lock(&departure);
}

void cli_depart_on_signal(int signo) {
    if (signo != SIGTERM && signo != SIGINT) return;
    cli_begin_departure();
    if (terminal_saved) tcsetattr(STDIN_FILENO, TCSANOW, &terminal_at_start);
    if (roomcontrol_active.load() != 0) cli_clear_roomcontrol();
    cli_notify_departure();
    std::exit(1);
}
