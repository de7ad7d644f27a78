// What the kernel knows of the forwarder's sockets and of the host, as plain figures: made by
// kernel/kernel_reader, shown by metrics/kernel_exposition. What could not be read is missing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>

namespace vesk::controller {

/// Whom a socket of the forwarder talks to.
enum class Side { downstream, lateral, upstream };
inline constexpr std::size_t sides = 3;

/// One socket, or several of a side added up.
struct SocketFigures {
    std::uint64_t sockets = 0;
    std::uint64_t receiveQueue = 0;  ///< bytes of buffer in use
    std::uint64_t sendQueue = 0;     ///< bytes of buffer in use

    bool operator==(const SocketFigures&) const = default;
};

/// How much of a limited thing is in use, and how much is left.
struct Room {
    std::uint64_t used = 0;
    std::uint64_t left = 0;

    bool operator==(const Room&) const = default;
};

/// Datagrams that found a socket's buffer full, since the host started.
struct BufferErrors {
    std::uint64_t receive = 0;
    std::uint64_t send = 0;

    bool operator==(const BufferErrors&) const = default;
};

/// Tracked connections, and how many there may be.
struct Conntrack {
    std::uint64_t entries = 0;
    std::uint64_t limit = 0;

    bool operator==(const Conntrack&) const = default;
};

/// The label of the flow that a descriptor of the forwarder belongs to.
using FlowDescriptors = std::unordered_map<int, std::uint32_t>;

/// The socket of one flow.
struct FlowSocket {
    SocketFigures present;
    std::uint64_t newDrops = 0;  ///< datagrams, since the reading before

    bool operator==(const FlowSocket&) const = default;
};

struct KernelFigures {
    std::optional<std::array<SocketFigures, sides>> sockets;
    std::array<std::uint64_t, sides> drops{};  ///< datagrams, since the controller started
    /// By label; none where it is not known which socket is whose.
    std::optional<std::map<std::uint32_t, FlowSocket>> flows;
    std::optional<Room> ports;  ///< ephemeral ones
    std::optional<Room> descriptors;
    std::optional<Conntrack> conntrack;  ///< none where the module is not loaded
    std::optional<BufferErrors> ipv4;
    std::optional<BufferErrors> ipv6;
};

}  // namespace vesk::controller
