// The wire formats once more, for unit tests and fuzz targets: framed datagrams and lateral headers
// are built, read and signed without the product's code, with plain numbers for offsets and
// libcrypto's newer HMAC interface, so that a mistake of the product cannot hide in its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "support/bytes.h"

namespace vesk {

/// A key with the name of its digest, "sha1" or "sha256"; without bytes, no key.
struct TestKey {
    std::string digest = "sha1";
    Bytes bytes;
};

/// The digest of `data`, cut or padded with zeros to `length`; zeros without a key. Throws where
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

/// Nothing where a datagram of this version has to be refused.
std::optional<FramedHeader> readFramed(int version, std::span<const std::uint8_t> datagram);

/// The datagram with another label; its HMAC is left unchanged.
Bytes relabelled(int version, std::span<const std::uint8_t> datagram, std::uint32_t label);

/// The datagram, which has to be an acceptable one, with the HMAC of this key.
Bytes signedWith(int version, std::span<const std::uint8_t> datagram, const TestKey& key);

/// What an instance with this key puts in front of a datagram: type, length, address and HMAC.
Bytes lateralHeader(std::uint8_t type, std::span<const std::uint8_t> address, const TestKey& key);

}  // namespace vesk
