// The CLI connector's session table and the CGI connector's registration.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <thread>

#include "connector_common.hpp"
#include "support/fake_transport.hpp"

namespace {

constexpr const char* kGet = "<request><action property=\"audio.mute\">get</action></request>";
constexpr const char* kRegister = "<request><action>client_register_notify</action></request>";

std::string envelope(const char* client, long sub_client, int sequence, const char* text) {
    return std::string("<client_request client_id=\"") + client + "\" sub_client_id=\"" +
           std::to_string(sub_client) + "\" message_seq=\"" + std::to_string(sequence) + "\">" +
           text + "</client_request>";
}

class Sessions : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(Sessions, FourClientsHoldTheTableAndAFifthIsTurnedAway) {
    // A keep-alive takes a session as well, but stays in the connector.
    const char* keep_alive = "<request><action>cli_keep_alive</action></request>";
    EXPECT_EQ(cli_handle_client_message(&fake::cli, fake::message(101, keep_alive)), 1);
    for (long pid : {102, 103, 104})
        EXPECT_EQ(cli_handle_client_message(&fake::cli, fake::message(pid, kGet)), 1);
    EXPECT_EQ(cli_handle_client_message(&fake::cli, fake::message(105, kGet)), 0);
    EXPECT_EQ(cli_handle_client_message(&fake::cli, fake::message(101, kGet)), 1);

    EXPECT_EQ(
        fake::transport.written,
        (std::vector<std::string>{envelope("CLI", 102, 0, kGet), envelope("CLI", 103, 1, kGet),
                                  envelope("CLI", 104, 2, kGet), envelope("CLI", 101, 3, kGet)}));
    EXPECT_EQ(fake::transport.sent,
              (decltype(fake::transport.sent){
                  {105, "<response><action>terminate_client</action></response>"}}));
}

TEST_F(Sessions, OneSessionExpiresPerPassOnceItIsOlderThanThirtySeconds) {
    // Last seen 30.0 s, 30.9 s (31 by the seconds alone), 31.1 s and 100.5 s ago.
    const long seen[][3] = {{11, 970, 500000}, {12, 969, 600000}, {13, 969, 400000}, {14, 900, 0}};
    for (std::size_t i = 0; i < std::size(seen); ++i) {
        fake::cli.sessions[i].pid = static_cast<int>(seen[i][0]);
        fake::cli.sessions[i].seen_sec = seen[i][1];
        fake::cli.sessions[i].seen_usec = seen[i][2];
    }
    const timeval now{1000, 500000};
    EXPECT_EQ(cli_expire_one(&fake::cli, now), 13);
    EXPECT_EQ(cli_expire_one(&fake::cli, now), 14);
    EXPECT_EQ(cli_expire_one(&fake::cli, now), 0);
    // Their undelivered replies go with them.
    EXPECT_EQ(fake::transport.flushed, (std::vector<long>{13, 14}));
}

// Types beyond the process ids come only from a 64-bit build: cut to an int,
// (n << 32) + 7 would be taken for client 7.
TEST_F(Sessions, TypesBeyondProcessIdsTakeNoSessionAndReachNeitherCoreNorClient) {
    if (sizeof(long) == sizeof(int)) GTEST_SKIP() << "every type is a process id here";
    for (long long high = 1; high <= CLI_SESSION_COUNT + 1; ++high)
        fake::transport.incoming.push_back(
            fake::message(static_cast<long>((high << 32) + 7), kGet));
    fake::transport.incoming.push_back(fake::message(9, kGet));
    receive_client_messages(&fake::cli);
    EXPECT_EQ(fake::transport.written, std::vector<std::string>{envelope("CLI", 9, 0, kGet)});
    EXPECT_TRUE(fake::transport.sent.empty());
    EXPECT_EQ(fake::cli.sessions[0].pid.load(), 9);
    for (int i = 1; i < CLI_SESSION_COUNT; ++i) EXPECT_EQ(fake::cli.sessions[i].pid.load(), 0);
}

// The registration goes to the core again and again for as long as the core's
// FIFO can be opened, and ends when it cannot.
TEST(CgiRegistration, RepeatsWhileTheCoreListensAndEndsWhenItIsGone) {
    std::signal(SIGPIPE, SIG_IGN);  // a write may race the core's going away
    FdPair pair = fd_pairs[0];      // under the test's private /tmp
    ASSERT_EQ(pair.create(&pair), 0);
    const int core = open(pair.out_path, O_RDONLY | O_NONBLOCK);
    const int writer = open(pair.out_path, O_WRONLY);  // no end of file between records
    CgiConnector connector{.name = "CGI", .pair = &pair};

    int result = 0;
    std::thread registration([&] { result = cgi_register_for_notifications(&connector); });
    // Each one a fixed 512-byte record, padded with NULs.
    for (int sequence = 0; sequence < 3; ++sequence) {
        pollfd ready{core, POLLIN, 0};
        std::string record(CORE_RECORD_LEN, '\0');
        std::string expected = envelope("CGI", 0, sequence, kRegister);
        expected.resize(CORE_RECORD_LEN, '\0');
        const bool got = poll(&ready, 1, 5000) == 1 && read(core, record.data(), 512) == 512;
        EXPECT_TRUE(got && record == expected) << sequence;  // the thread is joined below
        if (!got) break;
    }
    close(core);
    close(writer);
    registration.join();
    EXPECT_EQ(result, 1);
}

}  // namespace
