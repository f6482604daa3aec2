// Kernel command-line parameters and the VoIP capability read from them.
#include "test_support.hpp"

namespace {

using grammar_test::FakeCmdline;

std::string param(const char* name, std::size_t capacity = 64, int* result = nullptr) {
    std::string out(capacity, 'z');
    const int rc = get_os_cmdline_param(name, out.data(), capacity);
    if (result != nullptr) {
        *result = rc;
    }
    return capacity != 0 ? std::string(out.c_str()) : std::string();
}

TEST(Cmdline, NamedParametersAreFoundWholeWordOnly) {
    const FakeCmdline cmdline(
        "console=ttyS0,115200 root=/dev/mmcblk0p2 xvoip_capable=7 voip_capable_x=8 quiet "
        "voip_capable=1 empty= voip_capable=5\n");
    int rc = -2;
    EXPECT_EQ(param("console", 64, &rc), "ttyS0,115200");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(param("voip_capable"), "1");  // the first occurrence
    EXPECT_EQ(param("root"), "/dev/mmcblk0p2");
    // A flag without a value is present and empty.
    EXPECT_EQ(param("quiet", 64, &rc), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(param("empty", 64, &rc), "");
    EXPECT_EQ(rc, 0);

    EXPECT_EQ(param("missing", 64, &rc), "");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(param("voip", 64, &rc), "");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(param("", 64, &rc), "");
    EXPECT_EQ(rc, -1);

    // Values are cut to the buffer; a zero-sized buffer is left alone.
    EXPECT_EQ(param("console", 4), "tty");
    EXPECT_EQ(get_os_cmdline_param("console", nullptr, 16), 0);
    EXPECT_EQ(tx::grammar::voip_capable(), 1);
}

TEST(Cmdline, VoipCapableIsDecimalAndZeroWhenAbsent) {
    struct Case {
        const char* contents;
        int expected;
    };
    const Case cases[] = {
        {"voip_capable=1", 1},   {"a=b\tvoip_capable=2\r\n", 2},
        {"voip_capable=0", 0},   {"voip_capable=12345", 123},  // four-character buffer
        {"voip_capable=yes", 0}, {"voip_capable=", 0},
        {"voip_capable", 0},     {"", 0},
        {"VOIP_CAPABLE=1", 0},
    };
    for (const Case& c : cases) {
        const FakeCmdline cmdline(c.contents);
        EXPECT_EQ(tx::grammar::voip_capable(), c.expected) << c.contents;
    }
}

TEST(Cmdline, UnreadableFileMeansAbsent) {
    const FakeCmdline cmdline("voip_capable=1");
    setenv(kPlatformCmdlineEnv, (cmdline.path() + ".missing").c_str(), 1);
    int rc = 0;
    EXPECT_EQ(param("voip_capable", 8, &rc), "");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(tx::grammar::voip_capable(), 0);
}

TEST(Cmdline, ReadAfreshOnEveryCall) {
    const FakeCmdline cmdline("voip_capable=1");
    EXPECT_EQ(tx::grammar::voip_capable(), 1);
    std::ofstream(cmdline.path(), std::ios::trunc) << "voip_capable=0";
    EXPECT_EQ(tx::grammar::voip_capable(), 0);
}

}  // namespace
