// The connector's message routines on arbitrary texts: the client envelope
// (with a fuzzed message type, client id and sequence text), the notification
// and response cutters, the sequence and sub-client readers and the client
// acknowledgement with and without value slots.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ipc_channel.hpp"
#include "request_record.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t kEnvelopeLen = 512;

bool all_alnum(std::string_view text) {
    for (const char c : text) {
        if ((c < '0' || c > '9') && (c < 'a' || c > 'z') && (c < 'A' || c > 'Z')) return false;
    }
    return true;
}

// A cut part starts with its opening text and is a piece of the message.
void expect_cut(const tx::HeapText& part, std::string_view message, std::string_view open) {
    if (!part) return;
    const std::string_view cut(part.get());
    if (!cut.starts_with(open)) std::abort();
    if (message.find(cut) == std::string_view::npos) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The acknowledgement traces its values on stdout.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    IpcMessage message{};
    message.type = input.ConsumeIntegral<long>();
    message.word = input.ConsumeIntegral<std::int32_t>();
    const std::string client_id = input.ConsumeRandomLengthString(80);
    const std::string sequence = input.ConsumeRandomLengthString(40);
    std::vector<RecordSlot> slots(RECORD_SLOT_COUNT);
    const std::size_t slot_bytes =
        input.ConsumeIntegralInRange<std::size_t>(0, 4 * sizeof(RecordSlot));
    const std::vector<std::uint8_t> raw_slots = input.ConsumeBytes<std::uint8_t>(slot_bytes);
    // The slot bytes go in as they are: names and values need not be terminated.
    if (!raw_slots.empty()) std::memcpy(slots.data(), raw_slots.data(), raw_slots.size());
    const std::string text = input.ConsumeRemainingBytesAsString();
    std::memcpy(message.text, text.data(), std::min(text.size(), sizeof message.text));

    // The envelope is one 512-byte record whose text is always terminated.
    const tx::HeapText envelope = wrap_client_request(message, client_id.c_str(), sequence.c_str());
    if (envelope) {
        const std::size_t length = strnlen(envelope.get(), kEnvelopeLen);
        if (length >= kEnvelopeLen) std::abort();
        const std::string_view wrapped(envelope.get(), length);
        // A plain client id cannot disturb the sub-client number, which comes
        // before the message text and is never cut.
        const long sub_client = static_cast<std::int32_t>(message.type);
        if (all_alnum(client_id) && client_id.size() < 64 && sub_client >= 0 &&
            sub_client < 100000 && sub_client_id_of(wrapped) != sub_client) {
            std::abort();
        }
        (void)message_seq_of(wrapped);
    }

    const std::string_view view(text);
    expect_cut(cut_notify(view), view, "<notify");
    expect_cut(cut_response(view), view, "<response");
    (void)message_seq_of(view);
    (void)sub_client_id_of(view);

    const tx::HeapText plain_ack = build_client_ack(view, nullptr);
    if (plain_ack && !std::string_view(plain_ack.get()).starts_with("<client_ack")) std::abort();
    const tx::HeapText slot_ack = build_client_ack(view, slots.data());
    if (slot_ack && !std::string_view(slot_ack.get()).starts_with("<client_ack")) std::abort();

    char small[24] = {};
    (void)build_client_ack_into(view, slots.data(), small);
    if (strnlen(small, sizeof small) >= sizeof small) std::abort();
    return 0;
}
