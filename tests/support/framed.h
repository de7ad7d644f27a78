// A second implementation of the wire formats for unit tests and fuzz targets. It builds, reads and
// signs framed datagrams and lateral headers without the product's code, with plain numbers for
// offsets and libcrypto's newer HMAC interface, so that a defect of the product is not repeated in
// its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "support/bytes.h"

namespace vesk {

/// A key with the name of its digest, "sha1" or "sha256". Without bytes there is no key.
struct TestKey {
    std::string digest = "sha1";
    Bytes bytes;
};

/// The HMAC of `data`, truncated or padded with zeros to `length`; zeros without a key. Throws if
/// libcrypto fails.
Bytes hmacOf(const TestKey& key, std::span<const std::uint8_t> data, std::size_t length);

/// A datagram with a 16-byte HMAC and a label in front of the payload.
Bytes framedV2(std::uint32_t label, std::span<const std::uint8_t> payload, const TestKey& key = {});

/// A datagram with a 32-byte HMAC, a header length, a label and further header bytes.
Bytes framedV1(std::uint32_t label, std::span<const std::uint8_t> payload, const TestKey& key = {},
               std::span<const std::uint8_t> furtherHeader = {});

/// A datagram of the framing version, 1 or 2, without further header bytes.
Bytes framedDatagram(int version, std::uint32_t label, std::span<const std::uint8_t> payload,
                     const TestKey& key = {});

struct FramedHeader {
    std::uint32_t label;
    /// The offset of the payload.
    std::size_t length;
};

/// Empty if a datagram of this version must be refused.
std::optional<FramedHeader> readFramed(int version, std::span<const std::uint8_t> datagram);

/// The datagram with another label; its HMAC is left unchanged.
Bytes relabelled(int version, std::span<const std::uint8_t> datagram, std::uint32_t label);

/// The datagram, which must be valid, with the HMAC of this key.
Bytes signedWith(int version, std::span<const std::uint8_t> datagram, const TestKey& key);

/// The header that an instance with this key prepends to a datagram: type, length, address, HMAC.
Bytes lateralHeader(std::uint8_t type, std::span<const std::uint8_t> address, const TestKey& key);

}  // namespace vesk
