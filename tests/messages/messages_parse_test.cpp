// Responses and notifications: from text to record to display line.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "xml_messages.hpp"

namespace {

RequestRecord response_of(std::string_view text) {
    RequestRecord record = {};
    const std::string copy{text};
    EXPECT_EQ(parse_response(copy.c_str(), copy.size(), &record), 0);
    return record;
}

NotifyRecord notify_of(std::string_view text) {
    NotifyRecord record = {};
    const std::string copy{text};
    EXPECT_EQ(parse_notify(copy.c_str(), copy.size(), &record), 0);
    return record;
}

std::string shown(const RequestRecord& record) {
    char out[512] = {};
    format_response(record, out);
    return out;
}

std::string shown(const NotifyRecord& record) {
    char out[512] = {};
    format_notify(record, out);
    return out;
}

std::string show_response(std::string_view text) {
    return shown(response_of(text));
}
std::string show_notify(std::string_view text) {
    return shown(notify_of(text));
}

std::string v_elements(int count) {
    std::string values;
    for (int i = 0; i < count; ++i) {
        values += "<v name=\"n" + std::to_string(i) + "\">x" + std::to_string(i) + "</v>";
    }
    return values;
}

bool all_zero(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

}  // namespace

TEST(Recognisers, TagsAnywhereInTheText) {
    EXPECT_TRUE(is_notify("xx<notify event=\"a\"/>"));
    EXPECT_TRUE(is_response("<response/>"));
    EXPECT_TRUE(is_server_response("<server_response>"));
    EXPECT_TRUE(is_server_notify("..<server_notify"));
    // "<server_response" holds "response" but not "<response".
    EXPECT_FALSE(is_response("<server_response>"));
    EXPECT_FALSE(is_notify("<server_notify>"));
    EXPECT_FALSE(is_notify(""));
    EXPECT_TRUE(message_contains("abc<ack", "<ack"));
    EXPECT_FALSE(message_contains("abc", "abcd"));
}

TEST(ParseResponse, ActionAttributesAndSingleValue) {
    const RequestRecord r = response_of(
        "<response><action property=\"voip.registrar\" target=\"1\">set</action>"
        "<v name=\"ignored\">10.0.0.5</v></response>");
    EXPECT_STREQ(r.action, "set");
    EXPECT_STREQ(r.property, "voip.registrar");
    EXPECT_STREQ(r.target, "1");
    EXPECT_EQ(r.value_mode, PARSED_MODE_SINGLE);
    EXPECT_STREQ(r.values.single, "10.0.0.5");
}

TEST(ParseResponse, NamedListKeepsFifteenInOrder) {
    const RequestRecord two = response_of(
        "<response><action>get</action><v name=\"a\">1</v><v name=\"b\">2</v></response>");
    EXPECT_EQ(two.value_mode, PARSED_MODE_LIST);
    EXPECT_STREQ(two.values.slots[0].name, "a");
    EXPECT_STREQ(two.values.slots[0].value, "1");
    EXPECT_STREQ(two.values.slots[1].name, "b");
    EXPECT_STREQ(two.values.slots[1].value, "2");
    EXPECT_STREQ(two.values.slots[2].name, "");

    const RequestRecord many =
        response_of("<response><action>get</action>" + v_elements(16) + "</response>");
    EXPECT_EQ(many.value_mode, PARSED_MODE_LIST);
    EXPECT_STREQ(many.values.slots[14].name, "n14");
    EXPECT_STREQ(many.values.slots[14].value, "x14");

    // Elements of another name between the "v" elements do not break the list.
    const RequestRecord mixed = response_of(
        "<response><action>get</action><v name=\"a\">1</v><w>z</w><v name=\"b\">2</v></response>");
    EXPECT_EQ(mixed.value_mode, PARSED_MODE_LIST);
    EXPECT_STREQ(mixed.values.slots[1].value, "2");
}

TEST(ParseResponse, MissingOrEmptyActionLeavesHeaderEmpty) {
    const RequestRecord empty_action = response_of(
        "<response><action property=\"audio.mute\" target=\"2\"></action><v>1</v></response>");
    EXPECT_STREQ(empty_action.action, "");
    EXPECT_STREQ(empty_action.property, "");
    EXPECT_STREQ(empty_action.target, "");
    EXPECT_STREQ(empty_action.values.single, "1");

    const RequestRecord no_action = response_of("<response><v>7</v></response>");
    EXPECT_STREQ(no_action.action, "");
    EXPECT_STREQ(no_action.values.single, "7");
}

TEST(ParseResponse, FieldsAreCutAndTerminated) {
    const std::string long_key(100, 'k');
    const std::string long_value(400, 'v');
    const RequestRecord r =
        response_of("<response><action property=\"" + long_key + "\">" + std::string(80, 'a') +
                    "</action><v>" + long_value + "</v></response>");
    EXPECT_EQ(std::strlen(r.property), 63U);
    EXPECT_EQ(std::strlen(r.action), 63U);
    EXPECT_EQ(std::strlen(r.values.single), 320U);

    const RequestRecord list = response_of("<response><action>get</action><v name=\"" + long_key +
                                           "\">" + long_value + "</v><v>b</v></response>");
    EXPECT_EQ(std::strlen(list.values.slots[0].name), 63U);
    EXPECT_EQ(std::strlen(list.values.slots[0].value), 63U);
    EXPECT_STREQ(list.values.slots[1].value, "b");
}

TEST(ParseResponse, BadTextLeavesRecordUntouchedAndInputIntact) {
    for (const char* bad : {"", "not xml at all", "<response><action>get</action>",
                            "<response><v>1</w></response>"}) {
        RequestRecord record = {};
        const std::string text = bad;
        parse_response(text.c_str(), text.size(), &record);
        EXPECT_TRUE(all_zero(&record, sizeof record)) << bad;
        EXPECT_EQ(text, bad);
    }
    // The given length bounds the text even without a terminator.
    const char unterminated[] = {'<', 'r', '>', '<', 'v', '>', '5', '<', '/',
                                 'v', '>', '<', '/', 'r', '>', 'X', 'X'};
    RequestRecord record = {};
    parse_response(unterminated, 15, &record);
    EXPECT_STREQ(record.values.single, "5");
}

TEST(FormatResponse, DisplayExamples) {
    EXPECT_EQ(
        show_response("<response><action property=\"audio.mute\">get</action><v>0</v></response>"),
        "val mute 0");
    EXPECT_EQ(
        show_response("<response><action property=\"voip.registrar\" target=\"1\">set</action>"
                      "<v>10.0.0.5</v></response>"),
        "val registrar 1 10.0.0.5");
    EXPECT_EQ(
        show_response("<response><action>client_register_notify</action><v>ok</v></response>"),
        "regnotify ok");
    // Values in "value" elements are not read; the empty single value leaves
    // a second blank, of which only one goes.
    EXPECT_EQ(show_response("<response><action property=\"lock\" target=\"ch1\">set</action>"
                            "<value name=\"groupname\">groupA</value>"
                            "<value name=\"groupname2\">groupB</value></response>"),
              "val lock ch 1 ");
}

TEST(FormatResponse, TargetsListsAndUnknownNames) {
    EXPECT_EQ(show_response("<response><action property=\"x.unknown\" target=\"ch12\">act</action>"
                            "<v>1</v></response>"),
              "act x.unknown ch12 1");
    EXPECT_EQ(show_response("<response><action target=\"cx1\">act</action><v>1</v></response>"),
              "act cx1 1");
    // Lists show values only, skipping slots without a name or a value.
    EXPECT_EQ(show_response("<response><action>act</action><v name=\"a\">1</v><v>2</v>"
                            "<v name=\"c\"></v><v name=\"d\">4 4</v></response>"),
              "act 1 4 4");
    // A record with nothing in it (unparseable text) shows nothing at all.
    EXPECT_EQ(shown(RequestRecord{}), "");
}

TEST(FormatResponse, OutputBoundedByBuffer) {
    RequestRecord record = response_of("<response><action property=\"audio.mute\">get</action><v>" +
                                       std::string(320, 'z') + "</v></response>");
    char small[16];
    std::memset(small, 0, 12);
    std::memset(small + 12, 'G', 4);
    format_response(record, std::span<char>(small, 12));
    EXPECT_EQ(std::string(small), "val mute zz");
    EXPECT_EQ(std::string(small + 12, 4), "GGGG");

    // Fifteen long list values overflow 512 bytes: cut, terminated.
    std::string values;
    for (int i = 0; i < 15; ++i) values += "<v name=\"n\">" + std::string(63, 'a' + i) + "</v>";
    char out[512];
    std::memset(out, 0, sizeof out);
    format_response(response_of("<response><action>x</action>" + values + "</response>"), out);
    EXPECT_EQ(std::strlen(out), 511U);
}

TEST(ParseNotify, RootAttributesAndValues) {
    const NotifyRecord n = notify_of(
        "<notify event=\"call.status\" target=\"1\"><v name=\"caller\">Front Desk</v>"
        "<v name=\"number\">200</v></notify>");
    EXPECT_STREQ(n.event, "call.status");
    EXPECT_STREQ(n.target, "1");
    EXPECT_EQ(n.value_mode, PARSED_MODE_LIST);
    EXPECT_STREQ(n.values.slots[0].name, "caller");
    EXPECT_STREQ(n.values.slots[0].value, "Front Desk");
    EXPECT_STREQ(n.values.slots[1].value, "200");

    const NotifyRecord single = notify_of("<notify event=\"e\"><v name=\"n\">a b</v></notify>");
    EXPECT_EQ(single.value_mode, PARSED_MODE_SINGLE);
    EXPECT_STREQ(single.values.single, "a b");
    EXPECT_STREQ(single.target, "");

    const NotifyRecord cut = notify_of("<notify event=\"" + std::string(90, 'e') + "\"/>");
    EXPECT_EQ(std::strlen(cut.event), 63U);
}

TEST(FormatNotify, DisplayExamples) {
    EXPECT_EQ(show_notify("<notify event=\"call.status\" target=\"1\"><v>connected</v></notify>"),
              "notify call.status 1 connected");
    EXPECT_EQ(
        show_notify("<notify event=\"call.info\" target=\"2\"><v name=\"caller\">Front Desk</v>"
                    "<v name=\"number\">200</v></notify>"),
        "notify call.info 2 caller \"Front Desk\" number 200");
    // Quotes only for list values; events are not translated.
    EXPECT_EQ(show_notify("<notify event=\"audio.mute\"><v>a b</v></notify>"),
              "notify audio.mute a b");
    EXPECT_EQ(
        show_notify("<notify event=\"e\"><v name=\"a\">1</v><v>2</v><v name=\"c\">3</v></notify>"),
        "notify e a 1 c 3");
    // Unparseable text still shows the word and two blanks.
    EXPECT_EQ(show_notify("<notify event=\"e\"><v>1</v>"), "notify  ");
}

TEST(FormatNotify, AppendsToWhatIsThereAndStaysBounded) {
    const NotifyRecord n = notify_of("<notify event=\"e\"><v>1</v></notify>");
    char out[512] = "pre:";
    format_notify(n, out);
    EXPECT_STREQ(out, "pre:notify e 1");

    char small[10] = {};
    format_notify(n, small);
    EXPECT_STREQ(small, "notify e");

    std::string values;
    for (int i = 0; i < 15; ++i) {
        values += "<v name=\"" + std::string(60, 'n') + "\">" + std::string(60, 'v') + " x</v>";
    }
    char big[512];
    std::memset(big, 0, sizeof big);
    format_notify(notify_of("<notify event=\"e\">" + values + "</notify>"), big);
    EXPECT_EQ(std::strlen(big), 511U);
}
