// The connector-side message routines: cutting, acknowledgements, envelopes
// and the numbers read out of message texts.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "ipc_channel.hpp"
#include "xml_messages.hpp"

namespace {

std::string text_of(const tx::HeapText& text) {
    return text ? std::string(text.get()) : "<null>";
}

RecordSlot slot(const char* name, const char* value) {
    RecordSlot s = {};
    tx::copy_bounded(s.name, name);
    tx::copy_bounded(s.value, value);
    return s;
}

// A channel whose send operation records what it is given.
struct SentMessage {
    std::string text;
    long type;
    int word;
};
std::vector<SentMessage> sent_messages;
int send_result = 1;
int recording_send(IpcChannel*, const char* text, long type, int word) {
    sent_messages.push_back({text != nullptr ? text : "<null>", type, word});
    return send_result;
}

constexpr const char* kClientNotify =
    "<client_notify client_id=\"7\" message_seq=\"42\">"
    "<notify event=\"call.status\" target=\"1\"><v>up</v></notify></client_notify>";

}  // namespace

TEST(CutMessages, ClosingTagOrSelfClosingEnd) {
    EXPECT_EQ(text_of(cut_notify("junk<notify event=\"a\"><v>1</v></notify>tail")),
              "<notify event=\"a\"><v>1</v></notify>");
    EXPECT_EQ(text_of(cut_response(
                  "<server_response x=\"1\"><response><v/></response></server_response>")),
              "<response><v/></response>");
    // Without the closing tag the first "/>" after the start ends the cut.
    EXPECT_EQ(text_of(cut_notify("a<notify event=\"e\"/>b/>")), "<notify event=\"e\"/>");
    EXPECT_EQ(text_of(cut_response("<response><v/><w/></x>")), "<response><v/>");
    // A "/>" before the start does not count.
    EXPECT_EQ(text_of(cut_notify("<a/><notify event=\"e\"/>")), "<notify event=\"e\"/>");
    EXPECT_FALSE(cut_notify("<response/>"));
    EXPECT_FALSE(cut_response("<response><v>1</v>"));
    EXPECT_FALSE(cut_response(""));
}

TEST(ClientAck, DocumentFromNotificationAndSlots) {
    RecordSlot slots[RECORD_SLOT_COUNT] = {};
    slots[0] = slot("volume", "9");
    slots[1] = slot("", "skipped");
    slots[2] = slot("skipped", "");
    slots[14] = slot("last", "a<b");

    testing::internal::CaptureStdout();
    const tx::HeapText ack = build_client_ack(kClientNotify, slots);
    const std::string trace = testing::internal::GetCapturedStdout();

    EXPECT_EQ(
        text_of(ack),
        "<client_ack client_id=\"7\" message_seq=\"42\"><ack event=\"call.status\">"
        "<value name=\"volume\">9</value><value name=\"last\">a&lt;b</value></ack></client_ack>");
    EXPECT_EQ(trace,
              "connector:472: value 0 (volume)\n"
              "connector:473: value 0 (9)\n"
              "connector:472: value 14 (last)\n"
              "connector:473: value 14 (a<b)\n");
}

TEST(ClientAck, MissingPartsAndUnterminatedSlots) {
    EXPECT_EQ(text_of(build_client_ack("<client_notify/>", nullptr)),
              "<client_ack client_id=\"\" message_seq=\"\"><ack event=\"\"></ack></client_ack>");
    EXPECT_EQ(text_of(build_client_ack("not xml", nullptr)),
              "<client_ack client_id=\"\" message_seq=\"\"><ack event=\"\"></ack></client_ack>");

    // Slot texts that fill their whole field are not read past its end.
    RecordSlot slots[RECORD_SLOT_COUNT] = {};
    std::memset(slots[0].name, 'n', sizeof slots[0].name);
    std::memset(slots[0].value, 'v', sizeof slots[0].value);
    testing::internal::CaptureStdout();
    const std::string ack = text_of(build_client_ack(kClientNotify, slots));
    testing::internal::GetCapturedStdout();
    EXPECT_NE(ack.find("<value name=\"" + std::string(63, 'n') + "\">" + std::string(63, 'v') +
                       "</value>"),
              std::string::npos);
}

TEST(ClientAck, CopyAndSendWrappers) {
    char small[20];
    std::memset(small, 'X', sizeof small);
    EXPECT_EQ(build_client_ack_into(kClientNotify, nullptr, small), 0);
    EXPECT_STREQ(small, "<client_ack client_");

    IpcChannel channel = {};
    channel.send = recording_send;
    sent_messages.clear();
    send_result = 1;
    EXPECT_EQ(send_client_ack(&channel, kClientNotify, nullptr, 1234), 1);
    ASSERT_EQ(sent_messages.size(), 1U);
    EXPECT_EQ(sent_messages[0].text,
              "<client_ack client_id=\"7\" message_seq=\"42\"><ack event=\"call.status\"></ack>"
              "</client_ack>");
    EXPECT_EQ(sent_messages[0].type, 1234);
    EXPECT_EQ(sent_messages[0].word, 0);

    send_result = 0;
    EXPECT_EQ(send_client_ack(&channel, kClientNotify, nullptr, 5), 0);

    // An acknowledgement longer than a queue text is cut to fit one.
    RecordSlot slots[RECORD_SLOT_COUNT] = {};
    for (auto& s : slots) s = slot(std::string(60, 'n').c_str(), std::string(60, 'v').c_str());
    sent_messages.clear();
    send_result = 1;
    testing::internal::CaptureStdout();
    send_client_ack(&channel, kClientNotify, slots, 5);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(sent_messages.size(), 1U);
    EXPECT_EQ(sent_messages[0].text.size(), 511U);
}

TEST(WrapClientRequest, EnvelopeWithSubClientNumber) {
    IpcMessage message = {};
    message.type = 4321;
    tx::copy_bounded(message.text, "<request><action>get</action></request>");
    EXPECT_EQ(text_of(wrap_client_request(message, "cli", "17")),
              "<client_request client_id=\"cli\" sub_client_id=\"4321\" message_seq=\"17\">"
              "<request><action>get</action></request></client_request>");

    // Only the low 32 bits of the type count, read as a signed number.
    if constexpr (sizeof(long) > 4) {
        message.type = static_cast<long>(0x100000005LL);
        EXPECT_NE(text_of(wrap_client_request(message, "c", "1")).find("sub_client_id=\"5\""),
                  std::string::npos);
    }
    message.type = 0xFFFFFFFFL;
    EXPECT_NE(text_of(wrap_client_request(message, "c", "1")).find("sub_client_id=\"-1\""),
              std::string::npos);
}

TEST(WrapClientRequest, CutAt511AndUnterminatedText) {
    IpcMessage message = {};
    message.type = 1;
    std::memset(message.text, 'x', sizeof message.text);  // no terminator at all
    const tx::HeapText envelope = wrap_client_request(message, "cli", "1");
    ASSERT_TRUE(envelope);
    const std::string text = envelope.get();
    EXPECT_EQ(text.size(), 511U);
    EXPECT_EQ(
        text.rfind("<client_request client_id=\"cli\" sub_client_id=\"1\" message_seq=\"1\">xx", 0),
        0U);
    EXPECT_EQ(text.back(), 'x');
}

TEST(MessageNumbers, QuotedValueAfterName) {
    const char* text = "<client_request client_id=\"9\" sub_client_id=\"1234\" message_seq=\"77\">";
    EXPECT_EQ(message_seq_of(text), 77);
    EXPECT_EQ(sub_client_id_of(text), 1234);
    EXPECT_EQ(message_seq_of("<a b=\"1\"/>"), 0);
    EXPECT_EQ(sub_client_id_of(""), 0);
    EXPECT_EQ(message_seq_of("message_seq= \"-5\""), -5);
    EXPECT_EQ(message_seq_of("message_seq"), 0);
    // The first occurrence counts.
    EXPECT_EQ(message_seq_of("message_seq=\"1\" message_seq=\"2\""), 1);
}

TEST(MessageNumbers, LongValuesAreCut) {
    EXPECT_EQ(sub_client_id_of("sub_client_id=\"1234567\""), 12345);
    EXPECT_EQ(sub_client_id_of("sub_client_id=\"99999999999999999999999999999999999\""), 99999);
    // Thirty-two characters are read; the rest is dropped.
    const std::string seq = "message_seq=\"" + std::string(31, '0') + "12345\"";
    EXPECT_EQ(message_seq_of(seq), 1);
    // An unclosed quote runs to the end of the text.
    EXPECT_EQ(message_seq_of("message_seq=\"88"), 88);
    EXPECT_EQ(message_seq_of("message_seq=\"" + std::string(40, '9')), LONG_MAX);
}
