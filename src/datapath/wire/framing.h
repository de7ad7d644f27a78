// Parses a framed datagram and rewrites its label: functions over a buffer, without state. Called
// by the receive threads and the workers for each datagram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "datapath/wire/layout.h"

namespace vesk {

/// A whole receive buffer; the datagram begins at its first byte.
using DatagramBuffer = std::span<std::uint8_t, maxDatagramSize>;
using ConstDatagramBuffer = std::span<const std::uint8_t, maxDatagramSize>;

struct ParsedDatagram {
    /// In host byte order.
    std::uint32_t label;
    /// Offset of the payload in bytes.
    std::size_t headerLength;
};

/// None if the datagram is too short or its header length is out of range. At trace level, UDPv2
/// datagrams that look like unsigned UDPv1 datagrams are logged; they are accepted like others.
std::optional<ParsedDatagram> parseDatagram(const FramingDescriptor& framing,
                                            ConstDatagramBuffer buffer, std::size_t length);

/// Overwrites the label in the buffer; `label` is in host byte order.
void rewriteLabel(const FramingDescriptor& framing, DatagramBuffer buffer, std::uint32_t label);

}  // namespace vesk
