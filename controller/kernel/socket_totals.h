// Adds up the kernel's figures for the sockets of the forwarder. kernel/kernel_reader keeps one for
// the controller's whole life; one thread at a time.
//
// The kernel counts a socket's drops from its opening, and discards the count when it is closed. A
// published counter must never fall, so the increases are added up. A socket is identified by its
// inode.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <unordered_map>

#include "kernel/kernel_figures.h"
#include "kernel/udp_table.h"

namespace vesk::controller {

/// An address and port that the forwarder listens on, in the form of the kernel's tables. The
/// address is empty if there is no such listener.
struct Listener {
    std::string address;
    std::uint16_t port = 0;
};

struct Listeners {
    Listener downstream;
    Listener lateral;
};

/// A socket of the forwarder.
struct OwnSocket {
    std::uint64_t inode = 0;
    std::uint32_t label = 0;  ///< of its flow; 0 if that is not known
};

/// The side of a socket; upstream if it is neither listener.
Side sideOf(const UdpSocket& socket, const Listeners& listeners);

class SocketTotals {
 public:
    /// Takes the host's UDP sockets. `own` are those of the forwarder, by ascending inode, each
    /// once.
    void add(std::span<const UdpSocket> sockets, std::span<const OwnSocket> own,
             const Listeners& listeners);

    /// The sockets of the last call, by side.
    const std::array<SocketFigures, sides>& present() const { return present_; }
    /// Those of them on the upstream side whose flow is known, by label.
    const std::map<std::uint32_t, FlowSocket>& flows() const { return flows_; }
    /// Their drops and those of all earlier sockets, by side.
    const std::array<std::uint64_t, sides>& drops() const { return drops_; }

 private:
    using Drops = std::unordered_map<std::uint64_t, std::uint64_t>;

    std::array<SocketFigures, sides> present_{};
    std::map<std::uint32_t, FlowSocket> flows_;
    std::array<std::uint64_t, sides> drops_{};
    Drops last_;  // of each inode at the last call
};

}  // namespace vesk::controller
