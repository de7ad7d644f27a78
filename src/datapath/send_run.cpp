#include "datapath/send_run.h"

namespace vesk {

namespace {

/// The limits of one message that the kernel cuts: the number of datagrams, and the bytes of all of
/// them, which with the headers must fit into one datagram of the largest kind.
constexpr std::size_t maxSegments = 64;
constexpr std::size_t maxCutBytes = 65000;

}  // namespace

SendRun longestRun(std::span<const HeldDatagram> datagrams, std::size_t first,
                   std::size_t segmentLimit) {
    const std::size_t size = datagrams[first].bytes.iov_len;
    SendRun run{first, 1, size};
    if (size > segmentLimit) {
        return run;
    }
    for (std::size_t i = first + 1; i < datagrams.size() && run.count < maxSegments; ++i) {
        const std::size_t length = datagrams[i].bytes.iov_len;
        if (datagrams[i].route != datagrams[first].route || length > size ||
            run.bytes + length > maxCutBytes) {
            break;
        }
        ++run.count;
        run.bytes += length;
        if (length < size) {
            break;
        }
    }
    return run;
}

}  // namespace vesk
