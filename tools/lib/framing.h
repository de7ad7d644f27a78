// The two framings as they are sent. The bench programs check the forwarder, so they define the
// layout themselves and do not include the forwarder's headers.
//
//   UDPv1   0        32        34      38             H
//           | HMAC   | H (2)   | label | more header  | payload
//   UDPv2   0        16        20
//           | HMAC   | label   | payload
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vesk::bench {

inline constexpr std::size_t maxDatagramSize = 2048;

struct FramingLayout {
    std::string_view name;
    std::size_t hmacLength;
    std::size_t headerLengthSize;  // 0 for UDPv2, whose payload always begins at 20
    std::size_t labelOffset;
    std::size_t headerSize;
};

inline constexpr FramingLayout udpV1{"udpv1", 32, 2, 34, 38};
inline constexpr FramingLayout udpV2{"udpv2", 16, 0, 16, 20};

/// Throws std::invalid_argument for any name except "udpv1" and "udpv2".
const FramingLayout& framingByName(std::string_view name);

/// Big-endian, like all numbers in datagrams.
std::uint32_t readNumber(std::span<const std::byte> fourBytes);
void writeNumber(std::span<std::byte> fourBytes, std::uint32_t value);

inline std::uint32_t readLabel(const FramingLayout& layout, std::span<const std::byte> datagram) {
    return readNumber(datagram.subspan(layout.labelOffset, 4));
}

inline void writeLabel(const FramingLayout& layout, std::span<std::byte> datagram,
                       std::uint32_t label) {
    writeNumber(datagram.subspan(layout.labelOffset, 4), label);
}

/// Writes the header-length field if the framing has one. The header is then complete except for
/// label and HMAC.
void writeHeaderLength(const FramingLayout& layout, std::span<std::byte> datagram);

/// The offset of the payload; none for a malformed datagram.
std::optional<std::size_t> findPayload(const FramingLayout& layout,
                                       std::span<const std::byte> datagram);

/// The bytes that the HMAC covers, in the order in which they are hashed.
std::array<std::span<const std::byte>, 2> authenticatedRanges(const FramingLayout& layout,
                                                              std::span<const std::byte> datagram,
                                                              std::size_t payloadOffset);

}  // namespace vesk::bench
