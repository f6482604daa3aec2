// A 512-byte record from the core through the CLI connector's routing and the
// CGI connector's worker step and notification line, and a run of client
// messages through the CLI connector's session step. The channel and the FIFO
// pair are stand-ins that check what they are handed; the notification lines
// go to a pipe in a private directory under /tmp.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cgi_connector.hpp"
#include "cli_connector.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"
#include "xml_messages.hpp"

namespace {

struct Sent {
    std::string text;
    long type;
};

struct Transport {
    std::vector<Sent> sent;
    std::vector<long> flushed;
    std::vector<std::string> written;
    bool full = false;  // every send reports a full queue
    int sequence = 0;
};

Transport transport;

// The real send copies at most 511 characters of a terminated text.
int fake_send(IpcChannel*, const char* text, long type, int) {
    if (text == nullptr || strnlen(text, IPC_TEXT_LEN) >= IPC_TEXT_LEN) std::abort();
    if (transport.full) return 0;
    transport.sent.push_back({text, type});
    return 1;
}

int fake_flush(IpcChannel*, long type) {
    transport.flushed.push_back(type);
    return 0;
}

// The real write hands all record_len bytes to the pipe: every one of them
// must be readable.
int fake_write(FdPair*, char* record, std::size_t record_len) {
    if (record == nullptr || record_len != CORE_RECORD_LEN) std::abort();
    volatile unsigned sum = 0;
    for (std::size_t i = 0; i < record_len; ++i) sum = sum + static_cast<unsigned char>(record[i]);
    const std::size_t length = strnlen(record, record_len);
    if (length >= record_len) std::abort();
    transport.written.emplace_back(record, length);
    return 0;
}

int fake_next_sequence(FdPair*) {
    return transport.sequence++;
}

IpcChannel fake_channel{
    "/nonexistent/in", "/nonexistent/out", 0,       0,       0,          0,
    nullptr,           fake_send,          nullptr, nullptr, fake_flush, nullptr};
FdPair fake_pair{"in", "out", -1, -1, 0, nullptr, nullptr, fake_write, nullptr, fake_next_sequence};

CliConnector cli{
    .name = "CLI",
    .channel = &fake_channel,
    .pair = &fake_pair,
    .start = nullptr,
    .handle_client_message = cli_handle_client_message,
    .hook_a = nullptr,
    .hook_b = nullptr,
    .session_mutex = PTHREAD_MUTEX_INITIALIZER,
    .sessions = {},
    .threads = {},
    .thread_started = {},
    .thread_routines = {},
    .wake_mutex = PTHREAD_MUTEX_INITIALIZER,
    .wake = PTHREAD_COND_INITIALIZER,
};

CgiConnector cgi{
    .name = "CGI",
    .channel = &fake_channel,
    .pair = &fake_pair,
    .start = nullptr,
    .handle_client_message = cgi_handle_client_message,
    .hook_a = nullptr,
    .hook_b = nullptr,
    .threads = {},
    .thread_started = {},
    .thread_routines = {},
};

void route_cli(std::uint8_t control, std::string_view record) {
    cli_reset_sessions(&cli);
    int sessions = 0;
    for (int i = 0; i < CLI_SESSION_COUNT; ++i) {
        if ((control >> (2 + i)) & 1) {
            cli.sessions[i].pid.store(100 + i);
            ++sessions;
        }
    }
    const int sends = cli_route_core_record(&cli, record);
    if (sends != static_cast<int>(transport.sent.size()) || sends > sessions + 1) std::abort();
    const std::string_view text = record.substr(0, record.find('\0'));
    if (sends > 0 && !is_server_notify(text)) {
        // A response goes to the one client it names, and only there.
        if (sends != 1 || transport.sent[0].type != sub_client_id_of(text) ||
            transport.sent[0].type <= 0) {
            std::abort();
        }
    }
}

void route_cgi(std::uint8_t control, std::string_view record) {
    // Notifications go to /tmp/CgiInterComm, outside any scratch directory.
    if (is_server_notify(record.substr(0, record.find('\0')))) return;
    transport.full = ((control >> 2) & 1) != 0;
    const CgiRoute route = cgi_worker_step(&cgi, record);
    switch (route) {
        case CgiRoute::sent:
            if (transport.sent.size() != 1 || transport.sent[0].type <= 0) std::abort();
            break;
        case CgiRoute::resent:
            if (transport.flushed.size() != 1 || transport.flushed[0] != 0) std::abort();
            break;
        default:
            if (!transport.sent.empty() || !transport.flushed.empty()) std::abort();
            break;
    }
}

void render_line(std::uint8_t control, std::string_view record) {
    const std::string text(record.substr(0, record.find('\0')));
    NotifyRecord parsed{};
    parse_notify(text.c_str(), text.size() + 1, &parsed);
    if ((control >> 2) & 1) {
        // Arbitrary record bytes: unterminated fields and stray value modes.
        std::memcpy(&parsed, record.data(), std::min(record.size(), sizeof parsed));
    }
    char line[CGI_LINE_LEN] = {};
    const std::size_t length = render_notify_line(parsed, line, {65, 321});
    if (length >= sizeof line || length != strnlen(line, sizeof line)) std::abort();

    constexpr std::size_t kSmallMax = 32;
    char small[kSmallMax] = {};
    const std::size_t small_len = 1 + (control >> 3) % (kSmallMax - 1);
    const std::size_t small_length =
        render_notify_line(parsed, std::span(small, small_len), {65, 321});
    if (small_length >= small_len) std::abort();
    for (std::size_t i = small_len; i < kSmallMax; ++i) {
        if (small[i] != '\0') std::abort();
    }
}

// Each message: one byte picks the client, one byte the text length. Every
// message also goes through the CGI connector's forward.
void client_messages(std::string_view input) {
    cli_reset_sessions(&cli);
    constexpr long kPids[] = {0, -1, 201, 202, 203, 204, 205, 206};
    while (input.size() >= 2) {
        const long pid = kPids[static_cast<std::uint8_t>(input[0]) % std::size(kPids)];
        const std::size_t length =
            std::min<std::size_t>(static_cast<std::uint8_t>(input[1]), input.size() - 2);
        IpcMessage message{};
        message.type = pid;
        std::memcpy(message.text, input.data() + 2, std::min(length, sizeof message.text));
        input.remove_prefix(2 + length);

        const std::size_t sent_before = transport.sent.size();
        const int rc = cli_handle_client_message(&cli, message);
        if (rc == 0) {
            // Turned away: exactly the terminate text, to that client.
            if (transport.sent.size() != sent_before + 1 ||
                transport.sent.back().text != CLI_TERMINATE_TEXT ||
                transport.sent.back().type != pid) {
                std::abort();
            }
        } else if (transport.sent.size() != sent_before) {
            std::abort();
        }
        // The CGI connector forwards every message, wrapped, to the core.
        const std::size_t written_before = transport.written.size();
        if (cgi_handle_client_message(&cgi, message) != 0 ||
            transport.written.size() != written_before + 1 ||
            !transport.written.back().starts_with("<client_request client_id=\"CGI\"")) {
            std::abort();
        }
        // No pid holds two sessions.
        for (int i = 0; i < CLI_SESSION_COUNT; ++i) {
            for (int j = i + 1; j < CLI_SESSION_COUNT; ++j) {
                const int a = cli.sessions[i].pid.load();
                if (a > 0 && a == cli.sessions[j].pid.load()) std::abort();
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
    transport.sent.clear();
    transport.flushed.clear();
    transport.written.clear();
    transport.full = false;

    if ((control & 3) == 3) {
        client_messages(std::string_view(reinterpret_cast<const char*>(data + 1), size - 1));
        return 0;
    }
    // The readers hand over the full record, padded with NULs.
    char record[CORE_RECORD_LEN] = {};
    std::memcpy(record, data + 1, std::min(size - 1, sizeof record));
    const std::string_view view(record, sizeof record);
    switch (control & 3) {
        case 0:
            route_cli(control, view);
            break;
        case 1:
            route_cgi(control, view);
            break;
        default:
            render_line(control, view);
            break;
    }
    return 0;
}
