// The datagrams of one received message. The kernel may merge datagrams of one sender that arrive
// together (UDP_GRO, udp(7)): they follow each other without a gap, all of one length except the
// last. Pure functions, used by the receive threads and the workers.
//
//   0           segment     2 * segment                length
//   | datagram  | datagram  | ...      | last datagram |
#pragma once

#include <algorithm>
#include <cstddef>

#include "datapath/wire/layout.h"

namespace vesk {

/// The number of datagrams in a message of `length` bytes. A segment size of 0 means that nothing
/// was merged: the message is one datagram, or none if it is empty.
constexpr std::size_t countDatagrams(std::size_t length, std::size_t segmentSize) {
    if (segmentSize == 0) {
        return length == 0 ? 0 : 1;
    }
    return (length + segmentSize - 1) / segmentSize;
}

/// The offset and the length of a datagram within its message, in bytes.
struct DatagramExtent {
    std::size_t offset;
    std::size_t length;
};

/// The extent of the datagram with this index, which is less than the number of datagrams. A
/// datagram longer than `maxDatagramSize` is cut to that length.
constexpr DatagramExtent datagramExtent(std::size_t length, std::size_t segmentSize,
                                        std::size_t index) {
    const std::size_t offset = index * segmentSize;
    const std::size_t whole = segmentSize == 0 ? length : std::min(segmentSize, length - offset);
    return {offset, std::min(whole, maxDatagramSize)};
}

}  // namespace vesk
