// Adds up what the kernel says of each socket of the forwarder. One for the controller's life,
// kept by kernel/kernel_reader; one thread at a time.
//
// The kernel counts a socket's drops from its opening, and forgets them when it is closed. What is
// published must never fall, so the increases are added up; a socket is known by its inode.
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

/// An address and port that the forwarder listens on, as the kernel's tables write them. The
/// address is empty where it does not listen so.
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
    std::uint32_t label = 0;  ///< of its flow; 0 where that is not known
};

/// Which of them the socket is; upstream where it is neither.
Side sideOf(const UdpSocket& socket, const Listeners& listeners);

class SocketTotals {
 public:
    /// Takes in the host's UDP sockets. `own`: those of the forwarder, by ascending inode, each
    /// once.
    void add(std::span<const UdpSocket> sockets, std::span<const OwnSocket> own,
             const Listeners& listeners);

    /// The sockets of the last call, by side.
    const std::array<SocketFigures, sides>& present() const { return present_; }
    /// Those upstream whose flow is known, by label.
    const std::map<std::uint32_t, FlowSocket>& flows() const { return flows_; }
    /// Their drops, and those of all sockets before, by side.
    const std::array<std::uint64_t, sides>& drops() const { return drops_; }

 private:
    using Drops = std::unordered_map<std::uint64_t, std::uint64_t>;

    std::array<SocketFigures, sides> present_{};
    std::map<std::uint32_t, FlowSocket> flows_;
    std::array<std::uint64_t, sides> drops_{};
    Drops last_;  // of each inode at the last call
};

}  // namespace vesk::controller
