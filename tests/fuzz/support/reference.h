// The wire formats once more, written for the fuzz targets without a look at how the forwarder does
// it: over byte vectors, with plain numbers for offsets and libcrypto's newer HMAC interface.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "support/byte_reader.h"

namespace vesk::fuzz {

struct Key {
    /// "sha1" or "sha256".
    const char* algorithm;
    Bytes bytes;
};

/// None, a short key for SHA-1, and one longer than a SHA-256 block. The corpus is signed with
/// them.
const std::array<Key, 3>& someKeys();

struct Framed {
    std::uint32_t label;
    std::size_t headerLength;
};

/// Nothing where a datagram of this version has to be refused.
std::optional<Framed> readFramed(int version, View datagram);

/// What has to stand in the HMAC field of a datagram that is accepted.
Bytes framedTag(int version, View datagram, const Key& key);

Bytes relabelled(int version, View datagram, std::uint32_t label);
Bytes signedWith(int version, View datagram, const Key& key);

/// The digest over the bytes, cut or filled up with zeros to `length`; zeros without a key.
Bytes tagOver(View bytes, const Key& key, std::size_t length);

Bytes joined(View first, View second);
Bytes toBytes(View bytes);
bool same(View left, View right);

}  // namespace vesk::fuzz
