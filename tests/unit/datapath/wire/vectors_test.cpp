// The forwarder agrees with the test vectors (docs/vectors.md), and with no changed copy of them.
#include "support/vectors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <span>
#include <string>
#include <vector>

#include "datapath/wire/authentication.h"
#include "datapath/wire/lateral_header.h"
#include "flow/attribute_values.h"
#include "support/printed.h"
#include "support/socket_addresses.h"

namespace vesk {
namespace {

/// A receive buffer with a datagram, cut as by a receive call, and bytes of an older one behind it.
struct InBuffer {
    explicit InBuffer(const Bytes& datagram) : length(std::min(datagram.size(), bytes.size())) {
        bytes.fill(0xa5);
        std::copy_n(datagram.begin(), length, bytes.begin());
    }
    bool holds(const Bytes& datagram) const {
        return std::ranges::equal(std::span(bytes).first(length), datagram);
    }

    std::array<std::uint8_t, maxDatagramSize> bytes;
    std::size_t length;
};

HmacInfo keyRecord(const TestKey& key) {
    HmacInfo record;
    record.setKey(key.bytes);
    record.setAlgorithm(key.digest == "sha1" ? hmacSha1 : hmacSha256);
    return record;
}

/// The datagram with zeros for the HMAC and the label.
Bytes unsignedDatagram(const DatagramVector& vector) {
    Bytes header(framingOfVersion(vector.version).minHeaderSize);
    if (vector.version == 1) {
        const std::size_t headerLength = header.size() + vector.further.size();
        header[32] = static_cast<std::uint8_t>(headerLength >> 8);
        header[33] = static_cast<std::uint8_t>(headerLength);
    }
    return join({header, vector.further, vector.payload});
}

bool opens(const DatagramVector& vector) {
    const FramingDescriptor& framing = framingOfVersion(vector.version);
    const InBuffer in(vector.datagram);
    HmacInfo key = keyRecord(vector.key);
    const auto parsed = parseDatagram(framing, in.bytes, in.length);
    return parsed && parsed->label == vector.label && parsed->headerLength == vector.headerLength &&
           checkDatagram(framing, in.bytes, parsed->headerLength, in.length, key);
}

bool makes(const DatagramVector& vector) {
    const FramingDescriptor& framing = framingOfVersion(vector.version);
    InBuffer out(unsignedDatagram(vector));
    HmacInfo key = keyRecord(vector.key);
    rewriteLabel(framing, out.bytes, vector.label);
    return signDatagram(framing, out.bytes, framing.minHeaderSize + vector.further.size(),
                        out.length, key) &&
           out.holds(vector.datagram) &&
           std::ranges::equal(std::span(out.bytes).first(framing.hmacLength), vector.hmac);
}

bool agrees(const DatagramVector& vector) {
    return opens(vector) && makes(vector);
}

bool agrees(const RelabelVector& vector) {
    const FramingDescriptor& framing = framingOfVersion(vector.version);
    InBuffer buffer(vector.in);
    HmacInfo from = keyRecord(vector.from);
    HmacInfo to = keyRecord(vector.to);
    const auto parsed = parseDatagram(framing, buffer.bytes, buffer.length);
    if (!parsed ||
        !checkDatagram(framing, buffer.bytes, parsed->headerLength, buffer.length, from)) {
        return false;
    }
    rewriteLabel(framing, buffer.bytes, vector.label);
    return signDatagram(framing, buffer.bytes, parsed->headerLength, buffer.length, to) &&
           buffer.holds(vector.out);
}

SocketAddress addressOf(const Bytes& bytes) {
    return {reinterpret_cast<const sockaddr*>(bytes.data()), static_cast<socklen_t>(bytes.size())};
}

bool opens(const LateralVector& vector) {
    InBuffer buffer(vector.datagram);
    HmacInfo key = keyRecord(vector.key);
    const auto header = parseLateralHeader(buffer.bytes, buffer.length);
    if (!header || header->type != vector.type || !checkLateralHmac(buffer.bytes, *header, key)) {
        return false;
    }
    const bool readsFields = std::ranges::equal(keepReturnPath(buffer.bytes, *header).bytes(),
                                                vector.returnInformation) &&
                             lateralAddress(buffer.bytes, *header) == addressOf(vector.address);
    buffer.length = stripLateralHeader(buffer.bytes, buffer.length, *header);
    return readsFields && buffer.holds(vector.framed);
}

bool makes(const LateralVector& vector) {
    InBuffer buffer(vector.framed);
    HmacInfo key = keyRecord(vector.key);
    const auto length =
        vector.type == lateralForward
            ? addLateralHeader(buffer.bytes, buffer.length, addressOf(vector.address), key)
            : addReturnHeader(buffer.bytes, buffer.length, ReturnPath(vector.returnInformation));
    buffer.length = length.value_or(0);
    return buffer.holds(vector.datagram);
}

bool agrees(const LateralVector& vector) {
    return opens(vector) && makes(vector);
}

template <typename Vector>
void expectAgreement(const std::vector<Vector>& vectors) {
    for (const Vector& vector : vectors) {
        EXPECT_TRUE(agrees(vector)) << vector.id;
        const std::vector<Vector> copies = changedCopies(vector);
        for (std::size_t number = 0; number < copies.size(); ++number) {
            EXPECT_FALSE(agrees(copies[number])) << vector.id << ", changed copy " << number;
        }
    }
}

TEST(WireVectorsTest, EachDatagramAgreesAndNoChangedCopyDoes) {
    expectAgreement(datagramVectors());
}

TEST(WireVectorsTest, EachRelabelledDatagramAgreesAndNoChangedCopyDoes) {
    expectAgreement(relabelVectors());
}

TEST(WireVectorsTest, EachLateralDatagramAgreesAndNoChangedCopyDoes) {
    if (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the addresses have the layout of a little-endian host";
    }
    expectAgreement(lateralVectors());
}

TEST(WireVectorsTest, EachLateralAddressIsThatOfItsHostAndPort) {
    if (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the addresses have the layout of a little-endian host";
    }
    for (const LateralVector& vector : lateralVectors()) {
        const bool isIpv6 = vector.host.find(':') != std::string::npos;
        const SocketAddress expected = isIpv6 ? ipv6(vector.host.c_str(), vector.port)
                                              : ipv4(vector.host.c_str(), vector.port);
        EXPECT_EQ(addressOf(vector.address), expected) << vector.id;
    }
}

/// The reason in the words of the vectors; "accepted" if there is none.
std::string reasonOf(const Refusal& refusal) {
    const FramingDescriptor& framing = framingOfVersion(refusal.version);
    const InBuffer in(refusal.datagram);
    HmacInfo key = keyRecord(refusal.key);
    const auto parsed = parseDatagram(framing, in.bytes, in.length);
    if (!parsed) {
        return in.length < framing.minHeaderSize ? "too_short" : "header_length";
    }
    if (checkDatagram(framing, in.bytes, parsed->headerLength, in.length, key)) {
        return "accepted";
    }
    return refusal.datagram.size() > maxDatagramSize ? "too_long" : "hmac";
}

TEST(WireVectorsTest, EachRefusedDatagramIsRefusedForItsReason) {
    for (const Refusal& refusal : refusals("datagram")) {
        EXPECT_EQ(reasonOf(refusal), refusal.reason) << refusal.id;
    }
}

std::string lateralReasonOf(const Refusal& refusal) {
    const InBuffer in(refusal.datagram);
    HmacInfo key = keyRecord(refusal.key);
    const auto header = parseLateralHeader(in.bytes, in.length);
    if (!header) {
        return in.length < lateralLayout.minLateralSize ? "lateral_too_short" : "lateral_length";
    }
    if (header->type != lateralForward && header->type != lateralReturn) {
        return "lateral_type";
    }
    if (!checkLateralHmac(in.bytes, *header, key)) {
        return "lateral_hmac";
    }
    return lateralAddress(in.bytes, *header).length == 0 ? "lateral_address" : "accepted";
}

TEST(WireVectorsTest, EachRefusedLateralDatagramIsRefusedForItsReason) {
    for (const Refusal& refusal : refusals("lateral")) {
        EXPECT_EQ(lateralReasonOf(refusal), refusal.reason) << refusal.id;
    }
}

TEST(WireVectorsTest, EachRefusedKeyIsRefusedAndEachOtherKeyIsNot) {
    const auto takes = [](const Bytes& bytes) {
        HmacInfo key;
        bool taken = false;
        printedBy([&] { taken = Vesk_validateHmacKeyString("down_in_key", toHex(bytes), key); });
        return taken;
    };
    for (const Refusal& refusal : refusals("key")) {
        EXPECT_EQ(refusal.reason, "key_length");
        EXPECT_FALSE(takes(refusal.key.bytes)) << refusal.id;
    }
    for (const DatagramVector& vector : datagramVectors()) {
        EXPECT_EQ(takes(vector.key.bytes), !vector.key.bytes.empty()) << vector.id;
    }
}

}  // namespace
}  // namespace vesk
