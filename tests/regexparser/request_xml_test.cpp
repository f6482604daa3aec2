// Request documents rendered from records, as handlers fill them.
#include <array>
#include <cstring>
#include <string>

#include "test_support.hpp"
#include "xml_messages.hpp"

namespace {

using grammar_test::FakeCmdline;
using grammar_test::kNoVoip;
using grammar_test::kVoip;
using grammar_test::run;

constexpr std::size_t kCallerBuffer = 256;

std::string render(const RequestRecord& r, std::size_t capacity = kCallerBuffer) {
    std::string out(capacity, '#');
    EXPECT_EQ(generate_xml_request(r, std::span<char>(out.data(), out.size())), 0);
    return capacity != 0 ? std::string(out.c_str()) : std::string();
}

std::string document(command_handler handler, std::string_view line) {
    return render(run(handler, line).record);
}

TEST(RequestXml, DocumentsOfTheCommandFamilies) {
    const FakeCmdline cmdline(kVoip);
    struct Case {
        command_handler handler;
        const char* line;
        const char* xml;
    };
    const Case cases[] = {
        {handle_get, "get speaker-volume",
         "<request><action property=\"audio.speaker-volume\">get</action></request>"},
        {handle_set_voip, "set reg-timeout 3600",
         "<request><action property=\"voip.reg-timeout\">set</action>"
         "<p name=\"default\">3600</p></request>"},
        {handle_dial, "dial 1 1234",
         "<request><action target=\"1\">dial</action><p name=\"default\">1234</p></request>"},
        {handle_swap, "swap 1 2",
         "<request><action>swap</action><p name=\"source-call\">1</p>"
         "<p name=\"target-call\">2</p></request>"},
        {handle_join, "join 1 1 usb 0",
         "<request><action>join</action><p name=\"1\">1</p><p name=\"2\">0</p>"
         "<p name=\"usb\">0</p><p name=\"bt\">0</p></request>"},
        {handle_set_as_report, "set camera-pan 20",
         "<request><action property=\"cam.camera-pan\">report</action>"
         "<p name=\"default\">20</p></request>"},
        {handle_set, "get camera-hue",
         "<request><action property=\"cam.camera-hue\">get</action>"
         "<p name=\"default\"></p></request>"},
        {handle_line_get, "get status 1",
         "<request><action property=\"call.status\" target=\"1\">get</action></request>"},
        {handle_line_value, "report status usb connected",
         "<request><action property=\"call.status\" target=\"usb\">report</action>"
         "<p name=\"default\">connected</p></request>"},
        {handle_call_info_report, "report call-info 2 \"Ann Lee\" 555",
         "<request><action property=\"call.call-info\" target=\"2\">report</action>"
         "<p name=\"call.caller\">Ann Lee</p><p name=\"call.number\">555</p></request>"},
        {handle_mic_get, "get mic-conn-status",
         "<request><action property=\"audio.mic-conn-status\" target=\"1\">get</action>"
         "</request>"},
        {handle_call_action, "hangup all",
         "<request><action target=\"all\">hangup</action></request>"},
        {handle_source_target, "bm64-msg-acl-connect a.bin b",
         "<request><action>bm64-msg-acl-connect</action><p name=\"source-call\">a.bin</p>"
         "<p name=\"target-url\">b</p></request>"},
        {handle_property_value, "report captouch volumeup",
         "<request><action property=\"captouch\">report</action>"
         "<p name=\"default\">volumeup</p></request>"},
        {handle_property_only, "cam-factory-reset",
         "<request><action>cam-factory-reset</action></request>"},
        {handle_single_arg, "import-config cfg.xml",
         "<request><action>import-config</action><p name=\"default\">cfg.xml</p></request>"},
        {handle_word_only, "restart", "<request><action>restart</action></request>"},
        {handle_regnotify, "regnotify",
         "<request><action>client_register_notify</action></request>"},
        {handle_cam_increment, "cam-zoom-in",
         "<request><action property=\"cam.camera-zoom\">increment</action>"
         "<p name=\"default\">400</p></request>"},
        {handle_reset_setting, "set reset-setting net",
         "<request><action property=\"sys.reset-setting\" target=\"net\">set</action></request>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(document(c.handler, c.line), c.xml) << c.line;
    }
}

TEST(RequestXml, RefusedCommandsStillRenderAnAction) {
    const FakeCmdline cmdline(kNoVoip);
    EXPECT_EQ(document(handle_call_action, "answer 2"), "<request><action></action></request>");
    EXPECT_EQ(document(handle_line_value, "report status 1 connected"),
              "<request><action property=\"call.status\"></action></request>");
    EXPECT_EQ(document(handle_swap, "swap 1 2"), "<request><action></action></request>");
    EXPECT_EQ(document(handle_set_voip, "set reg-timeout 60"),
              "<request><action></action></request>");
}

TEST(RequestXml, RecordShapes) {
    RequestRecord r{};
    tx::copy_bounded(r.action, "set");
    tx::copy_bounded(r.property, "sys.dialer-connection-mode");
    r.value_mode = REQUEST_MODE_SINGLE;
    tx::copy_bounded(r.values.single, "disconnected");
    EXPECT_EQ(render(r),
              "<request><action property=\"sys.dialer-connection-mode\">set</action>"
              "<p name=\"default\">disconnected</p></request>");

    // Named slots need not be contiguous; an empty value still renders.
    r = RequestRecord{};
    tx::copy_bounded(r.action, "x");
    r.value_mode = REQUEST_MODE_LIST;
    tx::copy_bounded(r.values.slots[3].name, "b");
    tx::copy_bounded(r.values.slots[0].name, "a");
    tx::copy_bounded(r.values.slots[0].value, "1");
    tx::copy_bounded(r.values.slots[14].value, "unnamed");
    EXPECT_EQ(render(r),
              "<request><action>x</action><p name=\"a\">1</p><p name=\"b\"></p></request>");

    // Unknown modes carry no values.
    r.value_mode = 7;
    EXPECT_EQ(render(r), "<request><action>x</action></request>");

    // Markup in texts and attributes is escaped.
    r = RequestRecord{};
    tx::copy_bounded(r.action, "set");
    tx::copy_bounded(r.property, "a\"b<c");
    r.value_mode = REQUEST_MODE_SINGLE;
    tx::copy_bounded(r.values.single, "x<y & \"z\">");
    EXPECT_EQ(render(r),
              "<request><action property=\"a&quot;b&lt;c\">set</action>"
              "<p name=\"default\">x&lt;y &amp; \"z\"&gt;</p></request>");

    // Fields without a terminator are read up to their capacity only.
    std::memset(&r, 'a', sizeof r);
    r.value_mode = REQUEST_MODE_NONE;
    const std::string a64(64, 'a');
    EXPECT_EQ(render(r, 512), "<request><action property=\"" + a64 + "\" target=\"" + a64 + "\">" +
                                  a64 + "</action></request>");
}

TEST(RequestXml, DocumentsThatDoNotFitLeaveTheBufferEmpty) {
    RequestRecord r{};
    tx::copy_bounded(r.action, "set");
    tx::copy_bounded(r.property, "sys.systemname");
    r.value_mode = REQUEST_MODE_SINGLE;
    tx::copy_bounded(r.values.single, std::string(320, 'n'));
    EXPECT_EQ(render(r), "");

    const std::string whole = render(r, 1024);
    ASSERT_FALSE(whole.empty());
    EXPECT_EQ(render(r, whole.size() + 1), whole);
    EXPECT_EQ(render(r, whole.size()), "");

    // Fifteen full slots.
    r = RequestRecord{};
    tx::copy_bounded(r.action, "join");
    r.value_mode = REQUEST_MODE_LIST;
    for (auto& slot : r.values.slots) {
        tx::copy_bounded(slot.name, std::string(63, 'k'));
        tx::copy_bounded(slot.value, std::string(63, 'v'));
    }
    EXPECT_EQ(render(r), "");
    EXPECT_GT(render(r, 4096).size(), 15u * 126);

    // No room at all: nothing is written.
    std::array<char, 1> one = {'#'};
    generate_xml_request(r, one);
    EXPECT_EQ(one[0], '\0');
    generate_xml_request(r, std::span<char>());
}

}  // namespace
