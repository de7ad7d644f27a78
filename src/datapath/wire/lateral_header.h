// Adds, reads and removes the lateral header of a datagram: functions over a buffer, without state.
// Called by the receive threads and the workers for datagrams between instances. Lengths are in
// bytes.
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
    /// The value of the length byte: address and HMAC together.
    std::size_t length;

    /// The length of the whole header, from the type byte to the end of the HMAC.
    std::size_t size() const { return lateralLayout.addressOffset + length; }
};

/// None if the datagram is too short for its header or the length byte is out of range.
std::optional<LateralHeader> parseLateralHeader(ConstDatagramBuffer buffer, std::size_t length);

/// Moves the datagram up and writes a forwarding header in front, with the sender's address, signed
/// with the key. Returns the new length, or none if the header does not fit or libcrypto fails; the
/// buffer's contents are then undefined.
std::optional<std::size_t> addLateralHeader(DatagramBuffer buffer, std::size_t length,
                                            const SocketAddress& sender, HmacKey& signingKey);

/// Moves the datagram up and writes the returning header in front, with the bytes that came with
/// the request. Returns the new length, or none, with the buffer unchanged, if the header does not
/// fit.
std::optional<std::size_t> addReturnHeader(DatagramBuffer buffer, std::size_t length,
                                           const ReturnPath& returnPath);

/// The part of the header that is returned with a reply.
ReturnPath keepReturnPath(ConstDatagramBuffer buffer, const LateralHeader& header);

/// Whether the HMAC of the address in the header was made with this key.
bool checkLateralHmac(ConstDatagramBuffer buffer, const LateralHeader& header,
                      HmacKey& checkingKey);

/// The address in the header; empty if its family is neither IPv4 nor IPv6, or if its length does
/// not match its family. To be used only after the HMAC was checked.
SocketAddress lateralAddress(ConstDatagramBuffer buffer, const LateralHeader& header);

/// Removes the header by moving the datagram to the front. Returns the new length.
std::size_t stripLateralHeader(DatagramBuffer buffer, std::size_t length,
                               const LateralHeader& header);

}  // namespace vesk
