// The splitting of merged datagrams. The input is the length of a message and its segment size, two
// bytes each.
#include <algorithm>
#include <vector>

#include "datapath/merged_datagrams.h"
#include "support/byte_reader.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

std::size_t twoBytes(View input) {
    return std::size_t{input[0]} << 8U | input[1];
}

/// The datagrams of a message, found byte by byte: each byte belongs to the datagram that began
/// last, and a datagram begins at the first byte and whenever one has the segment size.
std::vector<DatagramExtent> expectedDatagrams(std::size_t length, std::size_t segmentSize) {
    std::vector<DatagramExtent> datagrams;
    for (std::size_t i = 0; i < length; ++i) {
        if (datagrams.empty() || datagrams.back().length == segmentSize) {
            datagrams.push_back({i, 0});
        }
        ++datagrams.back().length;
    }
    for (DatagramExtent& datagram : datagrams) {
        datagram.length = std::min<std::size_t>(datagram.length, 2048);
    }
    return datagrams;
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    if (size < 4) {
        return 0;
    }
    const View input(data, size);
    const std::size_t length = twoBytes(input);
    const std::size_t segmentSize = twoBytes(input.subspan(2));
    const auto expected = expectedDatagrams(length, segmentSize);
    require(countDatagrams(length, segmentSize) == expected.size(), "no datagram is missing");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const DatagramExtent extent = datagramExtent(length, segmentSize, i);
        require(extent.offset == expected[i].offset, "each datagram begins where one ended");
        require(extent.length == expected[i].length, "each datagram has its length");
    }
    return 0;
}
