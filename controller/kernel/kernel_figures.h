// Figures of the kernel about the forwarder's sockets and the host: made by kernel/kernel_reader,
// published by metrics/kernel_exposition. A figure that could not be read is empty.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>

namespace vesk::controller {

/// The counterpart of a socket of the forwarder.
enum class Side { downstream, lateral, upstream };
inline constexpr std::size_t sides = 3;

/// One socket, or the sum of several of a side.
struct SocketFigures {
    std::uint64_t sockets = 0;
    std::uint64_t receiveQueue = 0;  ///< bytes of buffer in use
    std::uint64_t sendQueue = 0;     ///< bytes of buffer in use

    bool operator==(const SocketFigures&) const = default;
};

/// How much of a limited resource is in use, and how much is left.
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

/// Tracked connections, and their limit.
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
    std::uint64_t newDrops = 0;  ///< datagrams, since the previous reading

    bool operator==(const FlowSocket&) const = default;
};

struct KernelFigures {
    std::optional<std::array<SocketFigures, sides>> sockets;
    std::array<std::uint64_t, sides> drops{};  ///< datagrams, since the controller started
    /// By label; none if it is not known which socket belongs to which flow.
    std::optional<std::map<std::uint32_t, FlowSocket>> flows;
    std::optional<Room> ports;  ///< ephemeral ones
    std::optional<Room> descriptors;
    std::optional<Conntrack> conntrack;  ///< none if the module is not loaded
    std::optional<BufferErrors> ipv4;
    std::optional<BufferErrors> ipv6;
};

}  // namespace vesk::controller
