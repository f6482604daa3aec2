// A 512-byte record from the core through the CLI connector's routing and the
// CGI connector's worker step, and a run of client messages through both
// connectors' client side. The channel and the FIFO pair are the stand-ins of
// the tests, which stop the program where the connector code breaks the
// contract of the real ones.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "osal.hpp"
#include "support/fake_transport.hpp"

namespace {

void route_cli(std::uint8_t control, std::string_view record) {
    int sessions = 0;
    for (int i = 0; i < CLI_SESSION_COUNT; ++i) {
        if (((control >> (2 + i)) & 1) == 0) continue;
        fake::cli.sessions[i].pid.store(100 + i);
        ++sessions;
    }
    const int sends = cli_route_core_record(&fake::cli, record);
    const auto& sent = fake::transport.sent;
    if (sends != static_cast<int>(sent.size()) || sends > sessions + 1) std::abort();
    const std::string_view text = record.substr(0, record.find('\0'));
    // A response goes to the one client it names, and only there.
    if (sends > 0 && !is_server_notify(text) &&
        (sends != 1 || sent[0].first != sub_client_id_of(text) || sent[0].first <= 0)) {
        std::abort();
    }
}

void route_cgi(std::uint8_t control, std::string_view record) {
    // Notifications go to /tmp/CgiInterComm, which is not the fuzzer's to fill.
    if (is_server_notify(record.substr(0, record.find('\0')))) return;
    fake::transport.failing_sends = ((control >> 2) & 1) != 0 ? INT_MAX : 0;
    const CgiRoute route = cgi_worker_step(&fake::cgi, record);
    const bool sent = route == CgiRoute::sent || route == CgiRoute::resent;
    const bool flushed = route == CgiRoute::resent;
    if ((route == CgiRoute::sent && fake::transport.sent.size() != 1) ||
        (sent && fake::transport.sent.size() > 1) || (!sent && !fake::transport.sent.empty()) ||
        fake::transport.flushed != std::vector<long>(flushed ? 1 : 0, 0)) {
        std::abort();
    }
}

// Each message: one byte picks the client, one byte the text length. Every
// message also goes through the CGI connector's forward.
void client_messages(std::string_view input) {
    constexpr long kPids[] = {0, -1, 201, 202, 203, 204, 205, 206};
    while (input.size() >= 2) {
        const long pid = kPids[static_cast<std::uint8_t>(input[0]) % std::size(kPids)];
        const std::size_t length =
            std::min<std::size_t>(static_cast<std::uint8_t>(input[1]), input.size() - 2);
        const IpcMessage message = fake::message(pid, std::string(input.substr(2, length)));
        input.remove_prefix(2 + length);

        const std::size_t sent_before = fake::transport.sent.size();
        const int rc = cli_handle_client_message(&fake::cli, message);
        // Turned away: exactly the terminate text, to that client; else nothing.
        const std::size_t expected = sent_before + (rc == 0 ? 1 : 0);
        if (fake::transport.sent.size() != expected ||
            (rc == 0 && fake::transport.sent.back() !=
                            std::pair<long, std::string>(pid, CLI_TERMINATE_TEXT))) {
            std::abort();
        }
        const std::size_t written_before = fake::transport.written.size();
        if (cgi_handle_client_message(&fake::cgi, message) != 0 ||
            fake::transport.written.size() != written_before + 1 ||
            !fake::transport.written.back().starts_with("<client_request client_id=\"CGI\"")) {
            std::abort();
        }
        // No pid holds two sessions.
        for (int i = 0; i < CLI_SESSION_COUNT; ++i) {
            for (int j = i + 1; j < CLI_SESSION_COUNT; ++j) {
                const int a = fake::cli.sessions[i].pid.load();
                if (a > 0 && a == fake::cli.sessions[j].pid.load()) std::abort();
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    osal_set_log_threshold(1000);  // the routing's log records would go to a shared pipe
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t control = data[0];
    fake::reset();
    const std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
    if ((control & 3) >= 2) {
        client_messages(input);
        return 0;
    }
    // The readers hand over the full record, padded with NULs.
    char record[CORE_RECORD_LEN] = {};
    std::memcpy(record, input.data(), std::min(input.size(), sizeof record));
    const std::string_view view(record, sizeof record);
    if ((control & 3) == 0) {
        route_cli(control, view);
    } else {
        route_cgi(control, view);
    }
    return 0;
}
