// Putting the lateral header in front of a datagram, reading it and taking it off: pure functions
// over a buffer. Called by the receive threads for datagrams that travel between instances.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/socket_address.h"
#include "datapath/wire/framing.h"
#include "datapath/wire/hmac_key.h"

namespace vesk {

struct LateralHeader {
    std::uint8_t type;
    /// The length byte: address and HMAC together.
    std::size_t length;

    /// The header's own length, from the type byte to the HMAC's end.
    std::size_t size() const { return lateralLayout.addressOffset + length; }
};

/// Nothing where the datagram is too short for its header or the length byte is out of range.
std::optional<LateralHeader> parseLateralHeader(ConstDatagramBuffer buffer, std::size_t length);

/// Moves the datagram up and puts a forwarding header with the sender's address in front, signed
/// with the key. The datagram's new length, or nothing where it would not fit or not be signed;
/// the buffer then holds no datagram any more.
std::optional<std::size_t> addLateralHeader(DatagramBuffer buffer, std::size_t length,
                                            const SocketAddress& sender, HmacKey& signingKey);

/// Moves the datagram up and puts the returning header in front: what came with the request. The
/// new length, or nothing, and the buffer as it was, where it would not fit.
std::optional<std::size_t> addReturnHeader(DatagramBuffer buffer, std::size_t length,
                                           const ReturnPath& returnPath);

/// What a reply has to bring back.
ReturnPath keepReturnPath(ConstDatagramBuffer buffer, const LateralHeader& header);

/// Whether the address in the header was signed with this key.
bool checkLateralHmac(ConstDatagramBuffer buffer, const LateralHeader& header,
                      HmacKey& checkingKey);

/// The address in the header; empty where it is of neither IP family, or not as long as its family
/// has it. To be believed only after the HMAC was checked.
SocketAddress lateralAddress(ConstDatagramBuffer buffer, const LateralHeader& header);

/// Moves the datagram down over its header. The new length.
std::size_t stripLateralHeader(DatagramBuffer buffer, std::size_t length,
                               const LateralHeader& header);

}  // namespace vesk
