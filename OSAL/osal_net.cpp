#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "osal.hpp"

namespace {

constexpr const char* kSource = "osal_net";

// What tells the two families apart, with the lines that each of their
// failures is reported under.
struct Family {
    int af;
    std::uint32_t length;
    int level;
    int join;
    int leave;
    int to_text_line;
    int bind_length_line;
    int bind_line;
    int join_line;
    int close_length_line;
    int leave_line;
    int receive_line;
    int send_length_line;
};

constexpr Family kIpv4{
    AF_INET, 4,   IPPROTO_IP, IP_ADD_MEMBERSHIP, IP_DROP_MEMBERSHIP, 135, 320, 331, 345, 217,
    234,     464, 410};
constexpr Family kIpv6{
    AF_INET6, 16,  IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, IPV6_DROP_MEMBERSHIP, 143, 354, 365, 378, 242,
    258,      483, 423};

// Null for an invalid family.
const Family* family_of(const OsalNetAddress& address) {
    if (address.family == OSAL_NET_IPV4) return &kIpv4;
    if (address.family == OSAL_NET_IPV6) return &kIpv6;
    return nullptr;
}

bool is_multicast(const OsalNetAddress& address) {
    if (address.family == OSAL_NET_IPV4)
        return address.address[0] >= 224 && address.address[0] <= 239;
    return address.address[0] == 255;
}

// The socket address of the record (port in network order); returns its size.
socklen_t socket_address(const OsalNetAddress& address, sockaddr_storage& out) {
    out = {};
    const auto port = htons(static_cast<std::uint16_t>(address.port));
    if (address.family == OSAL_NET_IPV4) {
        auto& in = reinterpret_cast<sockaddr_in&>(out);
        in.sin_family = AF_INET;
        in.sin_port = port;
        std::memcpy(&in.sin_addr, address.address, kIpv4.length);
        return sizeof in;
    }
    // Flow information and scope stay 0.
    auto& in6 = reinterpret_cast<sockaddr_in6&>(out);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = port;
    std::memcpy(&in6.sin6_addr, address.address, kIpv6.length);
    return sizeof in6;
}

// Joins or leaves the record's group on any interface (IPv6: index 0).
int change_membership(int socket, const OsalNetAddress& address, const Family& family, bool join) {
    const int option = join ? family.join : family.leave;
    if (address.family == OSAL_NET_IPV4) {
        ip_mreq group{};
        std::memcpy(&group.imr_multiaddr, address.address, kIpv4.length);
        group.imr_interface.s_addr = htonl(INADDR_ANY);
        return setsockopt(socket, family.level, option, &group, sizeof group);
    }
    ipv6_mreq group{};
    std::memcpy(&group.ipv6mr_multiaddr, address.address, kIpv6.length);
    group.ipv6mr_interface = 0;
    return setsockopt(socket, family.level, option, &group, sizeof group);
}

void store_sender(const sockaddr_storage& from, const Family& family, OsalNetAddress* address) {
    address->length = family.length;
    if (family.af == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(from);
        address->port = ntohs(in.sin_port);
        std::memcpy(address->address, &in.sin_addr, family.length);
    } else {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(from);
        address->port = ntohs(in6.sin6_port);
        std::memcpy(address->address, &in6.sin6_addr, family.length);
    }
}

}  // namespace

int osal_net_socket(std::uint32_t family) {
    if (family == OSAL_NET_IPV4) return socket(AF_INET, SOCK_DGRAM, 0);
    if (family == OSAL_NET_IPV6) return socket(AF_INET6, SOCK_DGRAM, 0);
    osal_report(kSource, 188, "\n");
    return -1;
}

int osal_net_address_from_text(const char* text, OsalNetAddress* address) {
    if (address == nullptr) return -1;
    address->length = 0;
    const Family* family = family_of(*address);
    if (family == nullptr) {
        osal_report(kSource, 102, "\n");
        return -1;
    }
    address->length = family->length;
    if (text == nullptr) return -1;
    return inet_pton(family->af, text, address->address) == 1 ? 0 : -1;
}

int osal_net_address_to_text(char* buffer, const OsalNetAddress* address, std::size_t buffer_len) {
    if (buffer == nullptr || address == nullptr) return -1;
    const Family* family = family_of(*address);
    if (family == nullptr) {
        osal_report(kSource, 151, "\n");
        return -1;
    }
    if (address->length != family->length) {
        osal_report(kSource, family->to_text_line, "\n");
        return -1;
    }
    const auto size = static_cast<socklen_t>(buffer_len);
    return inet_ntop(family->af, address->address, buffer, size) != nullptr ? 0 : -1;
}

int osal_net_resolve(const char* host, OsalNetAddress* address) {
    const Family* family = address != nullptr ? family_of(*address) : nullptr;
    if (family == nullptr) {
        osal_report(kSource, 54, "\n");
        return -1;
    }
    hostent entry{};
    hostent* result = nullptr;
    int error = 0;
    std::array<char, 2048> scratch{};
    if (host == nullptr ||
        gethostbyname2_r(host, family->af, &entry, scratch.data(), scratch.size(), &result,
                         &error) != 0 ||
        result == nullptr || result->h_addr_list == nullptr || result->h_addr_list[0] == nullptr) {
        osal_report(kSource, 60, "\n");
        return -1;
    }
    if (result->h_length < 0 || static_cast<std::size_t>(result->h_length) > OSAL_NET_ADDRESS_LEN) {
        osal_report(kSource, 64, "\n");
        return -1;
    }
    std::memcpy(address->address, result->h_addr_list[0],
                static_cast<std::size_t>(result->h_length));
    address->length = static_cast<std::uint32_t>(result->h_length);
    return 0;
}

int osal_net_set_option(int socket, int option, int value) {
    int level = 0;
    int name = 0;
    int line = 0;
    if (option == OSAL_NET_OPT_REUSEADDR) {
        level = SOL_SOCKET;
        name = SO_REUSEADDR;
        line = 283;
    } else if (option == OSAL_NET_OPT_TOS) {
        level = IPPROTO_IP;
        name = IP_TOS;
        line = 289;
    } else {
        return -1;
    }
    if (setsockopt(socket, level, name, &value, sizeof value) != 0) {
        osal_report(kSource, line, "\n");
        return -1;
    }
    return 0;
}

int osal_net_bind(int socket, const OsalNetAddress* address) {
    if (address == nullptr || address->family == 0) {
        osal_report(kSource, 386, "\n");
        return -1;
    }
    const Family* family = family_of(*address);
    if (family == nullptr) return 0;  // an unknown family is left alone
    if (address->length != family->length) {
        osal_report(kSource, family->bind_length_line, "\n");
        return -1;
    }
    sockaddr_storage local{};
    const socklen_t size = socket_address(*address, local);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&local), size) != 0) {
        osal_report(kSource, family->bind_line, "\n");
        return -1;
    }
    if (is_multicast(*address) && change_membership(socket, *address, *family, true) != 0) {
        osal_report(kSource, family->join_line, "\n");
        return -1;
    }
    return 0;
}

int osal_net_close(int socket, const OsalNetAddress* address) {
    const Family* family = address != nullptr ? family_of(*address) : nullptr;
    if (family != nullptr) {
        if (address->length != family->length) {
            osal_report(kSource, family->close_length_line, "\n");
        } else if (is_multicast(*address) &&
                   change_membership(socket, *address, *family, false) != 0) {
            osal_report(kSource, family->leave_line, "\n");
        }
    } else if (address != nullptr && address->family == 0) {
        osal_report(kSource, 265, "\n");
    }
    return close(socket);
}

long osal_net_receive_from(int socket, OsalNetAddress* address, void* buffer, std::size_t length) {
    if (address == nullptr || buffer == nullptr) return -1;
    const Family* family = family_of(*address);
    if (family == nullptr) {
        if (address->family == 0) {
            address->length = 0;
            osal_report(kSource, 498, "\n");
        }
        return -1;
    }
    sockaddr_storage from{};
    socklen_t from_len = sizeof from;
    const ssize_t got =
        recvfrom(socket, buffer, length, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
    if (got < 1) {
        osal_report(kSource, family->receive_line, "\n");
        return static_cast<long>(got);
    }
    store_sender(from, *family, address);
    return static_cast<long>(got);
}

long osal_net_send_to(int socket, const OsalNetAddress* address, const void* buffer,
                      std::size_t length) {
    if (address == nullptr || buffer == nullptr) return -1;
    const Family* family = family_of(*address);
    if (family == nullptr) {
        if (address->family == 0) osal_report(kSource, 435, "\n");
        return -1;
    }
    if (address->length != family->length) {
        osal_report(kSource, family->send_length_line, "\n");
        return -1;
    }
    sockaddr_storage to{};
    const socklen_t size = socket_address(*address, to);
    return static_cast<long>(
        sendto(socket, buffer, length, 0, reinterpret_cast<const sockaddr*>(&to), size));
}
