// The cli client: options, start-up and the ways of ending, the command loop
// and its dispatcher, and the receiver and keep-alive threads.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>

#include "regexparser.hpp"

struct IpcChannel;

// Size of the one-shot buffer made by "-c" and of the command loop's working
// line: at most 127 characters of a line survive.
inline constexpr std::size_t CLI_LINE_LEN = 128;
inline constexpr std::size_t CLI_PROMPT_LEN = 8;
inline constexpr uid_t CLI_OPERATOR_UID = 1001;

// The channel every part of the client talks through.
extern IpcChannel* cli_channel;

// Written by the dispatcher on the main thread, read by the thread that takes
// SIGINT and SIGTERM.
extern std::atomic<int> roomcontrol_active;

// The prompt, shared by the command loop and the receiver thread without a
// lock; per-character atomics keep a concurrent read well defined (it may
// show a half-changed prompt once, nothing worse).
void cli_set_prompt(bool shown);
// Copies the current prompt into out (terminated).
void cli_prompt_text(std::span<char> out);

struct CliOptions {
    int timestamps_enabled = 0;
    int register_first = 0;
    std::unique_ptr<char[]> one_shot_command;  // CLI_LINE_LEN bytes: argument + "\n"
};

// Parses ":trc:"; false on an unknown option or a "-c" without argument.
bool cli_parse_options(int argc, char** argv, CliOptions* options);
// The whole program: options, handler, start-up, command loop, departure.
int cli_main(int argc, char** argv);

int cli_start(int timestamps_enabled, int register_first, std::unique_ptr<char[]> one_shot_command);
int find_pid_by_name(const char* name);
// Sends SIGUSR2 to the pid that the lookup gives for "cliconn".
void cli_notify_departure();
void cli_clear_roomcontrol();
// Every way out begins here; only the first one goes on, any later one waits
// for the process to end.
void cli_begin_departure();
// The way out of SIGINT and SIGTERM: the room-control clean-up first, then
// SIGUSR2 to cliconn, exit status 1. Runs on the thread that takes them.
void cli_depart_on_signal(int signo);

int cli_command_loop(int register_first, std::unique_ptr<char[]> one_shot_command);
int cli_send_command(const char* line, std::size_t length, const tx::grammar::Caller& caller);

void* cli_receiver_thread(void* cell);
void* cli_keepalive_thread(void* unused);

// "Sun Nov 15 13:44:53.123": ctime's text cut after the seconds, with the
// milliseconds appended.
void cli_time_text(long seconds, long microseconds, std::span<char> out);
