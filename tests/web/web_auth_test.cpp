// The pieces of the web programs' checks that a wrong byte would break
// silently: hashes, decoding, UTF-8, the accounts file and the slow-down.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "web_cgi.hpp"

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

TEST(WebAuth, AnswersAreAlwaysUtf8) {
    EXPECT_TRUE(valid_utf8("caf\xc3\xa9 \xf0\x9f\x98\x80"));
    for (const char* broken :
         {"\xe9t\xe9", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3"}) {
        EXPECT_FALSE(valid_utf8(broken)) << broken;
    }
    EXPECT_EQ(json_string("\xe9t\xc3\xa9\n\""), "\"\\ufffdt\xc3\xa9\\u000a\\\"\"");
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

}  // namespace
}  // namespace tx::web
