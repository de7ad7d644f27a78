// How an input selects the next datagram: a byte of choices, a length, and this number of bytes of
// the datagram or its payload.
#pragma once

#include "support/loopback_forwarder.h"

namespace vesk::fuzz {

/// The bits of the byte before each datagram. The lowest three select the label.
enum Choice : unsigned {
    asItIs = 0x08,
    wellSigned = 0x10,
    overLateralStream = 0x20,
    flowExpiresFirst = 0x40,
    paddedToTheLimit = 0x80
};

enum class Towards { upstream, downstream };

/// The raw bytes, or a datagram framed for the selected label with a correct or an empty HMAC.
Bytes nextDatagram(ByteReader& input, unsigned choice, int version, Towards side);

/// The return path of a datagram that arrives over the lateral stream.
ReturnPath someReturnPath();

}  // namespace vesk::fuzz
