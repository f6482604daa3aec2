// The soak's clients: cli processes fed a steady mix of get, set, dial and
// hangup lines, and a CGI client that speaks the queue protocol itself. Each
// client asks only about things that no other client asks about (a setting
// and a call line, or a property per message type), so a reply that reaches
// anyone but its sender shows.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <random>
#include <string>
#include <string_view>

#include "ipc_channel.hpp"

namespace soak {

using Clock = std::chrono::steady_clock;

struct Tally {
    long sent = 0;
    long received = 0;
    long misrouted = 0;
    long turned_away = 0;       // terminate_client: the session table was full
    long unexpected_lines = 0;  // neither a reply nor a known diagnostic
    long clients_lost = 0;      // clients ended by something the soak did not do
};

// The ways the soak ends a client.
enum class Ending { end_of_input, terminate, kill };

class CliClient {
  public:
    CliClient(int index, std::string cli_path) : index_(index), cli_path_(std::move(cli_path)) {}
    ~CliClient();
    CliClient(const CliClient&) = delete;
    CliClient& operator=(const CliClient&) = delete;

    pid_t pid() const { return pid_; }
    int output_fd() const { return output_fd_; }
    bool stoppable() const { return pid_ > 0 && !stopping_; }

    void stop(Ending how, Clock::time_point now);
    // Starts the client when it is down and its time has come, forces an
    // ending that takes too long, and writes the next line when one is due.
    void tend(Clock::time_point now, std::mt19937& random, Tally& tally);
    // Reads what it printed and judges every whole line.
    void read_output(Tally& tally);
    // Its process ended.
    void ended(int status, Clock::time_point now, std::mt19937& random, Tally& tally);

  private:
    void start();
    void judge(std::string_view line, Tally& tally);
    void close_pipes();

    int index_;
    std::string cli_path_;
    pid_t pid_ = -1;
    int input_fd_ = -1;
    int output_fd_ = -1;
    std::string pending_;
    bool stopping_ = false;
    bool cut_off_ = false;  // it lost its connector: ended and started again
    unsigned step_ = 0;
    Clock::time_point next_line_{};
    Clock::time_point start_at_{};
    Clock::time_point kill_at_{};
};

class CgiClient {
  public:
    CgiClient();
    // Sends a request for each of its message types in turn and takes the
    // replies that wait.
    void tend(Clock::time_point now, Tally& tally);

  private:
    void take_replies(Tally& tally);

    IpcChannel channel_;
    bool open_ = false;
    unsigned turn_ = 0;
    Clock::time_point next_send_{};
};

}  // namespace soak
