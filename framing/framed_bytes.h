// Reads and writes the fields of a framed datagram in a buffer of exactly its size. Used by the
// functions of vesk_framing.h, on any thread. The layout is the forwarder's own (layout.h); its
// functions for fields take whole receive buffers and log, so these are not the same.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "datapath/wire/layout.h"
#include "vesk_framing.h"

namespace vesk {

/// Null if the version is unknown.
const FramingDescriptor* framingFor(vesk_framing_version version);

/// Reads label, offset and length of the payload; all fields are 0 if the datagram is refused.
vesk_framing_result readFields(const FramingDescriptor& framing,
                               std::span<const std::uint8_t> datagram, vesk_framing_fields& fields);

/// Writes the header up to its further bytes, with zeros for the HMAC. `headerLength` is the offset
/// of the payload.
void writeHeader(const FramingDescriptor& framing, std::span<std::uint8_t> datagram,
                 std::size_t headerLength, std::uint32_t label);

void writeLabel(const FramingDescriptor& framing, std::span<std::uint8_t> datagram,
                std::uint32_t label);

/// What the HMAC covers, in order.
std::array<std::span<const std::uint8_t>, 2> coveredBy(const FramingDescriptor& framing,
                                                       std::span<const std::uint8_t> datagram,
                                                       std::size_t headerLength);

}  // namespace vesk
