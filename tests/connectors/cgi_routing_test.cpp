// The CGI connector's worker step, notification line, marker monitor and
// request forwarding, driven without threads or queues.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "cgi_connector.hpp"
#include "connectors/fake_transport.hpp"

namespace {

namespace fs = std::filesystem;

class CgiRouting : public ::testing::Test {
  protected:
    CgiConnector connector{};
    fs::path dir;
    std::string tmp;
    std::string proc;

    void SetUp() override {
        fake::reset();
        dir = "/";
        tmp = "/tmp";
        tx::copy_bounded(connector.name, "CGI");
        connector.channel = &fake::channel;
        connector.pair = &fake::pair;
    }
    void TearDown() override {
        for (const auto& e : fs::directory_iterator("/tmp"))
            if (e.path().filename().string().starts_with("cgi_rx_")) fs::remove(e.path());
    }

    void touch(const std::string& name) { std::ofstream(dir / "tmp" / name) << "x"; }
};

NotifyRecord single(const char* event, const char* target, const char* value) {
    NotifyRecord r{};
    tx::copy_bounded(r.event, event);
    tx::copy_bounded(r.target, target);
    r.value_mode = PARSED_MODE_SINGLE;
    tx::copy_bounded(r.values.single, value);
    return r;
}

TEST(CgiNotifyLine, RendersSingleValuesAndNamedLists) {
    char line[CGI_LINE_LEN] = {};
    NotifyRecord r = single("call.status", "1", "connected");
    EXPECT_EQ(render_notify_line(r, line, {65, 321}),
              std::strlen("notify call.status 1 connected"));
    EXPECT_STREQ(line, "notify call.status 1 connected");

    r = single("audio.speaker-volume", "", "9");
    render_notify_line(r, line, {65, 321});
    EXPECT_STREQ(line, "notify audio.speaker-volume 9");

    NotifyRecord list{};
    tx::copy_bounded(list.event, "call.info");
    list.value_mode = PARSED_MODE_LIST;
    tx::copy_bounded(list.values.slots[0].name, "caller");
    tx::copy_bounded(list.values.slots[0].value, "Front Desk");
    tx::copy_bounded(list.values.slots[1].name, "skipped");  // no value
    tx::copy_bounded(list.values.slots[2].name, "number");
    tx::copy_bounded(list.values.slots[2].value, "200");
    render_notify_line(list, line, {65, 321});
    EXPECT_STREQ(line, "notify call.info caller \"Front Desk\" number 200");

    // An unknown value mode adds nothing; the event's blank is stripped.
    NotifyRecord odd{};
    tx::copy_bounded(odd.event, "x");
    odd.value_mode = 7;
    render_notify_line(odd, line, {65, 321});
    EXPECT_STREQ(line, "notify x");

    // Long fields are bounded and the line never overflows its buffer.
    NotifyRecord big = single(std::string(63, 'e').c_str(), std::string(63, 't').c_str(),
                              std::string(320, 'v').c_str());
    const std::size_t n = render_notify_line(big, line, {65, 321});
    EXPECT_EQ(n, CGI_LINE_LEN - 1);
    EXPECT_EQ(std::strlen(line), CGI_LINE_LEN - 1);
}

TEST_F(CgiRouting, RegistrationAnswersAreNeverForwarded) {
    const std::string record =
        "<server_response client_id=\"CGI\" sub_client_id=\"77\" message_seq=\"1\"><response>"
        "<action>client_register_notify</action><v>ok</v></response></server_response>";
    EXPECT_EQ(cgi_worker_step(&connector, record), CgiRoute::registration);
    EXPECT_TRUE(fake::transport().sent.empty());
    EXPECT_EQ(cgi_worker_step(&connector, "<something_else/>"), CgiRoute::dropped);
    EXPECT_EQ(cgi_worker_step(&connector, ""), CgiRoute::dropped);
    EXPECT_TRUE(fake::transport().sent.empty());
}

TEST_F(CgiRouting, ResponseIsSentAndAFullQueueIsFlushedBeforeTheResend) {
    const std::string record =
        "<server_response client_id=\"CGI\" sub_client_id=\"88\" message_seq=\"2\"><response>"
        "<action property=\"audio.mute\">get</action><v>1</v></response></server_response>";
    const std::string cut =
        "<response><action property=\"audio.mute\">get</action><v>1</v></response>";
    EXPECT_EQ(cgi_worker_step(&connector, record), CgiRoute::sent);
    ASSERT_EQ(fake::transport().sent.size(), 1u);
    EXPECT_EQ(fake::transport().sent[0].text, cut);
    EXPECT_EQ(fake::transport().sent[0].type, 88);
    EXPECT_TRUE(fake::transport().flushed.empty());

    fake::transport().failing_sends = 1;
    EXPECT_EQ(cgi_worker_step(&connector, record), CgiRoute::resent);
    ASSERT_EQ(fake::transport().flushed.size(), 1u);
    EXPECT_EQ(fake::transport().flushed[0], 0);  // the whole queue
    ASSERT_EQ(fake::transport().sent.size(), 2u);
    EXPECT_EQ(fake::transport().sent[1].text, cut);
    EXPECT_EQ(fake::transport().sent[1].type, 88);
}

TEST_F(CgiRouting, NotificationBecomesOne256ByteRecordOnTheInterCommPipe) {
    const std::string pipe = tmp + "/CgiInterComm";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const std::string record =
        "<server_notify client_id=\"CGI\" message_seq=\"9\"><notify "
        "event=\"audio.mute\"><v>1</v></notify>"
        "</server_notify>";
    EXPECT_EQ(cgi_worker_step(&connector, record), CgiRoute::notified);
    char buffer[600] = {};
    const ssize_t n = read(reader, buffer, sizeof buffer);
    close(reader);
    ASSERT_EQ(n, 256);
    EXPECT_STREQ(buffer, "notify audio.mute 1");
    for (ssize_t i = static_cast<ssize_t>(std::strlen(buffer)); i < n; ++i)
        ASSERT_EQ(buffer[i], '\0');
    EXPECT_TRUE(fake::transport().sent.empty());
}

TEST_F(CgiRouting, MonitorFlushesAndDeletesOnlyDeadClientsMarkers) {
    EXPECT_EQ(cgi_marker_pid("cgi_rx_123.txt"), "123");
    EXPECT_EQ(cgi_marker_pid("cgi_rx_.txt"), "");
    EXPECT_EQ(cgi_marker_pid("cgi_rx_1234567890123456.txt"), "");  // 16 characters
    EXPECT_EQ(cgi_marker_pid("cgi_rx_123456789012345.txt"), "123456789012345");
    EXPECT_EQ(cgi_marker_pid("cgi_rx_12"), "");
    EXPECT_EQ(cgi_marker_pid("xcgi_rx_12.txt"), "");

    touch("cgi_rx_123.txt");  // no such process: flushed and deleted
    touch(std::string("cgi_rx_") + std::to_string(getpid()) + ".txt");  // alive
    touch("cgi_rx_.txt");                                               // not a marker
    touch("cgi_rx_1234567890123456.txt");
    touch("other.txt");

    EXPECT_EQ(cgi_monitor_pass(&connector), 1);
    ASSERT_EQ(fake::transport().flushed.size(), 1u);
    EXPECT_EQ(fake::transport().flushed[0], 123);
    EXPECT_FALSE(fs::exists(dir / "tmp" / "cgi_rx_123.txt"));
    EXPECT_TRUE(fs::exists(dir / "tmp" / ("cgi_rx_" + std::to_string(getpid()) + ".txt")));
    EXPECT_TRUE(fs::exists(dir / "tmp" / "cgi_rx_.txt"));
    EXPECT_TRUE(fs::exists(dir / "tmp" / "cgi_rx_1234567890123456.txt"));
}

TEST_F(CgiRouting, ClientRequestsAreWrappedWithCgiAndTheNextSequence) {
    const char* request = "<request><action property=\"audio.mute\">get</action></request>";
    EXPECT_EQ(cgi_handle_client_message(&connector, fake::message(555, request)), 0);
    EXPECT_EQ(cgi_handle_client_message(&connector, fake::message(556, request)), 0);
    ASSERT_EQ(fake::transport().written.size(), 2u);
    EXPECT_EQ(
        fake::transport().written[0],
        std::string("<client_request client_id=\"CGI\" sub_client_id=\"555\" message_seq=\"0\">") +
            request + "</client_request>");
    EXPECT_NE(fake::transport().written[1].find("sub_client_id=\"556\" message_seq=\"1\""),
              std::string::npos);
}

}  // namespace
