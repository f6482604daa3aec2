// Each handler family's record, the VoIP gates and the refusals.
#include <string>

#include "test_support.hpp"

namespace {

using grammar_test::FakeCmdline;
using grammar_test::is_zero;
using grammar_test::kNoVoip;
using grammar_test::kVoip;
using grammar_test::run;
using grammar_test::text;

constexpr const char* kRefusal = "val voip-capable 0\n";

std::string_view slot_name(const RequestRecord& r, std::size_t i) {
    return text(r.values.slots[i].name);
}
std::string_view slot_value(const RequestRecord& r, std::size_t i) {
    return text(r.values.slots[i].value);
}

TEST(Handlers, GetAndSetFamilies) {
    const FakeCmdline cmdline(kVoip);

    auto r = run(handle_get, "get mute").record;
    EXPECT_EQ(text(r.action), "get");
    EXPECT_EQ(text(r.property), "audio.mute");
    EXPECT_EQ(text(r.target), "");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_NONE);

    // A name missing from the map leaves the property empty, nothing more.
    r = run(handle_get, "get no-such-setting").record;
    EXPECT_EQ(text(r.action), "get");
    EXPECT_EQ(text(r.property), "");

    r = run(handle_get, "set net-commit").record;
    EXPECT_EQ(text(r.action), "set");
    EXPECT_EQ(text(r.property), "net.net-commit");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_NONE);

    r = run(handle_set, "set date-time \"2024-05-06 07:08:09\"").record;
    EXPECT_EQ(text(r.action), "set");
    EXPECT_EQ(text(r.property), "sys.date-time");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE);
    EXPECT_EQ(text(r.values.single), "2024-05-06 07:08:09");

    // Get rows served by the set handler send one empty value.
    r = run(handle_set, "get camera-hue").record;
    EXPECT_EQ(text(r.action), "get");
    EXPECT_EQ(text(r.property), "cam.camera-hue");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE);
    EXPECT_EQ(text(r.values.single), "");

    r = run(handle_set, "report ext-mic-mute toggle").record;
    EXPECT_EQ(text(r.action), "report");
    EXPECT_EQ(text(r.property), "externalmic.ext-mic-mute");
    EXPECT_EQ(text(r.values.single), "toggle");

    // The plain splitter keeps the quotes and does not join.
    r = run(handle_set_plain, "set ftp-srv1 \"ftp.example.org x\"").record;
    EXPECT_EQ(text(r.property), "sys.ftp-srv1");
    EXPECT_EQ(text(r.values.single), "\"ftp.example.org");

    r = run(handle_set_as_report, "set camera-pan 20").record;
    EXPECT_EQ(text(r.action), "report");
    EXPECT_EQ(text(r.property), "cam.camera-pan");
    EXPECT_EQ(text(r.values.single), "20");
}

TEST(Handlers, WholeGatedVoipSettings) {
    {
        const FakeCmdline cmdline(kNoVoip);
        for (auto h : {handle_get_voip, handle_set_voip}) {
            const auto out = run(h, "set reg-timeout 3600");
            EXPECT_EQ(out.out, kRefusal);
            EXPECT_TRUE(is_zero(out.record));
        }
    }
    {
        const FakeCmdline cmdline("voip_capable=0");
        EXPECT_EQ(run(handle_set_voip, "set reg-timeout 3600").out, kRefusal);
    }
    {
        const FakeCmdline cmdline(kVoip);
        auto out = run(handle_set_voip, "set reg-timeout 3600");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.action), "set");
        EXPECT_EQ(text(out.record.property), "voip.reg-timeout");
        EXPECT_EQ(out.record.value_mode, REQUEST_MODE_SINGLE);
        EXPECT_EQ(text(out.record.values.single), "3600");

        out = run(handle_get_voip, "set voip-commit");
        EXPECT_EQ(text(out.record.action), "set");
        EXPECT_EQ(text(out.record.property), "voip.voip-commit");
        EXPECT_EQ(out.record.value_mode, REQUEST_MODE_NONE);
    }
}

TEST(Handlers, MultiValueSettings) {
    auto r = run(handle_set_multi, "set camera-ptz-home -30 18 400").record;
    EXPECT_EQ(text(r.property), "cam.camera-ptz-home");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE);
    EXPECT_EQ(text(r.values.single), "-30 18 400");

    r = run(handle_set_multi, "set camera-image-defaults 1 2 3 4 5 6 7 8 9").record;
    EXPECT_EQ(text(r.values.single), "1 2 3 4 5 6 7");
    // Fewer than seven: the first three.
    r = run(handle_set_multi, "set camera-image-defaults 1 2 3 4 5 6").record;
    EXPECT_EQ(text(r.values.single), "1 2 3");
    // Fewer than three: no value, still mode 1.
    r = run(handle_set_multi, "set camera-ptz-home 1 2").record;
    EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE);
    EXPECT_EQ(text(r.values.single), "");
}

TEST(Handlers, PerLineGateKeepsWhatWasWrittenBeforeIt) {
    {
        const FakeCmdline cmdline(kNoVoip);
        auto out = run(handle_line_value, "report status 1 connected");
        EXPECT_EQ(out.out, kRefusal);
        EXPECT_EQ(text(out.record.action), "");
        EXPECT_EQ(text(out.record.property), "call.status");
        EXPECT_EQ(text(out.record.target), "");

        // Any 1, 2 or 3 anywhere in the id refuses; usb and bt pass.
        EXPECT_EQ(run(handle_line_value, "set dtmf xx3 5").out, kRefusal);
        out = run(handle_line_value, "report status usb connected");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.target), "usb");
        EXPECT_EQ(text(out.record.values.single), "connected");

        out = run(handle_line_get, "get status 2");
        EXPECT_EQ(out.out, kRefusal);
        EXPECT_EQ(text(out.record.action), "");
        EXPECT_EQ(text(out.record.property), "call.status");
        out = run(handle_line_get, "get status bt");
        EXPECT_EQ(text(out.record.action), "get");
        EXPECT_EQ(text(out.record.target), "bt");
        // No id at all passes too.
        out = run(handle_line_get, "get call-info");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.target), "");

        out = run(handle_call_action, "answer 2");
        EXPECT_EQ(out.out, kRefusal);
        EXPECT_EQ(text(out.record.action), "");
        out = run(handle_call_action, "hangup all");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.action), "hangup");
        EXPECT_EQ(text(out.record.target), "all");
        EXPECT_EQ(text(out.record.property), "");

        EXPECT_EQ(run(handle_dial, "dial 3 1234").out, kRefusal);
        // Only the line id is gated, not the number.
        out = run(handle_dial, "dial usb 123");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.target), "usb");
        EXPECT_EQ(text(out.record.values.single), "123");

        out = run(handle_call_info_report, "report call-info 1 Alice 555 connected");
        EXPECT_EQ(out.out, kRefusal);
        EXPECT_EQ(text(out.record.action), "");
        EXPECT_EQ(text(out.record.property), "call.call-info");
    }
    {
        const FakeCmdline cmdline(kVoip);
        auto out = run(handle_line_value, "report status 1 connected");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(text(out.record.action), "report");
        EXPECT_EQ(text(out.record.target), "1");
        EXPECT_EQ(text(out.record.values.single), "connected");

        out = run(handle_dial, "dial 1 sip:1234@example.org");
        EXPECT_EQ(text(out.record.action), "dial");
        EXPECT_EQ(text(out.record.target), "1");
        EXPECT_EQ(out.record.value_mode, REQUEST_MODE_SINGLE);
        EXPECT_EQ(text(out.record.values.single), "sip:1234@example.org");
    }
}

TEST(Handlers, CallInfoReportFillsPresentSlotsOnly) {
    const FakeCmdline cmdline(kVoip);
    auto r = run(handle_call_info_report, "report call-info 2 \"Alice Smith\" 555 ringing").record;
    EXPECT_EQ(text(r.target), "2");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_LIST);
    EXPECT_EQ(slot_name(r, 0), "call.caller");
    EXPECT_EQ(slot_value(r, 0), "Alice Smith");
    EXPECT_EQ(slot_name(r, 1), "call.number");
    EXPECT_EQ(slot_value(r, 1), "555");
    EXPECT_EQ(slot_name(r, 2), "call.status");
    EXPECT_EQ(slot_value(r, 2), "ringing");

    r = run(handle_call_info_report, "report call-info usb Bob").record;
    EXPECT_EQ(slot_value(r, 0), "Bob");
    EXPECT_EQ(slot_name(r, 1), "");
    EXPECT_EQ(slot_name(r, 2), "");
}

TEST(Handlers, MicrophoneHandlers) {
    for (const char* line : {"get mic-conn-status", "get mic-conn-status 1"}) {
        const auto out = run(handle_mic_get, line);
        EXPECT_EQ(out.out, "") << line;
        EXPECT_EQ(text(out.record.action), "get") << line;
        EXPECT_EQ(text(out.record.property), "audio.mic-conn-status") << line;
        EXPECT_EQ(text(out.record.target), "1") << line;
        EXPECT_EQ(out.record.value_mode, REQUEST_MODE_NONE) << line;
    }
    const auto refused = run(handle_mic_get, "get mic-conn-status 2");
    EXPECT_EQ(refused.out, "command syntax error\n");
    EXPECT_EQ(text(refused.record.action), "");

    const auto r = run(handle_mic_report, "report mic-conn-status 1 connected").record;
    EXPECT_EQ(text(r.action), "report");
    EXPECT_EQ(text(r.property), "audio.mic-conn-status");
    EXPECT_EQ(text(r.target), "1");
    EXPECT_EQ(text(r.values.single), "connected");

    const auto reset = run(handle_reset_setting, "set reset-setting audio").record;
    EXPECT_EQ(text(reset.property), "sys.reset-setting");
    EXPECT_EQ(text(reset.target), "audio");
    EXPECT_EQ(reset.value_mode, REQUEST_MODE_NONE);
}

TEST(Handlers, SwapAndTransfer) {
    {
        const FakeCmdline cmdline(kVoip);
        auto r = run(handle_swap, "swap 1 2").record;
        EXPECT_EQ(text(r.action), "swap");
        EXPECT_EQ(r.value_mode, REQUEST_MODE_LIST);
        EXPECT_EQ(slot_name(r, 0), "source-call");
        EXPECT_EQ(slot_value(r, 0), "1");
        EXPECT_EQ(slot_name(r, 1), "target-call");
        EXPECT_EQ(slot_value(r, 1), "2");

        r = run(handle_transfer, "transfer usb").record;
        EXPECT_EQ(text(r.action), "transfer");
        EXPECT_EQ(slot_value(r, 0), "usb");
        EXPECT_EQ(slot_name(r, 1), "");
        // The source slot is named even without a token.
        r = run(handle_swap, "swap").record;
        EXPECT_EQ(slot_name(r, 0), "source-call");
        EXPECT_EQ(slot_value(r, 0), "");
    }
    {
        const FakeCmdline cmdline(kNoVoip);
        for (const char* line : {"swap 1 usb", "transfer usb 3", "swap bt 2"}) {
            const auto out = run(handle_swap, line);
            EXPECT_EQ(out.out, kRefusal) << line;
            EXPECT_TRUE(is_zero(out.record)) << line;
        }
        const auto out = run(handle_transfer, "transfer usb bt");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(slot_value(out.record, 1), "bt");
    }
}

TEST(Handlers, JoinMixStatesDuplicatesAndGate) {
    {
        const FakeCmdline cmdline(kVoip);
        auto out = run(handle_join, "join usb 1 2 1");
        EXPECT_EQ(out.out, "");
        const RequestRecord& r = out.record;
        EXPECT_EQ(text(r.action), "join");
        EXPECT_EQ(r.value_mode, REQUEST_MODE_LIST);
        const char* names[] = {"1", "2", "usb", "bt"};
        const char* values[] = {"0", "1", "1", "0"};
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(slot_name(r, i), names[i]) << i;
            EXPECT_EQ(slot_value(r, i), values[i]) << i;
        }
        EXPECT_EQ(slot_name(r, 4), "");

        out = run(handle_join, "join 1 1 1 0");
        EXPECT_EQ(out.out, "command syntax error - duplicate lines\n");
        EXPECT_EQ(text(out.record.action), "");
        EXPECT_EQ(out.record.value_mode, REQUEST_MODE_NONE);
        EXPECT_EQ(run(handle_join, "join usb 1 bt 0 usb 1").out,
                  "command syntax error - duplicate lines\n");
    }
    {
        const FakeCmdline cmdline(kNoVoip);
        auto out = run(handle_join, "join 1 1 usb 0");
        EXPECT_EQ(out.out, kRefusal);
        EXPECT_EQ(text(out.record.action), "");
        // Mix states are not call ids: a 1 there does not trip the gate.
        out = run(handle_join, "join usb 1 bt 1");
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(slot_value(out.record, 2), "1");
        EXPECT_EQ(slot_value(out.record, 3), "1");
        // The gate comes before the duplicate check.
        EXPECT_EQ(run(handle_join, "join 2 1 2 0").out, kRefusal);
    }
}

TEST(Handlers, CommandWordFamilies) {
    auto r = run(handle_source_target, "download-logs /tmp/logs.tgz").record;
    EXPECT_EQ(text(r.action), "download-logs");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_LIST);
    EXPECT_EQ(slot_name(r, 0), "source-call");
    EXPECT_EQ(slot_value(r, 0), "/tmp/logs.tgz");
    EXPECT_EQ(slot_name(r, 1), "");
    r = run(handle_source_target, "bm64-msg-acl-connect a b").record;
    EXPECT_EQ(slot_name(r, 1), "target-url");
    EXPECT_EQ(slot_value(r, 1), "b");
    r = run(handle_source_target, "bt-disconnect").record;
    EXPECT_EQ(r.value_mode, REQUEST_MODE_LIST);
    EXPECT_EQ(slot_name(r, 0), "");

    r = run(handle_property_value, "report captouch volumeup").record;
    EXPECT_EQ(text(r.action), "report");
    EXPECT_EQ(text(r.property), "captouch");  // as typed, not mapped
    EXPECT_EQ(text(r.values.single), "volumeup");
    r = run(handle_property_value, "led-set call-red-led 1").record;
    EXPECT_EQ(text(r.property), "call-red-led");

    r = run(handle_property_only, "led-set all-leds-off").record;
    EXPECT_EQ(text(r.action), "led-set");
    EXPECT_EQ(text(r.property), "all-leds-off");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_NONE);
    r = run(handle_property_only, "cam-save-as-default").record;
    EXPECT_EQ(text(r.action), "cam-save-as-default");
    EXPECT_EQ(text(r.property), "");

    r = run(handle_single_arg, "import-config config.xml").record;
    EXPECT_EQ(text(r.action), "import-config");
    EXPECT_EQ(text(r.values.single), "config.xml");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE);

    r = run(handle_word_only, "restart").record;
    EXPECT_EQ(text(r.action), "restart");
    EXPECT_EQ(r.value_mode, REQUEST_MODE_NONE);

    r = run(handle_regnotify, "regnotify").record;
    EXPECT_EQ(text(r.action), "client_register_notify");
    EXPECT_EQ(text(r.property), "");
}

TEST(Handlers, CameraSteps) {
    struct Step {
        command_handler handler;
        const char* line;
        const char* action;
        const char* property;
        const char* value;
    };
    const Step steps[] = {
        {handle_cam_decrement, "cam-zoom-out", "decrement", "cam.camera-zoom", "100"},
        {handle_cam_decrement, "cam-pan-left", "decrement", "cam.camera-pan", "-30"},
        {handle_cam_decrement, "cam-tilt-down", "decrement", "cam.camera-tilt", "-18"},
        {handle_cam_increment, "cam-zoom-in", "increment", "cam.camera-zoom", "400"},
        {handle_cam_increment, "cam-pan-right", "increment", "cam.camera-pan", "30"},
        {handle_cam_increment, "cam-tilt-up", "increment", "cam.camera-tilt", "18"},
        // Each handler knows its own direction only.
        {handle_cam_increment, "cam-zoom-out", "increment", "", ""},
        {handle_cam_decrement, "cam-zoom", "decrement", "", ""},
    };
    for (const Step& s : steps) {
        const auto r = run(s.handler, s.line).record;
        EXPECT_EQ(text(r.action), s.action) << s.line;
        EXPECT_EQ(text(r.property), s.property) << s.line;
        EXPECT_EQ(r.value_mode, REQUEST_MODE_SINGLE) << s.line;
        EXPECT_EQ(text(r.values.single), s.value) << s.line;
        EXPECT_EQ(text(r.target), "") << s.line;
    }
}

TEST(Handlers, OverlongTokensAreCutToTheirFields) {
    const FakeCmdline cmdline(kVoip);
    const std::string word(400, 'w');

    auto r = run(handle_set, word + " speaker-volume " + word).record;
    EXPECT_EQ(text(r.action), std::string(63, 'w'));
    EXPECT_EQ(text(r.values.single), std::string(320, 'w'));

    r = run(handle_property_value, "report " + word + " x").record;
    EXPECT_EQ(text(r.property).size(), 63u);

    r = run(handle_dial, "dial " + word + " 1").record;
    EXPECT_EQ(text(r.target).size(), 63u);

    r = run(handle_swap, "swap " + word + " " + word).record;
    EXPECT_EQ(slot_value(r, 0).size(), 63u);
    EXPECT_EQ(slot_value(r, 1).size(), 63u);

    // The quoted group is joined before the value is cut.
    r = run(handle_set,
            "set systemname \"" + std::string(200, 'a') + " " + std::string(200, 'b') + "\"")
            .record;
    EXPECT_EQ(text(r.values.single), std::string(200, 'a') + " " + std::string(119, 'b'));
}

}  // namespace
