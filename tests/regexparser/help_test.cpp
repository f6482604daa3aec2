// Help listings: topics, the usage lines, unlisted categories and the root rule.
#include <string>

#include "matcher_detail.hpp"
#include "test_support.hpp"

namespace {

void no_op(const char*, std::size_t, RequestRecord*, const command_entry*) {}

// clang-format off
const command_entry kTable[] = {
    {"^a$", no_op, "\"get mute\" - audio one.", 2},
    {"^b$", no_op, "\"hidden one\" - hidden.", 0},
    {"^c$", no_op, "\"regnotify\" - sys one.", 1},
    {"^d$", no_op, "\"get contrast\" - display.", 10},
    {"^e$", no_op, "\"get aux-in\" - unlisted root only.", 11},
    {"^f$", no_op, nullptr, 2},
    {"^g$", no_op, "\"dial\" - call.", 3},
    {"^h$", no_op, "\"get dhcp\" - net.", 4},
    {"^i$", no_op, "\"get bt-mac\" - bt.", 5},
    {"^j$", no_op, "\"get bm64-fw-file\" - bm64.", 6},
    {"^k$", no_op, "\"cam-zoom-in\" - cam.", 8},
    {"^l$", no_op, "\"get registrar\" - voip.", 9},
    {"^m$", no_op, "\"set mute <0-1>\" - audio two.", 2},
    {"^n$", no_op, "\"hidden two\" - hidden.", 0},
    {nullptr, nullptr, nullptr, 0},
};
// clang-format on

const std::string kUsage =
    "help usage:\n"
    "\t help         prints all commands\n"
    "\t help all     prints all commands\n"
    "\t help audio   prints audio commands\n"
    "\t help bt      prints bt commands\n"
    "\t help ble     prints ble commands\n"
    "\t help call    prints call commands\n"
    "\t help cam     prints camera commands\n"
    "\t help net     prints network commands\n"
    "\t help sys     prints system commands\n"
    "\t help voip    prints voip commands\n";

std::string help(const char* topic, uid_t uid = 0, const command_entry* table = kTable) {
    testing::internal::CaptureStdout();
    tx::grammar::print_help(table, topic, uid);
    return testing::internal::GetCapturedStdout();
}

TEST(Help, TopicsListTheirCategoriesInTableOrder) {
    const std::string all =
        "\"get mute\" - audio one.\n"
        "\"regnotify\" - sys one.\n"
        "\"dial\" - call.\n"
        "\"get dhcp\" - net.\n"
        "\"get bt-mac\" - bt.\n"
        "\"get bm64-fw-file\" - bm64.\n"
        "\"cam-zoom-in\" - cam.\n"
        "\"get registrar\" - voip.\n"
        "\"set mute <0-1>\" - audio two.\n"
        "\n";
    EXPECT_EQ(help(""), all);
    EXPECT_EQ(help(" all"), all);
    EXPECT_EQ(help("   all   trailing words"), all);
    EXPECT_EQ(help(" "), all);
    EXPECT_EQ(help(nullptr), all);

    EXPECT_EQ(help(" audio"), "\"get mute\" - audio one.\n\"set mute <0-1>\" - audio two.\n\n");
    EXPECT_EQ(help(" sys"), "\"regnotify\" - sys one.\n\n");
    EXPECT_EQ(help(" call"), "\"dial\" - call.\n\n");
    EXPECT_EQ(help(" net"), "\"get dhcp\" - net.\n\n");
    EXPECT_EQ(help(" bt"), "\"get bt-mac\" - bt.\n\n");
    EXPECT_EQ(help(" bm64"), "\"get bm64-fw-file\" - bm64.\n\n");
    EXPECT_EQ(help(" cam"), "\"cam-zoom-in\" - cam.\n\n");
    EXPECT_EQ(help(" voip"), "\"get registrar\" - voip.\n\n");
    EXPECT_EQ(help(" hidden"), "\"hidden one\" - hidden.\n\"hidden two\" - hidden.\n\n");
    // The topic exists but no row uses it.
    EXPECT_EQ(help(" ble"), "\n");
}

TEST(Help, UnknownTopicsPrintTheUsageOnly) {
    EXPECT_EQ(help(" foo"), kUsage);
    EXPECT_EQ(help(" Audio"), kUsage);
    EXPECT_EQ(help(" all,"), kUsage);
    // Only blanks separate the topic.
    EXPECT_EQ(help("\taudio"), kUsage);

    testing::internal::CaptureStdout();
    tx::grammar::print_help_usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kUsage);
}

TEST(Help, IsForRootOnly) {
    for (const char* topic : {"", " all", " hidden", " foo"}) {
        EXPECT_EQ(help(topic, 1001), "command syntax error\n") << topic;
        EXPECT_EQ(help(topic, 1), "command syntax error\n") << topic;
    }
}

TEST(Help, EmptyTablePrintsAnEmptyLine) {
    const command_entry empty[] = {{nullptr, nullptr, nullptr, 0}};
    EXPECT_EQ(help("", 0, empty), "\n");
    EXPECT_EQ(help(" hidden", 0, empty), "\n");
    EXPECT_EQ(help(" foo", 0, empty), kUsage);
}

}  // namespace
