#include "framed_bytes.h"

#include <algorithm>

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;

std::uint32_t readBigEndian(Region bytes) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

void writeBigEndian(std::span<std::uint8_t> bytes, std::uint32_t value) {
    for (std::size_t i = bytes.size(); i > 0; --i) {
        bytes[i - 1] = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

}  // namespace

const FramingDescriptor* framingFor(vesk_framing_version version) {
    switch (version) {
        case VESK_FRAMING_UDPV1:
            return &framingV1;
        case VESK_FRAMING_UDPV2:
            return &framingV2;
        default:
            return nullptr;
    }
}

vesk_framing_result readFields(const FramingDescriptor& framing, Region datagram,
                               vesk_framing_fields& fields) {
    fields = {};
    if (datagram.size() > maxDatagramSize) {
        return VESK_FRAMING_TOO_LONG;
    }
    if (datagram.size() < framing.minHeaderSize) {
        return VESK_FRAMING_TOO_SHORT;
    }
    std::size_t headerLength = framing.minHeaderSize;
    if (framing.headerLengthSize != 0) {
        headerLength =
            readBigEndian(datagram.subspan(framing.headerLengthOffset, framing.headerLengthSize));
        if (headerLength < framing.minHeaderSize || headerLength >= datagram.size()) {
            return VESK_FRAMING_HEADER_LENGTH;
        }
    }
    fields.label = readBigEndian(datagram.subspan(framing.labelOffset, framing.labelSize));
    fields.payload_offset = headerLength;
    fields.payload_length = datagram.size() - headerLength;
    return VESK_FRAMING_OK;
}

void writeHeader(const FramingDescriptor& framing, std::span<std::uint8_t> datagram,
                 std::size_t headerLength, std::uint32_t label) {
    std::ranges::fill(datagram.subspan(framing.hmacOffset, framing.hmacLength), std::uint8_t{0});
    writeBigEndian(datagram.subspan(framing.headerLengthOffset, framing.headerLengthSize),
                   static_cast<std::uint32_t>(headerLength));
    writeLabel(framing, datagram, label);
}

void writeLabel(const FramingDescriptor& framing, std::span<std::uint8_t> datagram,
                std::uint32_t label) {
    writeBigEndian(datagram.subspan(framing.labelOffset, framing.labelSize), label);
}

std::array<Region, 2> coveredBy(const FramingDescriptor& framing, Region datagram,
                                std::size_t headerLength) {
    const std::size_t signedFrom = framing.hmacOffset + framing.hmacLength;
    const Region header = datagram.subspan(signedFrom, headerLength - signedFrom);
    const Region payload = datagram.subspan(headerLength);
    // UDPv1 hashes the payload first.
    return framing.headerLengthSize != 0 ? std::array{payload, header}
                                         : std::array{header, payload};
}

}  // namespace vesk
