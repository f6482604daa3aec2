// The CLI connector's session and routing steps, driven without threads or
// queues.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>
#include <string>

#include "cli_connector.hpp"
#include "connectors/fake_transport.hpp"

namespace {

constexpr const char* GET_VOLUME =
    "<request><action property=\"audio.speaker-volume\">get</action></request>";
constexpr const char* KEEP_ALIVE = "<request><action>cli_keep_alive</action></request>";

class CliRouting : public ::testing::Test {
  protected:
    CliConnector connector{};

    void SetUp() override {
        fake::reset();
        tx::copy_bounded(connector.name, "CLI");
        connector.channel = &fake::channel;
        connector.pair = &fake::pair;
        pthread_mutex_init(&connector.session_mutex, nullptr);
    }
    void TearDown() override { pthread_mutex_destroy(&connector.session_mutex); }

    int session_pid(int i) const { return connector.sessions[i].pid.load(); }
};

TEST_F(CliRouting, FifthClientIsToldToTerminateAndNotForwarded) {
    for (long pid = 101; pid <= 104; ++pid) {
        EXPECT_EQ(cli_handle_client_message(&connector, fake::message(pid, GET_VOLUME)), 1);
    }
    ASSERT_EQ(fake::transport().written.size(), 4u);
    EXPECT_EQ(
        fake::transport().written[0],
        std::string("<client_request client_id=\"CLI\" sub_client_id=\"101\" message_seq=\"0\">") +
            GET_VOLUME + "</client_request>");
    EXPECT_NE(fake::transport().written[3].find("sub_client_id=\"104\" message_seq=\"3\""),
              std::string::npos);
    EXPECT_TRUE(fake::transport().sent.empty());

    EXPECT_EQ(cli_handle_client_message(&connector, fake::message(105, GET_VOLUME)), 0);
    EXPECT_EQ(fake::transport().written.size(), 4u);
    ASSERT_EQ(fake::transport().sent.size(), 1u);
    EXPECT_EQ(fake::transport().sent[0].text,
              "<response><action>terminate_client</action></response>");
    EXPECT_EQ(fake::transport().sent[0].type, 105);

    // A known client still gets through while the table is full.
    EXPECT_EQ(cli_handle_client_message(&connector, fake::message(102, GET_VOLUME)), 1);
    EXPECT_EQ(fake::transport().written.size(), 5u);
}

TEST_F(CliRouting, KeepAliveTakesOrRefreshesASessionButIsNeverForwarded) {
    EXPECT_EQ(cli_handle_client_message(&connector, fake::message(200, KEEP_ALIVE)), 1);
    EXPECT_EQ(session_pid(0), 200);
    EXPECT_TRUE(fake::transport().written.empty());

    connector.sessions[0].seen_sec = 5;  // long ago
    EXPECT_EQ(cli_handle_client_message(&connector, fake::message(200, KEEP_ALIVE)), 1);
    EXPECT_GT(connector.sessions[0].seen_sec.load(), 5);
    EXPECT_EQ(session_pid(1), 0);
    EXPECT_TRUE(fake::transport().written.empty());
}

TEST_F(CliRouting, ExpiryDropsOneStaleSessionPerPassAndFlushesItsReplies) {
    const timeval now{1000, 500000};
    auto set = [&](int i, int pid, long sec, long usec) {
        connector.sessions[i].pid = pid;
        connector.sessions[i].seen_sec = sec;
        connector.sessions[i].seen_usec = usec;
    };
    set(0, 11, 970, 500000);  // exactly 30 s: kept
    set(1, 12, 969, 600000);  // 30.9 s: the seconds differ by 31 but the microseconds lag: kept
    set(2, 13, 969, 400000);  // 31.1 s: expires
    set(3, 14, 900, 0);       // expires, but only at the next pass

    EXPECT_EQ(cli_expire_one(&connector, now), 13);
    EXPECT_EQ(session_pid(2), 0);
    EXPECT_EQ(connector.sessions[2].seen_sec.load(), 0);
    ASSERT_EQ(fake::transport().flushed.size(), 1u);
    EXPECT_EQ(fake::transport().flushed[0], 13);
    EXPECT_EQ(session_pid(3), 14);

    EXPECT_EQ(cli_expire_one(&connector, now), 14);
    EXPECT_EQ(cli_expire_one(&connector, now), 0);
    EXPECT_EQ(fake::transport().flushed.size(), 2u);
    EXPECT_EQ(session_pid(0), 11);
    EXPECT_EQ(session_pid(1), 12);
}

TEST_F(CliRouting, NotificationsGoToEverySessionUntilReset) {
    const std::string notify =
        "<server_notify client_id=\"CLI\" message_seq=\"7\"><notify event=\"call.status\" "
        "target=\"1\">"
        "<v>connected</v></notify></server_notify>";
    connector.sessions[0].pid = 301;
    connector.sessions[2].pid = 303;
    connector.sessions[3].pid = -1;  // free
    EXPECT_EQ(cli_route_core_record(&connector, notify), 2);
    ASSERT_EQ(fake::transport().sent.size(), 2u);
    EXPECT_EQ(fake::transport().sent[0].type, 301);
    EXPECT_EQ(fake::transport().sent[1].type, 303);
    EXPECT_EQ(fake::transport().sent[0].text,
              "<notify event=\"call.status\" target=\"1\"><v>connected</v></notify>");

    cli_reset_sessions(&connector);
    for (int i = 0; i < CLI_SESSION_COUNT; ++i) EXPECT_EQ(session_pid(i), 0);
    EXPECT_EQ(cli_route_core_record(&connector, notify), 0);
    EXPECT_EQ(fake::transport().sent.size(), 2u);
}

TEST_F(CliRouting, ResponsesGoOnlyToTheClientTheyName) {
    connector.sessions[0].pid = 401;
    connector.sessions[1].pid = 402;
    std::string record(512, '\0');
    const std::string text =
        "<server_response client_id=\"CLI\" sub_client_id=\"402\" message_seq=\"3\"><response>"
        "<action property=\"audio.mute\">get</action><v>0</v></response></server_response>";
    record.replace(0, text.size(), text);
    EXPECT_EQ(cli_route_core_record(&connector, record), 1);
    ASSERT_EQ(fake::transport().sent.size(), 1u);
    EXPECT_EQ(fake::transport().sent[0].type, 402);
    EXPECT_EQ(fake::transport().sent[0].text,
              "<response><action property=\"audio.mute\">get</action><v>0</v></response>");

    // No destination, or an empty record: nothing is sent.
    EXPECT_EQ(cli_route_core_record(&connector, "<server_response><response/></server_response>"),
              0);
    EXPECT_EQ(cli_route_core_record(&connector, std::string(512, '\0')), 0);
    EXPECT_EQ(fake::transport().sent.size(), 1u);
}

}  // namespace
