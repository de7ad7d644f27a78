// Signing and checking: HMAC over a framed datagram, with libcrypto's context kept beside the
// key. Whoever calls holds the key alone (see HmacKey). Called for every datagram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "datapath/wire/framing.h"
#include "datapath/wire/hmac_key.h"

namespace vesk {

/// The digest over the regions in turn, cut or padded with zeros to the size of `tag`; all zeros
/// where the key is empty. False where libcrypto refuses; `tag` is then not to be used.
bool computeTag(HmacKey& hmacKey, std::span<const std::span<const std::uint8_t>> regions,
                std::span<std::uint8_t> tag);

/// Whether `tag` is what computeTag gives, in constant time. Without a key, whether it is all
/// zeros. False where libcrypto refuses.
bool checkTag(HmacKey& hmacKey, std::span<const std::span<const std::uint8_t>> regions,
              std::span<const std::uint8_t> tag);

/// Fills the HMAC field of a datagram whose header is complete. False: it must not be sent.
bool signDatagram(const FramingDescriptor& framing, DatagramBuffer buffer, std::size_t headerLength,
                  std::size_t length, HmacKey& hmacKey);

/// Checks the HMAC field of a parsed datagram.
bool checkDatagram(const FramingDescriptor& framing, ConstDatagramBuffer buffer,
                   std::size_t headerLength, std::size_t length, HmacKey& hmacKey);

}  // namespace vesk
