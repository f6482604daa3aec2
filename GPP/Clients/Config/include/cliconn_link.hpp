// The device through cliconn, on the queues that cli uses.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "queue_link.hpp"

namespace tx::config {

class CliconnLink final : public QueueLink {
  public:
    // Finds cliconn by its process name and attaches to its queues. Null,
    // with the reason in `error`, when none runs or it cannot be reached.
    // Installs handlers for SIGINT and SIGTERM that end an exchange (see
    // interrupted()).
    static std::unique_ptr<CliconnLink> open(std::string& error);
    // Tells cliconn that this client leaves (SIGUSR2, as cli does), when the
    // process it was found as still runs under that name.
    ~CliconnLink() override;

    // Whether SIGINT or SIGTERM came.
    static bool interrupted();

  private:
    CliconnLink(pid_t connector, IpcChannel* channel);
    std::string interruption() const override;
    std::string silence() const override;
    std::string turned_away(std::string_view action) const override;
    // Whether the process found as cliconn still runs as cliconn.
    bool connector_alive() const;

    pid_t connector_;
};

// The running processes of a name, as "pidof NAME" finds them.
std::vector<pid_t> pids_of(const char* name);

}  // namespace tx::config
