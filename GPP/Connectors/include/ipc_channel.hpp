// The IPC channel: a pair of System V message queues found through ftok of
// two token files, and the FIFO pair over which a connector exchanges fixed
// 512-byte records with the device's core process.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t IPC_TEXT_LEN = 512;
// Every message on the queues has this payload size (word + text).
inline constexpr std::size_t IPC_PAYLOAD_LEN = 4 + IPC_TEXT_LEN;

struct IpcMessage {
    long type;          // the process id of the client concerned
    std::int32_t word;  // passed through unchanged; every sender passes 0
    char text[IPC_TEXT_LEN];
};

struct IpcChannel {
    const char* send_token_path;
    const char* receive_token_path;
    key_t send_key;
    key_t receive_key;
    int send_id;
    int receive_id;
    // Operations, in slot order.
    int (*open)(IpcChannel* channel, char role);  // 'c' creates, anything else attaches
    int (*send)(IpcChannel* channel, const char* text, long type, int word);
    int (*receive)(IpcChannel* channel, IpcMessage* buffer, long type);
    int (*receive_retry)(IpcChannel* channel, IpcMessage* buffer, long type, int wait_ms,
                         int attempts);
    int (*flush)(IpcChannel* channel, long type);
    int (*remove)(IpcChannel* channel);
};

// The channel instances of the system.
extern IpcChannel cli_client_channel;     // cli: sends on cli_out_token, role 'u'
extern IpcChannel cli_connector_channel;  // cliconn: sends on cli_in_token, role 'c'
extern IpcChannel cgi_connector_channel;  // cgiconn: sends on cgi_in_token, role 'c'
extern IpcChannel cgi_client_channel;     // a CGI program: sends on cgi_out_token, role 'u'

// Destroys the queue under key if there is one; failures are ignored.
void ipc_remove_stale_queue(key_t key);

inline constexpr std::size_t FD_PAIR_PATH_LEN = 64;
inline constexpr std::size_t CORE_RECORD_LEN = 512;

struct FdPair {
    char in_path[FD_PAIR_PATH_LEN];   // records from the core
    char out_path[FD_PAIR_PATH_LEN];  // records to the core
    int in_fd;
    int out_fd;
    int sequence;
    // Operations, in slot order.
    int (*create)(FdPair* pair);
    int (*destroy)(FdPair* pair);
    int (*write)(FdPair* pair, char* record, std::size_t record_len);
    void (*read)(FdPair* pair, char* buffer, std::size_t length);
    int (*next_sequence)(FdPair* pair);
};

// Instance 0: CGI connector (CoreTxEvent0 / CoreRxCommand0);
// instance 1: CLI connector (CoreTxEvent1 / CoreRxCommand1).
extern FdPair fd_pairs[2];
