// The keys of vesk_framing.h, and what its functions do with them. One thread at a time uses a key.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "datapath/wire/layout.h"
#include "kept_hmac.h"
#include "vesk_framing.h"

/// C's name of a key.
struct vesk_framing_key {
    /// None for an empty key.
    std::optional<vesk::KeptHmac> hmac;
};

namespace vesk {

/// Fills the HMAC field of a datagram whose header is otherwise complete.
vesk_framing_result signWith(vesk_framing_key& key, const FramingDescriptor& framing,
                             std::span<std::uint8_t> datagram, std::size_t headerLength);

/// Whether the HMAC field of a parsed datagram is that of the key, compared in constant time.
vesk_framing_result checkWith(vesk_framing_key& key, const FramingDescriptor& framing,
                              std::span<const std::uint8_t> datagram, std::size_t headerLength);

}  // namespace vesk
