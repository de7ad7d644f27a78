// An IP address and port as a value: host text, port, and the socket address for bind or sendmsg.
// Any thread; values are not shared.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/socket_address.h"

namespace vesk {

class IPAddrInfo {
 public:
    IPAddrInfo() = default;

    /// From configuration, with the port in host byte order. An empty host or port 0 is not an
    /// error: the address stays unresolved, and an update then keeps the old host or port.
    /// Otherwise the host is looked up, which may block. Throws std::runtime_error if the resolver
    /// fails, and std::invalid_argument if it returns no usable address. The low 16 bits of the
    /// port are stored; the resolver gets all 32.
    IPAddrInfo(const std::string& host, std::uint32_t port);

    /// From a socket address of at most 128 bytes. For families other than IPv4 and IPv6, the host
    /// is empty and the port 0. Throws std::runtime_error if the address cannot be printed.
    // Kept: part of the interface of addresses; the datapath stores senders as SocketAddress.
    IPAddrInfo(const sockaddr* address, socklen_t length);

    const std::string& host() const { return host_; }
    /// Host byte order; 0 means none.
    std::uint16_t port() const { return port_; }
    /// AF_INET, AF_INET6, or 0 while unresolved.
    int family() const { return family_; }
    bool resolved() const { return addrLen() != 0; }
    /// Empty for an address longer than those of IPv4 and IPv6.
    const SocketAddress& socketAddress() const { return address_; }
    const sockaddr* addr() const;
    socklen_t addrLen() const { return other_ ? other_->length : address_.length; }

 private:
    /// An address that is too long for SocketAddress. Stored separately, since Vesk itself never
    /// has one.
    struct OtherAddress {
        sockaddr_storage storage{};
        socklen_t length = 0;
    };

    void store(const sockaddr* address, socklen_t length);

    std::string host_;
    std::uint16_t port_ = 0;
    int family_ = 0;
    SocketAddress address_;
    /// Constant, so copies may share it.
    std::shared_ptr<const OtherAddress> other_;
};

/// The address after an update. A host or port that `newer` lacks is taken from `older`; the
/// combination is resolved again, which may block and throws like the constructor.
IPAddrInfo mergeAddresses(const IPAddrInfo& newer, const IPAddrInfo& older);

// Kept: both are part of the interface of addresses; the forwarder listens only on addresses that
// commands give.

/// "::" for AF_INET6, "0.0.0.0" for any other family.
std::string_view wildcardAddress(int family);
/// "::" for a text that contains a colon, "0.0.0.0" for any other.
std::string_view wildcardAddress(std::string_view address);

/// The family of an address text: AF_INET6 if it contains a colon, else AF_INET.
int familyOfAddressText(std::string_view address);

}  // namespace vesk
