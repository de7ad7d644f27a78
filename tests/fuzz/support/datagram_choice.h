// How an input says which datagram comes next: a byte of choices, a length, and that many bytes of
// datagram or payload.
#pragma once

#include "support/loopback_forwarder.h"

namespace vesk::fuzz {

/// The bits of the byte in front of each datagram; the lowest three choose the label.
enum Choice : unsigned {
    asItIs = 0x08,
    wellSigned = 0x10,
    overLateralStream = 0x20,
    flowExpiresFirst = 0x40,
    paddedToTheLimit = 0x80
};

enum class Towards { upstream, downstream };

/// The bytes as they stand, or framed for the label chosen, with the right tag or an empty one.
Bytes nextDatagram(ByteReader& input, unsigned choice, int version, Towards side);

/// What comes with a datagram over the lateral stream.
ReturnPath someReturnPath();

}  // namespace vesk::fuzz
