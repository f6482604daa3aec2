// The device through cliconn, on the queues that cli uses, for a client that
// sends many requests at once and collects their answers.
#pragma once

#include <sys/types.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "config_client.hpp"

struct IpcChannel;
struct IpcMessage;

namespace tx::config {

class CliconnLink final : public Device {
  public:
    // Finds cliconn by its process name and attaches to its queues. Null,
    // with the reason in `error`, when none runs or it cannot be reached.
    // Installs handlers for SIGINT and SIGTERM that end an exchange (see
    // interrupted()).
    static std::unique_ptr<CliconnLink> open(std::string& error);
    // Tells cliconn that this client leaves (SIGUSR2, as cli does), when the
    // process it was found as still runs under that name.
    ~CliconnLink() override;
    CliconnLink(const CliconnLink&) = delete;
    CliconnLink& operator=(const CliconnLink&) = delete;

    std::vector<Answer> exchange(std::span<const Request> requests) override;
    std::string failure() const override { return failure_; }

    // Whether SIGINT or SIGTERM came.
    static bool interrupted();

  private:
    CliconnLink(pid_t connector, IpcChannel* channel);
    enum class Received { message, nothing, gone };
    Received receive(::IpcMessage& message, int wait_ms);
    // Whether the process found as cliconn still runs as cliconn.
    bool connector_alive() const;

    pid_t connector_;
    pid_t self_;
    IpcChannel* channel_;
    std::string failure_;
};

// The running processes of a name, as "pidof NAME" finds them.
std::vector<pid_t> pids_of(const char* name);

}  // namespace tx::config
