// The soak driver: runs the stack inside the sandbox for a while under a
// steady load from four cli clients and, after a quarter of the time, a CGI
// client, while it kills and restarts coresim, cliconn and the clients at
// random moments. At the end it prints one line: what was sent, what came
// back, how many replies reached a client that did not ask for them and how
// many times a connector or the core ended without being told to.
//
//   soak_driver --seconds N --logs DIR [--seed N]
//
// It starts cli, which signals processes by name and all of them when it
// finds no cliconn, so it runs only as the first process of a sandbox, which
// such signals never reach.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "clients.hpp"
#include "osal.hpp"
#include "processes.hpp"
#include "spawn.hpp"

namespace {

using namespace std::chrono_literals;
using soak::Clock;

constexpr int CLIENTS = 4;
constexpr int TICK_MS = 20;

// A process of the stack that the soak keeps running.
struct Component {
    std::string name;
    std::vector<std::string> argv;
    pid_t pid = -1;
    bool stopping = false;
    Clock::time_point start_at{};
};

class Soak {
  public:
    Soak(int seconds, const std::string& bin, std::string log_dir, unsigned seed);
    int run();

  private:
    void start(Component& component);
    void reap(Clock::time_point now);
    bool ended(pid_t pid, int status, Clock::time_point now);
    void stir(Clock::time_point now);
    void tend(Clock::time_point now);
    void read_clients();
    bool all_ended() const;
    void shut_down();

    std::chrono::seconds duration_;
    std::string log_dir_;
    std::mt19937 random_;
    Component coresim_;
    Component cliconn_;
    Component cgiconn_;
    std::vector<std::unique_ptr<soak::CliClient>> clients_;
    soak::CgiClient cgi_;
    soak::Tally tally_;
    long crashes_ = 0;
};

Soak::Soak(int seconds, const std::string& bin, std::string log_dir, unsigned seed)
    : duration_(seconds),
      log_dir_(std::move(log_dir)),
      random_(seed),
      coresim_{"coresim", {bin + "/coresim"}},
      cliconn_{"cliconn", {bin + "/cliconn"}},
      cgiconn_{"cgiconn", {bin + "/cgiconn"}} {
    for (int i = 0; i < CLIENTS; ++i)
        clients_.push_back(std::make_unique<soak::CliClient>(i, bin + "/cli"));
}

void Soak::start(Component& component) {
    const int log = soak::open_log(log_dir_ + "/" + component.name + ".log");
    tx::SpawnOptions options;
    options.out_fd = log;
    component.pid = tx::spawn(component.argv, options);
    if (log >= 0) close(log);
    component.stopping = false;
}

// The soak is the sandbox's first process: every orphan comes here too.
void Soak::reap(Clock::time_point now) {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (ended(pid, status, now)) continue;
        for (auto& client : clients_) {
            if (client->pid() == pid) client->ended(status, now, random_, tally_);
        }
    }
}

bool Soak::ended(pid_t pid, int status, Clock::time_point now) {
    for (Component* component : {&coresim_, &cliconn_, &cgiconn_}) {
        if (component->pid != pid) continue;
        if (!component->stopping) {
            ++crashes_;
            std::fprintf(stderr, "soak: %s ended by itself (%s)\n", component->name.c_str(),
                         soak::describe_status(status).c_str());
        }
        component->pid = -1;
        component->start_at =
            now + std::chrono::milliseconds(std::uniform_int_distribution<int>(200, 2000)(random_));
        return true;
    }
    return false;
}

// One random blow: the core, the CLI connector or a client goes, in one of
// the ways such a process goes.
void Soak::stir(Clock::time_point now) {
    const int target = std::uniform_int_distribution<int>(0, 1 + CLIENTS)(random_);
    const int way = std::uniform_int_distribution<int>(0, 2)(random_);
    if (target >= 2) {
        clients_[static_cast<std::size_t>(target - 2)]->stop(static_cast<soak::Ending>(way), now);
        return;
    }
    Component& component = target == 0 ? coresim_ : cliconn_;
    if (component.pid <= 0 || component.stopping) return;
    component.stopping = true;
    kill(component.pid, way == 0 ? SIGKILL : SIGTERM);
}

void Soak::tend(Clock::time_point now) {
    for (Component* component : {&coresim_, &cliconn_, &cgiconn_}) {
        if (component->pid <= 0 && now >= component->start_at) start(*component);
    }
    for (auto& client : clients_) client->tend(now, random_, tally_);
}

void Soak::read_clients() {
    std::vector<pollfd> fds;
    for (auto& client : clients_) fds.push_back({client->output_fd(), POLLIN, 0});
    if (poll(fds.data(), fds.size(), TICK_MS) <= 0) return;
    for (std::size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents != 0) clients_[i]->read_output(tally_);
    }
}

bool Soak::all_ended() const {
    for (const Component* component : {&coresim_, &cliconn_, &cgiconn_}) {
        if (component->pid > 0) return false;
    }
    for (const auto& client : clients_) {
        if (client->pid() > 0) return false;
    }
    return true;
}

void Soak::shut_down() {
    const auto now = Clock::now();
    for (auto& client : clients_) client->stop(soak::Ending::terminate, now);
    for (Component* component : {&coresim_, &cliconn_, &cgiconn_}) {
        component->stopping = true;
        if (component->pid > 0) kill(component->pid, SIGTERM);
    }
    // Clients get SIGKILL from their own tending when they take too long.
    for (auto t = Clock::now(); !all_ended() && t < now + 10s; t = Clock::now()) {
        std::this_thread::sleep_for(10ms);
        reap(t);
        for (auto& client : clients_) {
            if (client->pid() > 0) client->tend(t, random_, tally_);
        }
    }
    for (Component* component : {&coresim_, &cliconn_, &cgiconn_}) {
        if (component->pid > 0) kill(component->pid, SIGKILL);
    }
}

int Soak::run() {
    const auto begin = Clock::now();
    const auto cgi_from = begin + duration_ / 4;
    start(coresim_);
    std::this_thread::sleep_for(300ms);
    start(cliconn_);
    start(cgiconn_);
    std::this_thread::sleep_for(300ms);
    auto next_blow = Clock::now() + 2s;
    for (auto now = Clock::now(); now < begin + duration_; now = Clock::now()) {
        read_clients();
        reap(now);
        tend(now);
        if (now >= cgi_from) cgi_.tend(now, tally_);
        if (now >= next_blow) {
            stir(now);
            next_blow = now + std::chrono::milliseconds(
                                  std::uniform_int_distribution<int>(500, 3000)(random_));
        }
    }
    shut_down();
    const soak::Tally& t = tally_;
    std::fprintf(
        stderr,
        "soak: turned away %ld, clients ended without the soak's doing %ld, unexpected lines "
        "%ld\n",
        t.turned_away, t.clients_lost, t.unexpected_lines);
    std::printf(
        "soak: %lld s, requests sent %ld, replies received %ld, replies misrouted %ld, "
        "unexpected crashes %ld, every reply belongs to its sender: %s\n",
        static_cast<long long>(duration_.count()), t.sent, t.received, t.misrouted, crashes_,
        t.misrouted == 0 ? "yes" : "no");
    return t.misrouted == 0 && crashes_ == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (getpid() != 1) {
        std::fprintf(stderr, "soak_driver: not the first process of a sandbox, refusing to run\n");
        return 2;
    }
    int seconds = 0;
    std::string logs;
    unsigned seed = std::random_device{}();
    constexpr option kOptions[] = {{"seconds", required_argument, nullptr, 's'},
                                   {"logs", required_argument, nullptr, 'l'},
                                   {"seed", required_argument, nullptr, 'r'},
                                   {nullptr, 0, nullptr, 0}};
    for (int o; (o = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (o == 's') seconds = std::atoi(optarg);
        if (o == 'l') logs = optarg;
        if (o == 'r') seed = static_cast<unsigned>(std::strtoul(optarg, nullptr, 10));
        if (o == '?') seconds = 0;
    }
    if (seconds <= 0 || logs.empty() || optind != argc) {
        std::fprintf(stderr, "usage: soak_driver --seconds N --logs DIR [--seed N]\n");
        return 2;
    }
    std::fprintf(stderr, "soak: %d s, seed %u\n", seconds, seed);
    // Its children get the defaults back (tx::spawn).
    for (const int sig : {SIGPIPE, SIGUSR2, SIGINT, SIGTERM}) signal(sig, SIG_IGN);
    // An empty queue on a receive without waiting is no news here.
    osal_set_log_threshold(1);
    std::ofstream("/tmp/cmdline") << "voip_capable=1\n";
    mkdir("/tmp/soak-home", 0700);
    setenv("PLATFORM_CMDLINE", "/tmp/cmdline", 1);
    setenv("HOME", "/tmp/soak-home", 1);
    const std::string self = argv[0];
    const std::string bin = self.substr(0, self.find_last_of('/'));
    return Soak(seconds, bin, logs, seed).run();
}
