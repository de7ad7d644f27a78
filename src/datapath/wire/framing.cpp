#include "datapath/wire/framing.h"

#include <algorithm>

#include "log/log.h"

namespace vesk {

namespace {

/// Bytes 20 to 31, which are zero in an unsigned UDPv1 datagram: the end of its HMAC field, and
/// payload in UDPv2.
constexpr std::size_t zeroTailOffset = framingV2.minHeaderSize;
constexpr std::size_t zeroTailLength = framingV1.hmacLength - zeroTailOffset;

std::uint32_t readBigEndian(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

void remarkOnVersion(ConstDatagramBuffer buffer) {
    // For a shorter datagram this reads bytes of an earlier one. That is acceptable, since the
    // result is only logged.
    const auto tail = buffer.subspan(zeroTailOffset, zeroTailLength);
    if (std::ranges::all_of(tail, [](std::uint8_t byte) { return byte == 0; })) {
        // Kept: the text says "Dropping", but the datagram is not dropped and may be valid.
        logMessage(LogLevel::trace, "Dropping UDPv1 packet!");
    }
}

}  // namespace

std::optional<ParsedDatagram> parseDatagram(const FramingDescriptor& framing,
                                            ConstDatagramBuffer buffer, std::size_t length) {
    if (length < framing.minHeaderSize) {
        return std::nullopt;
    }
    std::size_t headerLength = framing.minHeaderSize;
    if (framing.headerLengthSize != 0) {
        headerLength =
            readBigEndian(buffer.subspan(framing.headerLengthOffset, framing.headerLengthSize));
        if (headerLength < framing.minHeaderSize || headerLength >= length) {
            return std::nullopt;
        }
    } else if (logEnabled(LogLevel::trace)) {
        remarkOnVersion(buffer);
    }
    return ParsedDatagram{readBigEndian(buffer.subspan(framing.labelOffset, framing.labelSize)),
                          headerLength};
}

void rewriteLabel(const FramingDescriptor& framing, DatagramBuffer buffer, std::uint32_t label) {
    for (std::size_t i = framing.labelSize; i > 0; --i) {
        buffer[framing.labelOffset + i - 1] = static_cast<std::uint8_t>(label);
        label >>= 8;
    }
}

}  // namespace vesk
