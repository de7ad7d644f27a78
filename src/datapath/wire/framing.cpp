#include "datapath/wire/framing.h"

#include <algorithm>

#include "log/log.h"

namespace vesk {

namespace {

/// Where an unsigned UDPv1 datagram holds the second half of its empty HMAC field.
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
    // A shorter datagram is looked at with what the buffer held before; it is a remark, no verdict.
    const auto tail = buffer.subspan(zeroTailOffset, zeroTailLength);
    if (std::ranges::all_of(tail, [](std::uint8_t byte) { return byte == 0; })) {
        // Kept: it says "dropping", but the datagram may be a good one and is not dropped.
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
