// The pieces of the web programs that a wrong byte would break silently:
// hashes, decoding, the accounts file and the slow-down, the checks of a
// request's host and origin; an event stream's relay, whose heartbeat comes
// too seldom to wait for end to end; and tx416-webuser's command lines
// (WebUser: run inside tools/sandbox).
#include "web_cgi.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include "cgi_connector.hpp"
#include "process.hpp"

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
    EXPECT_EQ(cookie_value("tx416_sessionx=a;  tx416_session=b;tx416_session=c", "tx416_session"),
              "b");
    EXPECT_EQ(cookie_value("tx416_session; a=tx416_session=b", "tx416_session"), std::nullopt);
    EXPECT_EQ(form_field("%63md=a+b%2B&cmd=c", "cmd"), "a b+");
    EXPECT_EQ(form_field("x=%zz&cmd", "cmd"), "");
    EXPECT_EQ(form_field("cmd=get%4", "cmd"), std::nullopt);
    EXPECT_EQ(form_field("cmd=get%4g", "cmd"), std::nullopt);
}

// The device goes by the names configured and by the address the request
// came in on; another site's page may lead a browser to it, but not act.
TEST(WebAuth, HostAndOriginChecks) {
    setenv("TX_WEB_HOSTS", "tx416.example  Device", 1);
    for (tx::test::Row c : tx::test::read_table(TX_CASES_DIR "/check_cases.tsv")) {
        c.resize(8);
        HttpRequest request;
        request.method = c[1];
        request.host = c[2];
        request.origin = c[3] == "-" ? "" : c[3];
        request.sec_fetch_site = c[4] == "-" ? "" : c[4];
        request.server_addr = c[5] == "-" ? "" : c[5];
        std::optional<Answer> refused = check_host(request);
        if (!refused) refused = check_origin(request);
        EXPECT_EQ(refused ? std::to_string(refused->status) + " " + refused->body : "-",
                  c[6] == "-" ? "-" : c[6] + " {\"error\": \"" + c[7] + "\"}")
            << c[0];
    }
    unsetenv("TX_WEB_HOSTS");
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

// The accounts in a file as "name:role ..."; every hash a SHA-512 crypt.
std::string accounts_in(const std::string& path) {
    Accounts accounts;
    std::string error;
    if (!accounts.load(path, &error)) return "-";
    std::string out;
    for (const Account& a : accounts.all()) {
        out += (out.empty() ? "" : " ") + a.name + ":" + std::string(role_name(a.role));
        if (!a.hash.starts_with("$6$")) out += "(" + a.hash + ")";
    }
    return out;
}

TEST(WebUser, CommandLinesAndWhatTheFileHolds) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    const std::string file = "/tmp/web/accounts";
    mkdir("/tmp/web", 0700);
    const std::string usage =
        "usage: tx416-webuser [--accounts FILE] init | add NAME ROLE [--password-stdin] |\n"
        "       passwd NAME [--password-stdin] | role NAME ROLE | remove NAME | list\n"
        "ROLE: admin, operator or viewer\n";
    for (const tx::test::Row& raw : tx::test::read_table(TX_CASES_DIR "/webuser_cases.tsv", true)) {
        tx::test::Row c(7);
        std::transform(raw.begin(), raw.end(), c.begin(), tx::test::unescape);
        SCOPED_TRACE(c[0]);
        if (c[3] == "-") {
            unlink(file.c_str());
        } else if (c[3] != "=") {
            const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ASSERT_TRUE(write_all(fd, c[3]));
            close(fd);
        }
        const std::string before = tx::test::read_file(file);
        std::vector<std::string> argv = tx::test::target(tx::test::bin("tx416-webuser"));
        for (const std::string& word : tx::test::split(raw[1], ' ')) {
            argv.push_back(tx::test::unescape(word));
        }
        tx::test::Process run(argv, "/tmp/webuser", {"TX_WEB_ACCOUNTS=" + file}, c[2] != "-");
        run.write(c[2]);
        run.close_input();
        EXPECT_EQ(run.wait(), std::stoi(c[4]));
        const std::string prints = run.output() + tx::test::read_file("/tmp/webuser.err");
        std::string expected = std::regex_replace(c[5], std::regex("FILE"), file);
        expected = std::regex_replace(expected, std::regex("\\{usage\\}"), usage);
        // The password it takes: from standard input, or the one it prints.
        std::string password = c[2].substr(0, c[2].find_first_of("\r\n"));
        if (const std::size_t at = expected.find("PASSWORD"); at != std::string::npos) {
            password = prints.size() < at ? "" : prints.substr(at, 16);
            EXPECT_TRUE(std::regex_match(password, std::regex("[0-9A-Za-z]{16}"))) << password;
            expected.replace(at, 8, password);
        }
        const bool begins = expected.ends_with("...");
        EXPECT_EQ(begins ? prints.substr(0, expected.size() - 3) + "..." : prints, expected);
        if (c[6] != "=") {
            EXPECT_EQ(accounts_in(file), c[6]);
        }
        if (c[4] != "0") {
            EXPECT_EQ(tx::test::read_file(file), before);
            continue;
        }
        struct stat st {};
        EXPECT_TRUE(stat(file.c_str(), &st) != 0 || (st.st_mode & 0777) == 0600);
        // The password it took or made is the one its account now holds.
        const std::vector<std::string> words = tx::test::split(raw[1], ' ');
        const std::string command = words.empty() ? "" : words[0];
        if (command != "init" && command != "add" && command != "passwd") continue;
        Accounts accounts;
        std::string error;
        ASSERT_TRUE(accounts.load(file, &error)) << error;
        const Account* account = accounts.find(command == "init" ? "admin" : words[1]);
        ASSERT_NE(account, nullptr);
        if (command == "init" && !before.empty()) {
            EXPECT_EQ(tx::test::read_file(file), before);
        } else {
            EXPECT_TRUE(password_matches(password, account->hash));
        }
    }
}

}  // namespace
}  // namespace tx::web
