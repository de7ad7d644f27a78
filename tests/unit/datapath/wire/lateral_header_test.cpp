#include "datapath/wire/lateral_header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"
#include "support/framed.h"

namespace vesk {
namespace {

using Buffer = std::array<std::uint8_t, maxDatagramSize>;

class LateralHeaderTest : public testing::Test {
 protected:
    LateralHeaderTest() {
        buffer.fill(0xee);
        info.setKey(key.bytes);
        info.setAlgorithm(hmacSha256);
    }

    void put(const Bytes& bytes) { std::ranges::copy(bytes, buffer.begin()); }
    Bytes front(std::size_t length) const {
        return {buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length)};
    }

    const TestKey key{"sha256", Bytes(16, 0x42)};
    HmacInfo info;
    Buffer buffer;
    const Bytes datagram = toBytes("a framed datagram, whatever is in it");
};

SocketAddress ipv4Sender() {
    return IPAddrInfo("192.0.2.7", 4500).socketAddress();
}

SocketAddress ipv6Sender() {
    return IPAddrInfo("2001:db8::7", 4500).socketAddress();
}

Bytes headerFor(std::uint8_t type, const SocketAddress& sender, const TestKey& key) {
    return lateralHeader(type, sender.bytes(), key);
}

TEST_F(LateralHeaderTest, ParsesTypeAndLength) {
    put(headerFor(2, ipv6Sender(), key));
    const auto header = parseLateralHeader(buffer, 100);
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(header->type, 2);
    EXPECT_EQ(header->length, 44U);
    EXPECT_EQ(header->size(), 46U);
}

TEST_F(LateralHeaderTest, AcceptsLengthBytesFrom32To44) {
    for (int length = 0; length < 256; ++length) {
        put({1, static_cast<std::uint8_t>(length)});
        EXPECT_EQ(parseLateralHeader(buffer, 2048).has_value(), length >= 32 && length <= 44)
            << length;
    }
}

TEST_F(LateralHeaderTest, RejectsAnIncompleteHeader) {
    put({1, 32});
    EXPECT_FALSE(parseLateralHeader(buffer, 0));
    EXPECT_FALSE(parseLateralHeader(buffer, 33));
    EXPECT_TRUE(parseLateralHeader(buffer, 34));
    put({1, 44});
    EXPECT_FALSE(parseLateralHeader(buffer, 34));
    EXPECT_FALSE(parseLateralHeader(buffer, 45));
    EXPECT_TRUE(parseLateralHeader(buffer, 46));
}

TEST_F(LateralHeaderTest, AcceptsEveryType) {
    for (const int type : {0, 1, 2, 3, 255}) {
        put({static_cast<std::uint8_t>(type), 32});
        EXPECT_EQ(parseLateralHeader(buffer, 34)->type, type);
    }
}

TEST_F(LateralHeaderTest, PrependsTheSignedAddressOfTheSender) {
    for (const SocketAddress& sender : {ipv4Sender(), ipv6Sender()}) {
        put(datagram);
        const auto length = addLateralHeader(buffer, datagram.size(), sender, info);
        ASSERT_TRUE(length.has_value());
        EXPECT_EQ(*length, 18 + sender.length + datagram.size());
        EXPECT_EQ(front(*length), join({headerFor(1, sender, key), datagram}));
    }
}

TEST_F(LateralHeaderTest, SignsWithZerosWithoutAKey) {
    HmacInfo none;
    put(datagram);
    const auto length = addLateralHeader(buffer, datagram.size(), ipv4Sender(), none);
    ASSERT_TRUE(length.has_value());
    EXPECT_EQ(front(*length), join({headerFor(1, ipv4Sender(), {}), datagram}));
}

TEST_F(LateralHeaderTest, AddsNoHeaderThatDoesNotFit) {
    EXPECT_EQ(addLateralHeader(buffer, 2048 - 34, ipv4Sender(), info), 2048U);
    EXPECT_FALSE(addLateralHeader(buffer, 2048 - 33, ipv4Sender(), info));
    EXPECT_EQ(addLateralHeader(buffer, 2048 - 46, ipv6Sender(), info), 2048U);
    EXPECT_FALSE(addLateralHeader(buffer, 2048 - 45, ipv6Sender(), info));
    EXPECT_FALSE(addLateralHeader(buffer, 2048, ipv4Sender(), info));
}

TEST_F(LateralHeaderTest, AddsNoAddressLongerThanAnIpAddress) {
    SocketAddress sender = ipv6Sender();
    sender.length = 29;
    EXPECT_FALSE(addLateralHeader(buffer, 100, sender, info));
    sender.length = 128;
    EXPECT_FALSE(addLateralHeader(buffer, 100, sender, info));
}

TEST_F(LateralHeaderTest, AddsNoHeaderThatCannotBeSigned) {
    info.digest = []() -> const EVP_MD* { return nullptr; };
    EXPECT_FALSE(addLateralHeader(buffer, 100, ipv4Sender(), info));
}

TEST_F(LateralHeaderTest, KeepsTheReturnPathForAReply) {
    const Bytes forward = headerFor(1, ipv6Sender(), key);
    put(join({forward, datagram}));
    const auto header = parseLateralHeader(buffer, forward.size() + datagram.size());
    ASSERT_TRUE(header.has_value());
    const ReturnPath kept = keepReturnPath(buffer, *header);
    EXPECT_EQ(toBytes(kept.bytes()), Bytes(forward.begin() + 1, forward.end()));
    EXPECT_EQ(kept.bytes().size(), 45U);
}

TEST_F(LateralHeaderTest, PrependsTheReturnPathToAReply) {
    const Bytes kept = headerFor(1, ipv4Sender(), key);
    put(datagram);
    const auto length =
        addReturnHeader(buffer, datagram.size(), ReturnPath(std::span(kept).subspan(1)));
    ASSERT_TRUE(length.has_value());
    EXPECT_EQ(front(*length), join({headerFor(2, ipv4Sender(), key), datagram}));
}

TEST_F(LateralHeaderTest, LeavesAReplyUnchangedWhenTheHeaderDoesNotFit) {
    const ReturnPath path(Bytes(33, 1));
    put(datagram);
    const Buffer before = buffer;
    EXPECT_FALSE(addReturnHeader(buffer, 2048 - 33, path));
    EXPECT_EQ(buffer, before);
    EXPECT_EQ(addReturnHeader(buffer, 2048 - 34, path), 2048U);
}

TEST_F(LateralHeaderTest, RemovesTheHeader) {
    put(join({headerFor(1, ipv4Sender(), key), datagram}));
    const auto header = parseLateralHeader(buffer, 34 + datagram.size());
    EXPECT_EQ(stripLateralHeader(buffer, 34 + datagram.size(), *header), datagram.size());
    EXPECT_EQ(front(datagram.size()), datagram);
}

TEST_F(LateralHeaderTest, RemovesTheHeaderOfAnEmptyDatagram) {
    put(headerFor(1, ipv4Sender(), key));
    EXPECT_EQ(stripLateralHeader(buffer, 34, *parseLateralHeader(buffer, 34)), 0U);
}

TEST_F(LateralHeaderTest, ReturnsTheDatagramUnchanged) {
    put(datagram);
    const auto forwarded = addLateralHeader(buffer, datagram.size(), ipv6Sender(), info);
    const auto forward = parseLateralHeader(buffer, *forwarded);
    const ReturnPath kept = keepReturnPath(buffer, *forward);
    const std::size_t bare = stripLateralHeader(buffer, *forwarded, *forward);
    const auto returned = addReturnHeader(buffer, bare, kept);
    const auto header = parseLateralHeader(buffer, *returned);
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(header->type, lateralReturn);
    EXPECT_TRUE(checkLateralHmac(buffer, *header, info));
    EXPECT_EQ(lateralAddress(buffer, *header), ipv6Sender());
    EXPECT_EQ(stripLateralHeader(buffer, *returned, *header), datagram.size());
    EXPECT_EQ(front(datagram.size()), datagram);
}

TEST_F(LateralHeaderTest, RefusesAChangedAddressOrHmac) {
    put(join({headerFor(2, ipv4Sender(), key), datagram}));
    const auto header = parseLateralHeader(buffer, 100);
    EXPECT_TRUE(checkLateralHmac(buffer, *header, info));
    for (std::size_t i = 1; i < header->size(); ++i) {
        buffer.at(i) ^= 1;
        EXPECT_FALSE(checkLateralHmac(buffer, *header, info)) << i;
        buffer.at(i) ^= 1;
    }
    // Neither the type nor the datagram is covered.
    buffer.at(0) ^= 1;
    buffer.at(header->size()) ^= 1;
    EXPECT_TRUE(checkLateralHmac(buffer, *header, info));
}

TEST_F(LateralHeaderTest, RefusesTheHmacOfAnotherInstance) {
    put(headerFor(2, ipv4Sender(), {"sha256", Bytes(16, 0x43)}));
    const auto header = parseLateralHeader(buffer, 34);
    EXPECT_FALSE(checkLateralHmac(buffer, *header, info));
}

TEST_F(LateralHeaderTest, ReturnsTheAddressOfEitherFamily) {
    for (const SocketAddress& sender : {ipv4Sender(), ipv6Sender()}) {
        put(headerFor(2, sender, key));
        EXPECT_EQ(lateralAddress(buffer, *parseLateralHeader(buffer, 100)), sender);
    }
}

TEST_F(LateralHeaderTest, ReturnsNoAddressWithTheLengthOfAnotherFamily) {
    SocketAddress ipv4TooLong = ipv4Sender();
    ipv4TooLong.length = 28;
    SocketAddress ipv6TooShort = ipv6Sender();
    ipv6TooShort.length = 16;
    SocketAddress between = ipv6Sender();
    between.length = 20;
    SocketAddress otherFamily = ipv4Sender();
    otherFamily.storage.sin6_family = AF_UNIX;
    SocketAddress noFamily = ipv4Sender();
    noFamily.storage.sin6_family = 0;
    for (const SocketAddress& address :
         {ipv4TooLong, ipv6TooShort, between, otherFamily, noFamily}) {
        put(headerFor(2, address, key));
        EXPECT_EQ(lateralAddress(buffer, *parseLateralHeader(buffer, 100)).length, 0U);
    }
}

}  // namespace
}  // namespace vesk
