// Signs and checks framed datagrams by HMAC, with what is kept with the key. The caller has
// exclusive use of the key (see HmacKey). Called by the receive threads and the workers for each
// datagram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "datapath/wire/framing.h"
#include "datapath/wire/hmac_key.h"

namespace vesk {

/// The digest over the regions in order, cut or padded with zeros to the size of `tag`; all zeros
/// if the key is empty. False if libcrypto fails; `tag` must not be used then.
bool computeTag(HmacKey& hmacKey, std::span<const std::span<const std::uint8_t>> regions,
                std::span<std::uint8_t> tag);

/// Whether `tag` equals the result of computeTag, compared in constant time; if the key is empty,
/// whether it is all zeros. False if libcrypto fails.
bool checkTag(HmacKey& hmacKey, std::span<const std::span<const std::uint8_t>> regions,
              std::span<const std::uint8_t> tag);

/// Fills the HMAC field of a datagram whose header is otherwise complete. Lengths are in bytes.
/// False if libcrypto fails: the datagram must not be sent.
bool signDatagram(const FramingDescriptor& framing, DatagramBuffer buffer, std::size_t headerLength,
                  std::size_t length, HmacKey& hmacKey);

/// Whether the HMAC field of a parsed datagram is correct. Lengths are in bytes.
bool checkDatagram(const FramingDescriptor& framing, ConstDatagramBuffer buffer,
                   std::size_t headerLength, std::size_t length, HmacKey& hmacKey);

}  // namespace vesk
