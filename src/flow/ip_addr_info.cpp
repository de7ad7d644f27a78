#include "flow/ip_addr_info.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vesk {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList resolve(const std::string& host, std::uint32_t port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    const std::string service = std::to_string(port);
    addrinfo* results = nullptr;
    const int error = getaddrinfo(host.c_str(), service.c_str(), &hints, &results);
    if (error != 0) {
        const int savedErrno = errno;
        throw std::runtime_error("getaddrinfo: " + host + "|" + service + ": err " +
                                 std::to_string(error) + " errno " + std::to_string(savedErrno));
    }
    return {results, &freeaddrinfo};
}

struct PrintedAddress {
    std::string host;
    std::uint16_t port;
};

PrintedAddress print(int family, const void* address, in_port_t port, const char* perrorText,
                     const char* thrownText) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(family, address, text.data(), text.size()) == nullptr) {
        std::perror(perrorText);
        throw std::runtime_error(thrownText);
    }
    return {text.data(), ntohs(port)};
}

template <typename Sockaddr>
Sockaddr readAs(const sockaddr* address) {
    Sockaddr result;
    std::memcpy(&result, address, sizeof(result));
    return result;
}

}  // namespace

IPAddrInfo::IPAddrInfo(const std::string& host, std::uint32_t port)
    : host_(host), port_(static_cast<std::uint16_t>(port)) {
    if (host.empty() || port == 0) {
        return;
    }
    const AddressList results = resolve(host, port);
    for (const addrinfo* it = results.get(); it != nullptr; it = it->ai_next) {
        if (it->ai_addrlen <= sizeof(sockaddr_storage)) {
            family_ = it->ai_family;
            store(it->ai_addr, it->ai_addrlen);
            break;
        }
    }
    if (!resolved()) {
        throw std::invalid_argument("IPAddrInfo: bad IP address or port");
    }
}

IPAddrInfo::IPAddrInfo(const sockaddr* address, socklen_t length) {
    store(address, length);
    PrintedAddress printed{};
    if (address->sa_family == AF_INET) {
        const auto ipv4 = readAs<sockaddr_in>(address);
        printed = print(AF_INET, &ipv4.sin_addr, ipv4.sin_port,
                        "IPAddrInfo: construct from IPv4 sockaddr: inet_ntop",
                        "IPAddrInfo::IPAddrInfo: bad IPv4 socket address");
    } else if (address->sa_family == AF_INET6) {
        const auto ipv6 = readAs<sockaddr_in6>(address);
        printed = print(AF_INET6, &ipv6.sin6_addr, ipv6.sin6_port,
                        "IPAddrInfo: construct from IPv6 sockaddr: inet_ntop",
                        "IPAddrInfo::IPAddrInfo: bad IPv6 socket address");
    } else {
        return;
    }
    family_ = address->sa_family;
    host_ = std::move(printed.host);
    port_ = printed.port;
}

void IPAddrInfo::store(const sockaddr* address, socklen_t length) {
    if (length <= SocketAddress::capacity) {
        address_ = SocketAddress(address, length);
        return;
    }
    const auto other = std::make_shared<OtherAddress>();
    std::memcpy(&other->storage, address, length);
    other->length = length;
    other_ = other;
}

const sockaddr* IPAddrInfo::addr() const {
    return other_ ? reinterpret_cast<const sockaddr*>(&other_->storage) : address_.get();
}

IPAddrInfo mergeAddresses(const IPAddrInfo& newer, const IPAddrInfo& older) {
    if (!newer.host().empty() && newer.port() != 0) {
        return newer;
    }
    return {newer.host().empty() ? older.host() : newer.host(),
            newer.port() != 0 ? newer.port() : std::uint32_t{older.port()}};
}

std::string_view wildcardAddress(int family) {
    return family == AF_INET6 ? "::" : "0.0.0.0";
}

std::string_view wildcardAddress(std::string_view address) {
    return wildcardAddress(familyOfAddressText(address));
}

int familyOfAddressText(std::string_view address) {
    return address.find(':') == std::string_view::npos ? AF_INET : AF_INET6;
}

}  // namespace vesk
