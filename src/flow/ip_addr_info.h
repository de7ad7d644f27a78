// An IP endpoint as a value: host text, port and the socket address ready for bind or sendmsg. Any
// thread; values are not shared.
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

    /// From configuration. An empty host or a port of 0 stays unresolved without an error (in an
    /// update it means that the old host or port is kept); anything else is looked up.
    /// Throws std::runtime_error where the resolver fails and std::invalid_argument where it has
    /// no usable answer. The port is stored as its low 16 bits; the resolver is given all 32.
    IPAddrInfo(const std::string& host, std::uint32_t port);

    /// From the network. The length must be at most 128. Families other than IPv4 and IPv6 keep
    /// an empty host and port 0. Throws std::runtime_error where the address cannot be printed.
    // Kept: part of the interface of addresses; the datapath keeps a sender as a SocketAddress.
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
    /// An address that SocketAddress has no room for. Aside, since nothing that Vesk does brings
    /// one.
    struct OtherAddress {
        sockaddr_storage storage{};
        socklen_t length = 0;
    };

    void store(const sockaddr* address, socklen_t length);

    std::string host_;
    std::uint16_t port_ = 0;
    int family_ = 0;
    SocketAddress address_;
    /// Never changed once made, so that copies may share it.
    std::shared_ptr<const OtherAddress> other_;
};

/// The merge that an update makes: the parts that `newer` lacks come from `older`, and what was put
/// together is resolved again, which may throw as the constructor does.
IPAddrInfo mergeAddresses(const IPAddrInfo& newer, const IPAddrInfo& older);

// Kept: both are part of the interface of addresses; the forwarder listens only where it is told.

/// "::" for AF_INET6, "0.0.0.0" for any other family.
std::string_view wildcardAddress(int family);
/// "::" for a text with a colon in it, "0.0.0.0" for any other.
std::string_view wildcardAddress(std::string_view address);

/// The family that an address text is taken to be of: AF_INET6 where it holds a colon.
int familyOfAddressText(std::string_view address);

}  // namespace vesk
