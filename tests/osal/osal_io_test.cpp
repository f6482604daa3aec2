#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "osal.hpp"
#include "osal/log_capture.hpp"

namespace {

std::string bare(const char* source, int line) {
    return log_prefix(source, line, osal_gettid()) + "\n\n";
}

TEST(OsalQueue, OpensAFifoReadWriteAndRefusesBadArguments) {
    LogCapture log;
    const int fd = osal_queue_open("osal_test_queue");
    ASSERT_GE(fd, 0);
    struct stat info {};
    ASSERT_EQ(stat("/tmp/osal_test_queue", &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);

    EXPECT_EQ(osal_queue_write(fd, "abc", 3), 3);
    std::array<char, 8> got{};
    EXPECT_EQ(osal_queue_read(fd, got.data(), static_cast<long>(got.size())), 3);
    EXPECT_STREQ(got.data(), "abc");

    // Non-blocking: an empty pipe answers at once instead of waiting.
    ASSERT_EQ(osal_queue_set_nonblocking(fd), 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    errno = 0;
    EXPECT_EQ(osal_queue_read(fd, got.data(), 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(osal_queue_set_blocking(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(log.take(), "");

    EXPECT_EQ(osal_queue_read(fd, nullptr, 1), -1);
    EXPECT_EQ(osal_queue_read(fd, got.data(), -1), -1);
    EXPECT_EQ(osal_queue_write(fd, nullptr, 1), -1);
    EXPECT_EQ(osal_queue_write(fd, "x", -5), -1);
    EXPECT_EQ(osal_queue_open(nullptr), -1);
    EXPECT_EQ(log.take(), bare("osal_queue", 76) + bare("osal_queue", 76) + bare("osal_queue", 92) +
                              bare("osal_queue", 92) + bare("osal_queue", 42));

    // A second open finds the existing FIFO: both ends share the pipe.
    const int again = osal_queue_open("osal_test_queue");
    ASSERT_GE(again, 0);
    EXPECT_EQ(osal_queue_write(again, "z", 1), 1);
    EXPECT_EQ(osal_queue_read(fd, got.data(), 1), 1);
    EXPECT_EQ(got[0], 'z');
    EXPECT_EQ(osal_queue_close(again), 0);
    EXPECT_EQ(osal_queue_close(fd), 0);
    EXPECT_EQ(osal_queue_set_nonblocking(fd), -1);
}

TEST(OsalSelect, NegativeDescriptorsAreSkippedAndNeverReady) {
    LogCapture log;
    std::array<int, 3> ready{9, 9, 9};
    const std::array<int, 3> none{-1, -5, -1};
    EXPECT_EQ(osal_select_wait_readable(none.data(), ready.data(), 3, 0), -1);
    EXPECT_EQ(ready, (std::array<int, 3>{0, 0, 0}));
    EXPECT_EQ(osal_select_wait_readable(nullptr, ready.data(), 3, 0), -1);
    EXPECT_EQ(osal_select_wait_readable(none.data(), nullptr, 3, 0), -1);
    EXPECT_EQ(osal_select_wait_readable(none.data(), ready.data(), 0, 0), -1);
    EXPECT_EQ(log.take(), bare("osal_select", 82) + bare("osal_select", 53) +
                              bare("osal_select", 53) + bare("osal_select", 53));

    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    const std::array<int, 3> fds{-1, pipe_fds[0], -1};
    ready = {9, 9, 9};
    EXPECT_EQ(osal_select_wait_readable(fds.data(), ready.data(), 3, 0), 0);  // timeout
    EXPECT_EQ(ready, (std::array<int, 3>{0, 0, 0}));
    ASSERT_EQ(write(pipe_fds[1], "x", 1), 1);
    EXPECT_EQ(osal_select_wait_readable(fds.data(), ready.data(), 3, -1), 1);  // no limit
    EXPECT_EQ(ready, (std::array<int, 3>{0, 1, 0}));
    EXPECT_EQ(osal_select_wait_readable(fds.data(), ready.data(), 3, 1500), 1);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(OsalFile, OptionBitsSelectTheOpenFlags) {
    LogCapture log;
    const char* path = "/tmp/osal_file_test";
    (void)unlink(path);
    EXPECT_EQ(osal_file_open(path, 0), -1);  // missing, no create bit

    // Create only: the file appears but is opened read-only.
    int fd = osal_file_open(path, OSAL_FILE_CREATE);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(osal_file_write(fd, "x", 1), -1);
    EXPECT_EQ(osal_file_close(fd), 0);
    struct stat info {};
    ASSERT_EQ(stat(path, &info), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);

    fd = osal_file_open(path, OSAL_FILE_RDWR_TRUNC | OSAL_FILE_SYNC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_SYNC, O_SYNC);
    EXPECT_EQ(osal_file_write(fd, "hello", 5), 5);
    EXPECT_EQ(osal_file_close(fd), 0);

    // Read-write alone truncates what was there.
    fd = osal_file_open(path, OSAL_FILE_RDWR_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fstat(fd, &info), 0);
    EXPECT_EQ(info.st_size, 0);
    EXPECT_EQ(osal_file_write(fd, "0123456789", 10), 10);
    EXPECT_EQ(osal_file_close(fd), 0);

    // Non-blocking replaces the status flags with exactly O_NONBLOCK.
    fd = osal_file_open(path, OSAL_FILE_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    std::array<char, 16> got{};
    EXPECT_EQ(osal_file_read(fd, got.data(), got.size()), 10);
    EXPECT_EQ(osal_file_close(fd), 0);

    // A shared mapping writes through to the file.
    fd = osal_file_open(path, OSAL_FILE_CREATE | 1u << 1);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    void* map = osal_file_map(fd, 0, 4096);
    ASSERT_NE(map, nullptr);
    std::memcpy(map, "mapped", 6);
    EXPECT_EQ(osal_file_unmap(map, 4096), 0);
    ASSERT_EQ(pread(fd, got.data(), 6, 0), 6);
    EXPECT_EQ(std::string(got.data(), 6), "mapped");
    EXPECT_EQ(osal_file_map(-1, 0, 4096), nullptr);
    EXPECT_EQ(osal_file_close(fd), 0);

    (void)log.take();
    EXPECT_EQ(osal_file_open(nullptr, 0), -1);
    EXPECT_EQ(osal_file_read(0, nullptr, 1), -1);
    EXPECT_EQ(osal_file_write(1, nullptr, 1), -1);
    EXPECT_EQ(osal_file_unmap(nullptr, 1), -1);
    EXPECT_EQ(log.take(), bare("osal_file", 45) + bare("osal_file", 96) + bare("osal_file", 111) +
                              bare("osal_file", 143));
}

TEST(OsalFile, RandomBytesFillTheBuffer) {
    std::array<unsigned char, 64> a{};
    std::array<unsigned char, 64> b{};
    ASSERT_EQ(osal_random_bytes(a.data(), a.size()), 0);
    ASSERT_EQ(osal_random_bytes(b.data(), b.size()), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(osal_random_bytes(nullptr, 4), -1);
}

TEST(OsalNet, AddressesConvertBothWays) {
    LogCapture log;
    OsalNetAddress address{};
    address.family = OSAL_NET_IPV6;
    ASSERT_EQ(osal_net_address_from_text("::1", &address), 0);
    EXPECT_EQ(address.length, 16u);
    EXPECT_EQ(address.address[15], 1);
    std::array<char, 64> text{};
    ASSERT_EQ(osal_net_address_to_text(text.data(), &address, text.size()), 0);
    EXPECT_STREQ(text.data(), "::1");

    address.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_address_from_text("192.168.1.20", &address), 0);
    EXPECT_EQ(address.length, 4u);
    EXPECT_EQ(address.address[0], 192);
    EXPECT_EQ(address.address[3], 20);
    ASSERT_EQ(osal_net_address_to_text(text.data(), &address, text.size()), 0);
    EXPECT_STREQ(text.data(), "192.168.1.20");
    EXPECT_EQ(osal_net_address_from_text("not an address", &address), -1);
    EXPECT_EQ(log.take(), "");

    address.family = 0;
    EXPECT_EQ(osal_net_address_from_text("::1", &address), -1);
    EXPECT_EQ(address.length, 0u);
    EXPECT_EQ(osal_net_address_to_text(text.data(), &address, text.size()), -1);
    address.family = OSAL_NET_IPV4;
    address.length = 16;  // length and family disagree
    EXPECT_EQ(osal_net_address_to_text(text.data(), &address, text.size()), -1);
    address.family = OSAL_NET_IPV6;
    address.length = 4;
    EXPECT_EQ(osal_net_address_to_text(text.data(), &address, text.size()), -1);
    EXPECT_EQ(osal_net_socket(3), -1);
    EXPECT_EQ(log.take(), bare("osal_net", 102) + bare("osal_net", 151) + bare("osal_net", 135) +
                              bare("osal_net", 143) + bare("osal_net", 188));

    address = OsalNetAddress{};
    address.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_resolve("localhost", &address), 0);
    EXPECT_EQ(address.length, 4u);
    EXPECT_EQ(address.address[0], 127);
    address.family = 7;
    EXPECT_EQ(osal_net_resolve("localhost", &address), -1);
}

TEST(OsalNet, UdpLoopbackRoundTrip) {
    const int receiver = osal_net_socket(OSAL_NET_IPV4);
    const int sender = osal_net_socket(OSAL_NET_IPV4);
    ASSERT_GE(receiver, 0);
    ASSERT_GE(sender, 0);
    EXPECT_EQ(osal_net_set_option(receiver, OSAL_NET_OPT_REUSEADDR, 1), 0);
    EXPECT_EQ(osal_net_set_option(sender, OSAL_NET_OPT_TOS, 0x10), 0);
    EXPECT_EQ(osal_net_set_option(sender, 9, 1), -1);

    OsalNetAddress local{};
    local.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_address_from_text("127.0.0.1", &local), 0);
    local.port = 0;
    ASSERT_EQ(osal_net_bind(receiver, &local), 0);
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr*>(&bound), &len), 0);
    OsalNetAddress to = local;
    to.port = ntohs(bound.sin_port);

    EXPECT_EQ(osal_net_send_to(sender, &to, "ping", 4), 4);
    OsalNetAddress from{};
    from.family = OSAL_NET_IPV4;
    std::array<char, 16> got{};
    EXPECT_EQ(osal_net_receive_from(receiver, &from, got.data(), got.size()), 4);
    EXPECT_EQ(std::string(got.data(), 4), "ping");
    EXPECT_EQ(from.length, 4u);
    EXPECT_EQ(from.address[0], 127);
    EXPECT_NE(from.port, 0u);

    LogCapture log;
    OsalNetAddress bad = to;
    bad.length = 16;
    EXPECT_EQ(osal_net_send_to(sender, &bad, "x", 1), -1);
    bad.family = 0;
    EXPECT_EQ(osal_net_send_to(sender, &bad, "x", 1), -1);
    EXPECT_EQ(osal_net_receive_from(receiver, &bad, got.data(), got.size()), -1);
    EXPECT_EQ(bad.length, 0u);
    EXPECT_EQ(osal_net_bind(receiver, &bad), -1);
    bad.family = 5;  // an unknown family is not an error for bind
    EXPECT_EQ(osal_net_bind(receiver, &bad), 0);
    EXPECT_EQ(log.take(), bare("osal_net", 410) + bare("osal_net", 435) + bare("osal_net", 498) +
                              bare("osal_net", 386));

    EXPECT_EQ(osal_net_close(receiver, &local), 0);
    EXPECT_EQ(osal_net_close(sender, nullptr), 0);
}

TEST(OsalNet, MulticastBindJoinsTheGroup) {
    const int fd = osal_net_socket(OSAL_NET_IPV4);
    ASSERT_GE(fd, 0);
    OsalNetAddress group{};
    group.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_address_from_text("239.1.2.3", &group), 0);
    group.port = 0;
    LogCapture log;
    const int rc = osal_net_bind(fd, &group);
    if (rc != 0) {
        // Without a multicast-capable interface the join is refused; that
        // refusal must be reported as the join failure, not the bind.
        EXPECT_EQ(log.take(), bare("osal_net", 345));
        osal_net_close(fd, nullptr);
        GTEST_SKIP() << "multicast join refused here";
    }
    // Joined: leaving the group succeeds exactly once.
    ip_mreq membership{};
    std::memcpy(&membership.imr_multiaddr, group.address, 4);
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(setsockopt(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership), 0);
    EXPECT_NE(setsockopt(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership), 0);
    // Re-join, then close leaves the group without complaint.
    ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
    (void)log.take();
    EXPECT_EQ(osal_net_close(fd, &group), 0);
    EXPECT_EQ(log.take(), "");

    // A unicast bind never touches membership.
    const int plain = osal_net_socket(OSAL_NET_IPV4);
    OsalNetAddress unicast{};
    unicast.family = OSAL_NET_IPV4;
    ASSERT_EQ(osal_net_address_from_text("127.0.0.1", &unicast), 0);
    ASSERT_EQ(osal_net_bind(plain, &unicast), 0);
    EXPECT_NE(setsockopt(plain, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership), 0);
    EXPECT_EQ(osal_net_close(plain, &unicast), 0);
}

}  // namespace
