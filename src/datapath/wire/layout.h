// The layout of every datagram: offsets and lengths in bytes, with drawings. All integers are
// big-endian. Constants and values, used by the functions of the datapath on any thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vesk {

/// The largest datagram in bytes, headers of all kinds included.
inline constexpr std::size_t maxDatagramSize = 2048;

/// The fields of one framing version. Offsets are from the first byte of the datagram.
struct FramingDescriptor {
    std::uint32_t version;
    std::uint32_t hmacOffset;
    std::uint32_t hmacLength;
    std::uint32_t headerLengthOffset;
    /// 0 if the version has no header-length field.
    std::uint32_t headerLengthSize;
    std::uint32_t labelOffset;
    std::uint32_t labelSize;
    /// The smallest datagram; also the payload's offset if there is no header-length field.
    std::uint32_t minHeaderSize;
};

// UDPv1: H is the offset of the payload; 38 <= H < length.
//
//   0                        32    34        38                 H
//   | HMAC                   | H   | label   | further header   | payload
//                            |<- - - - - - - covered - - - - - - - - - ->|
inline constexpr FramingDescriptor framingV1{.version = 1,
                                             .hmacOffset = 0,
                                             .hmacLength = 32,
                                             .headerLengthOffset = 32,
                                             .headerLengthSize = 2,
                                             .labelOffset = 34,
                                             .labelSize = 4,
                                             .minHeaderSize = 38};

// UDPv2: the payload may be empty.
//
//   0                        16        20
//   | HMAC                   | label   | payload
//                            |<- - - covered - - ->|
inline constexpr FramingDescriptor framingV2{.version = 2,
                                             .hmacOffset = 0,
                                             .hmacLength = 16,
                                             .headerLengthOffset = 16,
                                             .headerLengthSize = 0,
                                             .labelOffset = 16,
                                             .labelSize = 4,
                                             .minHeaderSize = 20};

/// The framing of this version, 1 or 2.
constexpr const FramingDescriptor& framingOfVersion(int version) {
    return version == 1 ? framingV1 : framingV2;
}

/// The fields of the lateral header.
struct LateralDescriptor {
    std::uint32_t typeOffset;
    /// The first byte of the part that is returned with a reply.
    std::uint32_t returnInfoOffset;
    std::uint32_t lengthOffset;
    std::uint32_t lengthSize;
    std::uint32_t addressOffset;
    std::uint32_t minAddressLength;
    std::uint32_t maxAddressLength;
    std::uint32_t hmacLength;
    /// The smallest lateral datagram.
    std::uint32_t minLateralSize;
};

// The lateral header precedes a framed datagram that is sent between two instances. A is the length
// of the peer's socket address, which has this host's layout; N = A + 16.
//
//   0      1     2                   2+A                    2+N
//   | type | N   | socket address    | HMAC (16 bytes)      | framed datagram
//          |<- - - - covered - - - ->|
//          |<- - - - - - - return information - - - - - - ->|
inline constexpr LateralDescriptor lateralLayout{.typeOffset = 0,
                                                 .returnInfoOffset = 1,
                                                 .lengthOffset = 1,
                                                 .lengthSize = 1,
                                                 .addressOffset = 2,
                                                 .minAddressLength = 16,
                                                 .maxAddressLength = 28,
                                                 .hmacLength = 16,
                                                 .minLateralSize = 34};

/// The type of a datagram forwarded towards upstream, to the instance that owns the label.
inline constexpr std::uint8_t lateralForward = 1;
/// The type of a reply returned towards downstream, to the instance that forwarded the datagram.
inline constexpr std::uint8_t lateralReturn = 2;

/// The longest HMAC field of any header, in bytes.
inline constexpr std::size_t maxHmacFieldLength =
    std::max({framingV1.hmacLength, framingV2.hmacLength, lateralLayout.hmacLength});

/// The part of a lateral header that is returned with the reply: the length byte, the peer's
/// address and the lateral HMAC, as received. Empty for a datagram that was received directly from
/// a peer. Stored without an allocation, since one is made for each lateral datagram.
class ReturnPath {
 public:
    static constexpr std::size_t capacity =
        lateralLayout.lengthSize + lateralLayout.maxAddressLength + lateralLayout.hmacLength;

    ReturnPath() = default;
    /// At most `capacity` bytes.
    explicit ReturnPath(std::span<const std::uint8_t> bytes)
        : size_(static_cast<std::uint8_t>(bytes.size())) {
        std::ranges::copy(bytes, bytes_.begin());
    }

    std::span<const std::uint8_t> bytes() const { return std::span(bytes_).first(size_); }
    bool empty() const { return size_ == 0; }

    friend bool operator==(const ReturnPath& left, const ReturnPath& right) {
        return std::ranges::equal(left.bytes(), right.bytes());
    }

 private:
    std::array<std::uint8_t, capacity> bytes_{};
    std::uint8_t size_ = 0;
};

}  // namespace vesk
