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
#include "osal_report.hpp"

namespace {

constexpr const char* kSource = "osal_net";
constexpr std::size_t kIpv4Len = 4;
constexpr std::size_t kIpv6Len = 16;

void report(int line) {
    osal_detail::report(kSource, line);
}

bool is_ipv4_multicast(const OsalNetAddress& address) {
    return address.address[0] >= 224 && address.address[0] <= 239;
}

bool is_ipv6_multicast(const OsalNetAddress& address) {
    return address.address[0] == 255;
}

sockaddr_in ipv4_socket_address(const OsalNetAddress& address) {
    sockaddr_in out{};
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<std::uint16_t>(address.port));
    std::memcpy(&out.sin_addr, address.address, kIpv4Len);
    return out;
}

sockaddr_in6 ipv6_socket_address(const OsalNetAddress& address) {
    sockaddr_in6 out{};
    out.sin6_family = AF_INET6;
    out.sin6_port = htons(static_cast<std::uint16_t>(address.port));
    out.sin6_flowinfo = 0;
    out.sin6_scope_id = 0;
    std::memcpy(&out.sin6_addr, address.address, kIpv6Len);
    return out;
}

ip_mreq ipv4_group(const OsalNetAddress& address) {
    ip_mreq group{};
    std::memcpy(&group.imr_multiaddr, address.address, kIpv4Len);
    group.imr_interface.s_addr = htonl(INADDR_ANY);
    return group;
}

ipv6_mreq ipv6_group(const OsalNetAddress& address) {
    ipv6_mreq group{};
    std::memcpy(&group.ipv6mr_multiaddr, address.address, kIpv6Len);
    group.ipv6mr_interface = 0;
    return group;
}

}  // namespace

int osal_net_socket(std::uint32_t family) {
    if (family == OSAL_NET_IPV4) return socket(AF_INET, SOCK_DGRAM, 0);
    if (family == OSAL_NET_IPV6) return socket(AF_INET6, SOCK_DGRAM, 0);
    report(188);
    return -1;
}

int osal_net_address_from_text(const char* text, OsalNetAddress* address) {
    if (address == nullptr) return -1;
    address->length = 0;
    int af = 0;
    if (address->family == OSAL_NET_IPV4) {
        af = AF_INET;
        address->length = kIpv4Len;
    } else if (address->family == OSAL_NET_IPV6) {
        af = AF_INET6;
        address->length = kIpv6Len;
    } else {
        report(102);
        return -1;
    }
    if (text == nullptr) return -1;
    return inet_pton(af, text, address->address) == 1 ? 0 : -1;
}

int osal_net_address_to_text(char* buffer, const OsalNetAddress* address, std::size_t buffer_len) {
    if (buffer == nullptr || address == nullptr) return -1;
    int af = 0;
    if (address->family == OSAL_NET_IPV4) {
        if (address->length != kIpv4Len) {
            report(135);
            return -1;
        }
        af = AF_INET;
    } else if (address->family == OSAL_NET_IPV6) {
        if (address->length != kIpv6Len) {
            report(143);
            return -1;
        }
        af = AF_INET6;
    } else {
        report(151);
        return -1;
    }
    return inet_ntop(af, address->address, buffer, static_cast<socklen_t>(buffer_len)) != nullptr
               ? 0
               : -1;
}

int osal_net_resolve(const char* host, OsalNetAddress* address) {
    if (address == nullptr ||
        (address->family != OSAL_NET_IPV4 && address->family != OSAL_NET_IPV6)) {
        report(54);
        return -1;
    }
    const int af = address->family == OSAL_NET_IPV4 ? AF_INET : AF_INET6;
    hostent entry{};
    hostent* result = nullptr;
    int error = 0;
    std::array<char, 2048> scratch{};
    if (host == nullptr ||
        gethostbyname2_r(host, af, &entry, scratch.data(), scratch.size(), &result, &error) != 0 ||
        result == nullptr || result->h_addr_list == nullptr || result->h_addr_list[0] == nullptr) {
        report(60);
        return -1;
    }
    if (result->h_length < 0 || static_cast<std::size_t>(result->h_length) > OSAL_NET_ADDRESS_LEN) {
        report(64);
        return -1;
    }
    std::memcpy(address->address, result->h_addr_list[0],
                static_cast<std::size_t>(result->h_length));
    address->length = static_cast<std::uint32_t>(result->h_length);
    return 0;
}

int osal_net_set_option(int socket, int option, int value) {
    if (option == OSAL_NET_OPT_REUSEADDR) {
        if (setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value) != 0) {
            report(283);
            return -1;
        }
        return 0;
    }
    if (option == OSAL_NET_OPT_TOS) {
        if (setsockopt(socket, IPPROTO_IP, IP_TOS, &value, sizeof value) != 0) {
            report(289);
            return -1;
        }
        return 0;
    }
    return -1;
}

int osal_net_bind(int socket, const OsalNetAddress* address) {
    if (address == nullptr) {
        report(386);
        return -1;
    }
    if (address->family == OSAL_NET_IPV4) {
        if (address->length != kIpv4Len) {
            report(320);
            return -1;
        }
        const sockaddr_in local = ipv4_socket_address(*address);
        if (bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            report(331);
            return -1;
        }
        if (is_ipv4_multicast(*address)) {
            const ip_mreq group = ipv4_group(*address);
            if (setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
                report(345);
                return -1;
            }
        }
    } else if (address->family == OSAL_NET_IPV6) {
        if (address->length != kIpv6Len) {
            report(354);
            return -1;
        }
        const sockaddr_in6 local = ipv6_socket_address(*address);
        if (bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            report(365);
            return -1;
        }
        if (is_ipv6_multicast(*address)) {
            const ipv6_mreq group = ipv6_group(*address);
            if (setsockopt(socket, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
                report(378);
                return -1;
            }
        }
    } else if (address->family == 0) {
        report(386);
        return -1;
    }
    return 0;
}

int osal_net_close(int socket, const OsalNetAddress* address) {
    if (address != nullptr) {
        if (address->family == OSAL_NET_IPV4) {
            if (address->length != kIpv4Len) {
                report(217);
            } else if (is_ipv4_multicast(*address)) {
                const ip_mreq group = ipv4_group(*address);
                if (setsockopt(socket, IPPROTO_IP, IP_DROP_MEMBERSHIP, &group, sizeof group) != 0)
                    report(234);
            }
        } else if (address->family == OSAL_NET_IPV6) {
            if (address->length != kIpv6Len) {
                report(242);
            } else if (is_ipv6_multicast(*address)) {
                const ipv6_mreq group = ipv6_group(*address);
                if (setsockopt(socket, IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP, &group, sizeof group) !=
                    0)
                    report(258);
            }
        } else if (address->family == 0) {
            report(265);
        }
    }
    return close(socket);
}

long osal_net_receive_from(int socket, OsalNetAddress* address, void* buffer, std::size_t length) {
    if (address == nullptr || buffer == nullptr) return -1;
    if (address->family == OSAL_NET_IPV4) {
        sockaddr_in from{};
        socklen_t from_len = sizeof from;
        const ssize_t got =
            recvfrom(socket, buffer, length, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
        if (got < 1) {
            report(464);
            return static_cast<long>(got);
        }
        address->port = ntohs(from.sin_port);
        address->length = kIpv4Len;
        std::memcpy(address->address, &from.sin_addr, kIpv4Len);
        return static_cast<long>(got);
    }
    if (address->family == OSAL_NET_IPV6) {
        sockaddr_in6 from{};
        socklen_t from_len = sizeof from;
        const ssize_t got =
            recvfrom(socket, buffer, length, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
        if (got < 1) {
            report(483);
            return static_cast<long>(got);
        }
        address->port = ntohs(from.sin6_port);
        address->length = kIpv6Len;
        std::memcpy(address->address, &from.sin6_addr, kIpv6Len);
        return static_cast<long>(got);
    }
    if (address->family == 0) {
        address->length = 0;
        report(498);
    }
    return -1;
}

long osal_net_send_to(int socket, const OsalNetAddress* address, const void* buffer,
                      std::size_t length) {
    if (address == nullptr || buffer == nullptr) return -1;
    if (address->family == OSAL_NET_IPV4) {
        if (address->length != kIpv4Len) {
            report(410);
            return -1;
        }
        const sockaddr_in to = ipv4_socket_address(*address);
        return static_cast<long>(
            sendto(socket, buffer, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
    }
    if (address->family == OSAL_NET_IPV6) {
        if (address->length != kIpv6Len) {
            report(423);
            return -1;
        }
        const sockaddr_in6 to = ipv6_socket_address(*address);
        return static_cast<long>(
            sendto(socket, buffer, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
    }
    if (address->family == 0) report(435);
    return -1;
}
