// Framed datagrams built and signed without the product's own code, so that a mistake in its layout
// or its arithmetic cannot hide in the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "support/bytes.h"

namespace vesk {

/// A key with the name of its digest, "sha1" or "sha256"; without bytes, no key.
struct TestKey {
    std::string digest = "sha1";
    Bytes bytes;
};

Bytes toBytes(std::string_view text);
std::string toHex(const Bytes& bytes);

/// The digest of `data`, cut or padded with zeros to `length`; zeros without a key.
Bytes hmacOf(const TestKey& key, const Bytes& data, std::size_t length);

/// A datagram with a 16-byte HMAC and a label in front of the payload.
Bytes framedV2(std::uint32_t label, const Bytes& payload, const TestKey& key = {});

/// A datagram with a 32-byte HMAC, a header length, a label and further header bytes.
Bytes framedV1(std::uint32_t label, const Bytes& payload, const TestKey& key = {},
               const Bytes& furtherHeader = {});

/// What an instance with this key puts in front of a datagram: type, length, address and HMAC.
Bytes lateralHeader(std::uint8_t type, std::span<const std::uint8_t> address, const TestKey& key);

Bytes join(std::initializer_list<Bytes> parts);

}  // namespace vesk
