// The simulated device's request handling, without its pipes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core.hpp"

namespace {

std::string request(const std::string& body, const std::string& client = "CLI",
                    const std::string& sub = "42", const std::string& seq = "5") {
    return "<client_request client_id=\"" + client + "\" sub_client_id=\"" + sub +
           "\" message_seq=\"" + seq + "\"><request>" + body + "</request></client_request>";
}

std::string response_of(coresim::Core& core, const std::string& body, int instance = 1) {
    const coresim::Output out = core.handle(instance, request(body));
    return out.records.empty() ? "" : out.records.front().second;
}

TEST(CoreSim, GetAndSetKeepTheEnvelopeAndTheGrammarRanges) {
    coresim::Core core;
    EXPECT_EQ(
        response_of(core, "<action property=\"audio.speaker-volume\">get</action>"),
        "<server_response client_id=\"CLI\" sub_client_id=\"42\" message_seq=\"5\"><response>"
        "<action "
        "property=\"audio.speaker-volume\">get</action><v>9</v></response></server_response>");
    EXPECT_NE(
        response_of(core, "<action property=\"voip.reg-timeout\">get</action>").find("<v>60</v>"),
        std::string::npos);
    EXPECT_NE(
        response_of(core, "<action property=\"sys.voip-capable\">get</action>").find("<v>1</v>"),
        std::string::npos);

    EXPECT_NE(
        response_of(
            core,
            "<action property=\"audio.speaker-volume\">set</action><p name=\"default\">12</p>")
            .find("<v>12</v>"),
        std::string::npos);
    EXPECT_EQ(*core.setting("audio.speaker-volume"), "12");
    EXPECT_NE(
        response_of(
            core,
            "<action property=\"audio.speaker-volume\">set</action><p name=\"default\">19</p>")
            .find("<v>error out of range</v>"),
        std::string::npos);
    EXPECT_NE(
        response_of(
            core, "<action property=\"audio.speaker-volume\">set</action><p name=\"default\">x</p>")
            .find("error"),
        std::string::npos);
    EXPECT_EQ(*core.setting("audio.speaker-volume"), "12");

    // Text settings round-trip their entities.
    response_of(
        core, "<action property=\"sys.systemname\">set</action><p name=\"default\">A &amp; B</p>");
    EXPECT_EQ(*core.setting("sys.systemname"), "A & B");
    EXPECT_NE(response_of(core, "<action property=\"sys.systemname\">get</action>")
                  .find("<v>A &amp; B</v>"),
              std::string::npos);

    // A per-target setting falls back to the shared value until it is set.
    EXPECT_NE(response_of(core, "<action property=\"voip.registrar\" target=\"2\">get</action>")
                  .find("target=\"2\">get</action><v>sip.example.com</v>"),
              std::string::npos);
}

TEST(CoreSim, UnknownEmptyAndMalformedRequests) {
    coresim::Core core;
    EXPECT_NE(response_of(core, "<action>frobnicate</action>").find("<v>error unknown action</v>"),
              std::string::npos);
    EXPECT_NE(
        response_of(core, "<action></action>").find("<action>error</action><v>empty action</v>"),
        std::string::npos);
    EXPECT_NE(response_of(core, "<action/>").find("empty action"), std::string::npos);
    EXPECT_NE(response_of(core, "<action property=\"no.such-key\">get</action>")
                  .find("error unknown property"),
              std::string::npos);
    EXPECT_TRUE(core.handle(1, "garbage <<< >>>").records.empty());
    EXPECT_TRUE(core.handle(1, std::string(512, '\0')).records.empty());
    EXPECT_TRUE(core.handle(1, "<client_request client_id=\"CLI").records.empty());
}

TEST(CoreSim, CameraStepsTowardTheLimitAndStopThere) {
    coresim::Core core;
    const std::string zoom_in =
        "<action property=\"cam.camera-zoom\">increment</action><p name=\"default\">400</p>";
    const std::string pan_left =
        "<action property=\"cam.camera-pan\">decrement</action><p name=\"default\">-30</p>";
    response_of(core, zoom_in);
    EXPECT_EQ(*core.setting("cam.camera-zoom"), "125");
    for (int i = 0; i < 20; ++i) response_of(core, zoom_in);
    EXPECT_EQ(*core.setting("cam.camera-zoom"), "400");
    for (int i = 0; i < 10; ++i) response_of(core, pan_left);
    EXPECT_EQ(*core.setting("cam.camera-pan"), "-30");
    EXPECT_NE(
        response_of(core,
                    "<action property=\"audio.mute\">increment</action><p name=\"default\">1</p>")
            .find("error"),
        std::string::npos);
}

TEST(CoreSim, RegisteredConnectorsHearEveryChangeOnce) {
    coresim::Core core;
    // Nobody registered: a change produces only the response.
    EXPECT_EQ(
        core.handle(
                1, request("<action property=\"audio.mute\">set</action><p name=\"default\">1</p>"))
            .records.size(),
        1u);
    core.handle(1, request("<action>client_register_notify</action>", "CLI", "100"));
    core.handle(1, request("<action>client_register_notify</action>", "CLI", "101"));
    core.handle(0, request("<action>client_register_notify</action>", "CGI", "0"));
    const coresim::Output out = core.handle(
        0, request("<action property=\"audio.mute\">set</action><p name=\"default\">0</p>", "CGI",
                   "7"));
    ASSERT_EQ(out.records.size(), 3u);
    EXPECT_TRUE(out.changed);
    EXPECT_EQ(out.records[0].first, 0);
    EXPECT_NE(out.records[0].second.find("<server_response client_id=\"CGI\" sub_client_id=\"7\""),
              std::string::npos);
    EXPECT_EQ(out.records[1].first, 0);
    EXPECT_EQ(out.records[2].first, 1);
    EXPECT_NE(out.records[2].second.find("<server_notify client_id=\"CLI\" message_seq=\""),
              std::string::npos);
    EXPECT_NE(out.records[2].second.find("<notify event=\"audio.mute\"><v>0</v></notify>"),
              std::string::npos);
    // A get changes nothing.
    const coresim::Output get =
        core.handle(1, request("<action property=\"audio.mute\">get</action>"));
    EXPECT_EQ(get.records.size(), 1u);
    EXPECT_FALSE(get.changed);
}

TEST(CoreSim, CallsMoveThroughTheirStatesAndReportThem) {
    coresim::Core core;
    core.handle(1, request("<action>client_register_notify</action>"));
    coresim::Output out =
        core.handle(1, request("<action target=\"1\">dial</action><p name=\"default\">1234</p>"));
    ASSERT_EQ(out.records.size(), 4u);
    EXPECT_NE(out.records[1].second.find("event=\"call.status\" target=\"1\"><v>dialing</v>"),
              std::string::npos);
    EXPECT_NE(out.records[2].second.find("<v>ringing</v>"), std::string::npos);
    EXPECT_NE(out.records[3].second.find("<v>connected</v>"), std::string::npos);

    auto status = [&](const char* line) {
        const std::string r =
            response_of(core, std::string("<action property=\"call.status\" target=\"") + line +
                                  "\">get</action>");
        const auto b = r.find("<v>") + 3;
        return r.substr(b, r.find("</v>") - b);
    };
    EXPECT_EQ(status("1"), "connected");
    EXPECT_NE(response_of(core, "<action target=\"1\">dial</action><p name=\"default\">5</p>")
                  .find("line busy"),
              std::string::npos);
    response_of(core, "<action target=\"1\">hold</action>");
    EXPECT_EQ(status("1"), "held");
    response_of(core, "<action target=\"2\">dial</action><p name=\"default\">777</p>");
    response_of(core,
                "<action>swap</action><p name=\"source-call\">2</p><p name=\"target-call\">1</p>");
    EXPECT_EQ(status("1"), "connected");
    EXPECT_EQ(status("2"), "held");
    response_of(core, "<action target=\"2\">resume</action>");
    EXPECT_EQ(status("2"), "connected");
    response_of(core,
                "<action>join</action><p name=\"1\">1</p><p name=\"2\">1</p><p name=\"usb\">0</p>");
    EXPECT_EQ(status("1"), "conferenced");
    EXPECT_NE(response_of(core, "<action target=\"3\">answer</action>").find("error no call"),
              std::string::npos);
    response_of(core, "<action target=\"all\">hangup</action>");
    EXPECT_EQ(status("1"), "idle");
    EXPECT_EQ(status("2"), "idle");
    EXPECT_NE(response_of(core, "<action target=\"1\">hangup</action>").find("error no call"),
              std::string::npos);
    EXPECT_NE(response_of(core, "<action target=\"9\">dial</action><p name=\"default\">1</p>")
                  .find("unknown line"),
              std::string::npos);
}

TEST(CoreSim, StateFileKeepsSettingsAcrossRestarts) {
    const std::string path =
        (std::filesystem::temp_directory_path() / ("coresim_state_" + std::to_string(getpid())))
            .string();
    {
        coresim::Core core;
        response_of(
            core, "<action property=\"voip.reg-timeout\">set</action><p name=\"default\">3600</p>");
        ASSERT_TRUE(core.save_state(path));
    }
    coresim::Core core;
    EXPECT_FALSE(core.load_state(path + ".absent"));
    ASSERT_TRUE(core.load_state(path));
    EXPECT_EQ(*core.setting("voip.reg-timeout"), "3600");
    EXPECT_EQ(*core.setting("audio.speaker-volume"), "9");
    std::filesystem::remove(path);
}

TEST(CoreSim, LongValuesStillFitOneRecord) {
    coresim::Core core;
    const std::string value(320, '&');
    const std::string r =
        response_of(core, "<action property=\"sys.systemname\">set</action><p name=\"default\">" +
                              coresim::xml_escape(value) + "</p>");
    EXPECT_LT(r.size(), coresim::RECORD_LEN);
    EXPECT_NE(r.find("</response></server_response>"), std::string::npos);
}

}  // namespace
