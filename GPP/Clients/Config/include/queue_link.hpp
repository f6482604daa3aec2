// The device through a connector's queue pair, for a client that sends many
// requests at once and collects their answers: txconfig through cliconn,
// the settings page through cgiconn. What differs between the connectors
// (how the client finds its connector, how many requests it may have in
// flight, how it tells that the connector has gone) is left to a subclass.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config_client.hpp"

struct IpcChannel;
struct IpcMessage;

namespace tx::config {

class QueueLink : public Device {
  public:
    QueueLink(const QueueLink&) = delete;
    QueueLink& operator=(const QueueLink&) = delete;

    // Requests go out on the channel with this link's type, at most
    // `in_flight` at a time. Answers come back on the same type in the order
    // the core answers, which is not the order of sending once several
    // clients share the connector: each is matched to the oldest request
    // still waiting for its property and target.
    std::vector<Answer> exchange(std::span<const Request> requests) override;
    std::string failure() const override { return failure_; }

    // Requests sent whose answers have not come (after a failure).
    std::size_t outstanding() const { return in_flight_; }
    // Waits up to `limit` for the outstanding answers and drops them, so that
    // none is left behind on the connector's queue. True when none is.
    bool drain(std::chrono::milliseconds limit);

  protected:
    // `connector` names the connector in the failures; the channel is open.
    // Installs a handler for SIGALRM, which ends a wait for an answer.
    QueueLink(IpcChannel* channel, long type, std::string connector, std::size_t in_flight,
              std::chrono::seconds no_answer_limit);
    ~QueueLink() override = default;

    // Why the exchange must end before it sends or waits again; empty while
    // it may go on. Asked often: it must be cheap.
    virtual std::string interruption() const { return {}; }
    // Why the exchange must end, asked after each wait that brought nothing:
    // the connector has gone. Empty while it may go on.
    virtual std::string silence() const { return {}; }
    // Why a response that answers nothing ends the exchange (the connector
    // turns this client away); empty to ignore it.
    virtual std::string turned_away(std::string_view /*action*/) const { return {}; }

  private:
    enum class Received { message, nothing, gone };
    Received receive(IpcMessage& message, int wait_ms);

    IpcChannel* channel_;
    long type_;
    std::string connector_;
    std::size_t in_flight_limit_;
    std::chrono::seconds no_answer_limit_;
    std::size_t in_flight_ = 0;
    std::string failure_;
};

}  // namespace tx::config
