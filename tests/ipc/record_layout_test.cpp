// The queue record is read and written by programs built for other ABIs than
// the one of this build: the message type is a C long (4 bytes on the 32-bit
// ARM device, 8 on x86-64), the word and the text follow it without a gap,
// and the size handed to the queue calls covers the word and the text only,
// so it is the same on every target. A wrong layout fails the build of this
// file instead of garbling messages between peers at run time.
#include <cstddef>

#include "ipc_channel.hpp"

static_assert(IPC_PAYLOAD_LEN == 516, "word and text, whatever the size of long");
static_assert(sizeof(IpcMessage::word) == 4 && sizeof(IpcMessage::text) == 512);

// The kernel copies the type into the first long and the payload right after it.
static_assert(offsetof(IpcMessage, type) == 0);
static_assert(offsetof(IpcMessage, word) == sizeof(long), "no gap after the type");
static_assert(offsetof(IpcMessage, text) == offsetof(IpcMessage, word) + 4);
static_assert(offsetof(IpcMessage, text) + sizeof(IpcMessage::text) ==
                  offsetof(IpcMessage, word) + IPC_PAYLOAD_LEN,
              "the payload given to the queue calls is exactly word and text");
static_assert(sizeof(IpcMessage) >= sizeof(long) + IPC_PAYLOAD_LEN,
              "a receive buffer holds the type and a whole payload");

#if defined(__arm__)
static_assert(sizeof(long) == 4);
static_assert(sizeof(IpcMessage) == 4 + 4 + 512, "no padding on the 32-bit device");
#elif defined(__x86_64__)
static_assert(sizeof(long) == 8);
static_assert(sizeof(IpcMessage) == 528, "8 + 4 + 512, padded to the alignment of long");
#endif
