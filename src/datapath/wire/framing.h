// Parsing a framed datagram and rewriting its label: pure functions over a buffer. Called by the
// receive threads for every datagram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "datapath/wire/layout.h"

namespace vesk {

/// A whole receive buffer; a datagram occupies its front.
using DatagramBuffer = std::span<std::uint8_t, maxDatagramSize>;
using ConstDatagramBuffer = std::span<const std::uint8_t, maxDatagramSize>;

struct ParsedDatagram {
    std::uint32_t label;
    /// Offset of the payload.
    std::size_t headerLength;
};

/// Nothing where the datagram is too short or its header length lies. At trace level it remarks on
/// UDPv2 datagrams that look like unsigned UDPv1 ones; they are accepted like any other.
std::optional<ParsedDatagram> parseDatagram(const FramingDescriptor& framing,
                                            ConstDatagramBuffer buffer, std::size_t length);

/// Overwrites the label and nothing else.
void rewriteLabel(const FramingDescriptor& framing, DatagramBuffer buffer, std::uint32_t label);

}  // namespace vesk
