// Parsing, checking, relabelling and signing of framed datagrams. The input is the datagram.
#include <algorithm>
#include <array>

#include "datapath/wire/authentication.h"
#include "datapath/wire/framing.h"
#include "flow/hmac_info.h"
#include "support/byte_reader.h"
#include "support/keys.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

constexpr int version = VESK_FRAMING_VERSION;
constexpr const FramingDescriptor& framing = framingOfVersion(version);

/// A receive buffer that starts with a datagram, followed by bytes of an older, longer datagram.
struct Received {
    explicit Received(View datagram) : length(std::min(datagram.size(), maxDatagramSize)) {
        buffer.fill(0xA5);
        std::copy_n(datagram.begin(), length, buffer.begin());
    }
    View datagram() const { return View(buffer).first(length); }

    std::array<std::uint8_t, maxDatagramSize> buffer;
    std::size_t length;
};

HmacInfo recordOf(const TestKey& key) {
    HmacInfo record;
    record.setKey(key.bytes);
    record.setAlgorithm(key.digest == hmacSha256.name ? hmacSha256 : hmacSha1);
    return record;
}

void checkAndSign(Received received, const ParsedDatagram& parsed, const TestKey& key) {
    HmacInfo record = recordOf(key);
    const auto passes = [&] {
        return checkDatagram(framing, received.buffer, parsed.headerLength, received.length,
                             record);
    };
    const Bytes before = toBytes(received.datagram());
    const Bytes signedDatagram = signedWith(version, before, key);
    require(passes() == (before == signedDatagram),
            "a datagram passes if its tag is the right one");
    require(signDatagram(framing, received.buffer, parsed.headerLength, received.length, record),
            "a datagram can be signed");
    require(std::ranges::equal(received.datagram(), signedDatagram),
            "signing writes the tag and nothing else");
    require(passes(), "a datagram just signed passes");

    const std::size_t last = before.size() - 1;
    for (const std::size_t place : {std::size_t{0}, std::size_t{framing.hmacLength - 1U},
                                    std::size_t{framing.hmacLength}, last, before.front() % last}) {
        received.buffer.at(place) ^= 1U;
        require(passes() == (key.bytes.empty() && place >= framing.hmacLength),
                "a changed bit shows where there is a key");
        received.buffer.at(place) ^= 1U;
    }
}

void relabel(Received received, std::uint32_t label) {
    const Bytes expected = relabelled(version, received.datagram(), label);
    rewriteLabel(framing, received.buffer, label);
    require(std::ranges::equal(received.datagram(), expected),
            "a new label changes the label alone");
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const Received received(View(data, size));
    const auto parsed = parseDatagram(framing, received.buffer, received.length);
    const auto expected = readFramed(version, received.datagram());
    require(parsed.has_value() == expected.has_value(), "just the right datagrams are accepted");
    if (parsed) {
        require(parsed->label == expected->label, "the label is read");
        require(parsed->headerLength == expected->length, "the payload is found");
        for (const TestKey& key : someKeys()) {
            checkAndSign(received, *parsed, key);
        }
        relabel(received, ~parsed->label);
        relabel(received, static_cast<std::uint32_t>(size) << 16 | received.buffer.front());
    }
    return 0;
}
