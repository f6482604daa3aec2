// The pieces of the web programs that a wrong byte would break silently:
// hashes, decoding, the accounts file and the slow-down; and an event
// stream's relay, whose heartbeat comes too seldom to wait for end to end.
#include "web_cgi.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "cgi_connector.hpp"

namespace tx::web {
namespace {

TEST(WebAuth, DigestsAndDecodings) {
    EXPECT_EQ(hex(sha256("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hex(sha256(std::string(64, 'a'))),
              "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb");
    EXPECT_EQ(base64_decode("YWRtaW46cGFzczp3b3Jk"), "admin:pass:word");
    EXPECT_EQ(base64_decode("YWI="), "ab");
    EXPECT_EQ(base64_decode("YW*="), std::nullopt);
    EXPECT_EQ(cookie_value("a=1; tx416_session=abc; b=2", "tx416_session"), "abc");
    EXPECT_EQ(cookie_value("xtx416_session=abc", "tx416_session"), std::nullopt);
}

TEST(WebAuth, AccountsKeepHashesOnlyAndOnlyForTheirOwner) {
    const std::string path = testing::TempDir() + "/web_auth_accounts";
    Accounts accounts;
    accounts.put({"alice", Role::viewer, hash_password("correct horse")});
    std::string error;
    ASSERT_TRUE(accounts.save(path, &error)) << error;
    Accounts loaded;
    ASSERT_TRUE(loaded.load(path, &error)) << error;
    ASSERT_NE(loaded.find("alice"), nullptr);
    EXPECT_EQ(loaded.find("alice")->role, Role::viewer);
    EXPECT_TRUE(loaded.find("alice")->hash.starts_with("$6$"));
    EXPECT_TRUE(password_matches("correct horse", loaded.find("alice")->hash));
    EXPECT_FALSE(password_matches("correct horsf", loaded.find("alice")->hash));
    chmod(path.c_str(), 0644);
    EXPECT_FALSE(loaded.load(path, &error));
    std::remove(path.c_str());
}

TEST(WebAuth, FailedLoginsDoubleTheWaitUpToAMinute) {
    EXPECT_EQ(LoginThrottle::delay_after(0), 0);
    EXPECT_EQ(LoginThrottle::delay_after(1), 1);
    EXPECT_EQ(LoginThrottle::delay_after(4), 8);
    EXPECT_EQ(LoginThrottle::delay_after(7), 60);
    EXPECT_EQ(LoginThrottle::delay_after(1000), 60);
}

TEST(WebEvents, RecordsGoOutAsEventsAndAQuietStreamBeats) {
    const std::string path = testing::TempDir() + "/web_events_stream";
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int stream = open(path.c_str(), O_RDWR | O_NONBLOCK);
    int http[2];
    ASSERT_EQ(pipe(http), 0);
    char record[CGI_LINE_LEN] = "notify sys.systemname a\nb";
    ASSERT_EQ(write(stream, record, sizeof record), static_cast<ssize_t>(sizeof record));
    std::thread relay(relay_events, stream, http[1], 20);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    unlink(path.c_str());  // the fan-out drops the stream: the relay ends
    relay.join();
    close(http[1]);
    std::string out(4096, '\0');
    out.resize(static_cast<std::size_t>(read(http[0], out.data(), out.size())));
    const std::string event = "data: notify sys.systemname a b\n\n";
    ASSERT_TRUE(out.starts_with(event)) << out;
    const std::string beats = out.substr(event.size());
    const std::string beat = ": heartbeat\n\n";
    EXPECT_GE(beats.size(), beat.size());
    for (std::size_t at = 0; at < beats.size(); at += beat.size()) {
        EXPECT_EQ(beats.substr(at, beat.size()), beat) << out;
    }
    close(stream);
    close(http[0]);
}

}  // namespace
}  // namespace tx::web
