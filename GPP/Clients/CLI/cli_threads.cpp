// The receiver thread, which shows what the connector sends, and the
// keep-alive thread, which tells the connector that this client is still here.
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "cli_client.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t DISPLAY_LEN = 512;
constexpr std::size_t TIME_TEXT_LEN = 32;
// ctime's text has the blank before the year here.
constexpr std::size_t CTIME_YEAR_BLANK = 19;
constexpr time_t KEEPALIVE_PERIOD_S = 10;
constexpr const char* KEEPALIVE_TEXT = "<request><action>cli_keep_alive</action></request>";

pthread_mutex_t keepalive_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t keepalive_cond = PTHREAD_COND_INITIALIZER;

void show_notify(const char* out, bool timestamps) {
    char prompt[CLI_PROMPT_LEN] = {};
    cli_prompt_text(prompt);
    if (timestamps) {
        timeval now = {};
        gettimeofday(&now, nullptr);
        char stamp[TIME_TEXT_LEN] = {};
        cli_time_text(now.tv_sec, now.tv_usec, stamp);
        std::printf("%s %s\n\r%s", stamp, out, prompt);
    } else {
        // Printed even when empty: the prompt comes back either way.
        std::printf("%s\n\r%s", out, prompt);
    }
}

void show_response(const char* out) {
    if (out[0] == '\0') return;
    char prompt[CLI_PROMPT_LEN] = {};
    cli_prompt_text(prompt);
    std::printf("%s\n\r%s", out, prompt);
}

}  // namespace

void cli_time_text(long seconds, long microseconds, std::span<char> out) {
    if (out.empty()) return;
    const time_t when = seconds;
    char text[TIME_TEXT_LEN] = {};
    if (ctime_r(&when, text) == nullptr) {
        out[0] = '\0';
        return;
    }
    // The milliseconds replace the year and the newline.
    std::snprintf(text + CTIME_YEAR_BLANK, sizeof text - CTIME_YEAR_BLANK, ".%03d",
                  static_cast<int>(microseconds / 1000));
    tx::copy_bounded(out, text);
}

void* cli_receiver_thread(void* cell) {
    const std::unique_ptr<int> argument{static_cast<int*>(cell)};
    const bool timestamps = argument && *argument != 0;
    const long own_id = getpid();
    for (;;) {
        IpcMessage message = {};
        // A failed receive means the channel is gone; replies are no longer shown.
        if (cli_channel->receive(cli_channel, &message, own_id) == 0) return nullptr;
        char out[DISPLAY_LEN] = {};
        const MessageKind kind = format_message(tx::field_view(message.text), out);
        if (kind == MessageKind::notify) {
            show_notify(out, timestamps);
        } else if (kind == MessageKind::response) {
            show_response(out);
        } else {
            continue;
        }
        std::fflush(stdout);
    }
}

void* cli_keepalive_thread(void*) {
    const long own_id = getpid();
    for (;;) {
        timeval now = {};
        gettimeofday(&now, nullptr);
        timespec deadline = {};
        deadline.tv_sec = now.tv_sec + KEEPALIVE_PERIOD_S;
        deadline.tv_nsec = now.tv_usec * 1000;

        // Nothing signals the condition: every wait lasts the full period.
        pthread_mutex_lock(&keepalive_mutex);
        int waited = 0;
        while (waited != ETIMEDOUT) {
            waited = pthread_cond_timedwait(&keepalive_cond, &keepalive_mutex, &deadline);
        }
        pthread_mutex_unlock(&keepalive_mutex);

        if (cli_channel->send(cli_channel, KEEPALIVE_TEXT, own_id, 0) == 0) {
            std::printf("%s:%d: error sending cli keep alive. \n", "cli_client", 348);
            std::fflush(stdout);
            return nullptr;
        }
    }
}
