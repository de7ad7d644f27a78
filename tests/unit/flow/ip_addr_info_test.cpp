#include "flow/ip_addr_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "support/socket_addresses.h"

namespace vesk {
namespace {

using testing::MatchesRegex;
using testing::ThrowsMessage;

/// A text that the resolver refuses without a query on the network.
constexpr const char* unresolvableHost = "fe80::1::2";

void expectUnresolved(const IPAddrInfo& info, const std::string& host, std::uint16_t port) {
    EXPECT_EQ(info.host(), host);
    EXPECT_EQ(info.port(), port);
    EXPECT_EQ(info.family(), 0);
    EXPECT_EQ(info.addrLen(), 0U);
    EXPECT_FALSE(info.resolved());
}

TEST(IPAddrInfoTest, IsEmptyByDefault) {
    expectUnresolved(IPAddrInfo(), "", 0);
}

TEST(IPAddrInfoTest, StaysUnresolvedWithoutHostOrPort) {
    expectUnresolved(IPAddrInfo("", 443), "", 443);
    expectUnresolved(IPAddrInfo("10.0.0.1", 0), "10.0.0.1", 0);
    expectUnresolved(IPAddrInfo("", 0), "", 0);
}

TEST(IPAddrInfoTest, DoesNotCallTheResolverWithoutAPort) {
    EXPECT_NO_THROW(expectUnresolved(IPAddrInfo(unresolvableHost, 0), unresolvableHost, 0));
}

TEST(IPAddrInfoTest, ResolvesAnIpv4Address) {
    const IPAddrInfo info("127.0.0.1", 9000);
    EXPECT_EQ(info.host(), "127.0.0.1");
    EXPECT_EQ(info.port(), 9000);
    EXPECT_EQ(info.family(), AF_INET);
    EXPECT_EQ(info.addrLen(), 16U);
    EXPECT_TRUE(info.resolved());
    EXPECT_EQ(info.socketAddress(), ipv4("127.0.0.1", 9000));
}

TEST(IPAddrInfoTest, ResolvesAnIpv6Address) {
    const IPAddrInfo info("::1", 9000);
    EXPECT_EQ(info.family(), AF_INET6);
    EXPECT_EQ(info.addrLen(), 28U);
    EXPECT_EQ(info.socketAddress(), ipv6("::1", 9000));
}

TEST(IPAddrInfoTest, ResolvesAName) {
    if (gethostbyname("localhost") == nullptr) {
        GTEST_SKIP() << "this host cannot resolve localhost";
    }
    const IPAddrInfo info("localhost", 9000);
    EXPECT_EQ(info.host(), "localhost");
    EXPECT_TRUE(info.resolved());
}

TEST(IPAddrInfoTest, StoresTheLowSixteenBitsOfThePort) {
    const IPAddrInfo info("127.0.0.1", 70000);
    EXPECT_EQ(info.port(), 4464);
    EXPECT_TRUE(info.resolved());
}

TEST(IPAddrInfoTest, ResolvesAPortWhoseLowBitsAreZero) {
    const IPAddrInfo info("127.0.0.1", 65536);
    EXPECT_EQ(info.port(), 0);
    EXPECT_TRUE(info.resolved());
}

TEST(IPAddrInfoTest, ThrowsTheNameThatTheResolverCannotFind) {
    EXPECT_THAT([] { IPAddrInfo(unresolvableHost, 53); },
                ThrowsMessage<std::runtime_error>(
                    MatchesRegex("getaddrinfo: fe80::1::2\\|53: err -[0-9]+ errno [0-9]+")));
}

TEST(IPAddrInfoTest, PassesTheWholePortToTheResolver) {
    // The low bits alone are 65535, a valid port.
    EXPECT_THAT([] { IPAddrInfo("127.0.0.1", 4294967295U); },
                ThrowsMessage<std::runtime_error>(MatchesRegex(
                    "getaddrinfo: 127\\.0\\.0\\.1\\|4294967295: err -[0-9]+ errno [0-9]+")));
}

TEST(IPAddrInfoTest, PrintsAnIpv4AddressFromTheNetwork) {
    const SocketAddress received = ipv4("192.0.2.7", 5000);
    const IPAddrInfo info(received.get(), received.length);
    EXPECT_EQ(info.host(), "192.0.2.7");
    EXPECT_EQ(info.port(), 5000);
    EXPECT_EQ(info.family(), AF_INET);
    EXPECT_EQ(info.socketAddress(), received);
}

TEST(IPAddrInfoTest, PrintsAnIpv6AddressFromTheNetwork) {
    const SocketAddress received = ipv6("2001:db8::7", 5000);
    const IPAddrInfo info(received.get(), received.length);
    EXPECT_EQ(info.host(), "2001:db8::7");
    EXPECT_EQ(info.port(), 5000);
    EXPECT_EQ(info.family(), AF_INET6);
    EXPECT_EQ(info.addrLen(), 28U);
}

TEST(IPAddrInfoTest, PrintsTheLongestIpv6AddressInFull) {
    const SocketAddress received = ipv6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 65535);
    const IPAddrInfo info(received.get(), received.length);
    EXPECT_EQ(info.host(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(info.port(), 65535);
}

TEST(IPAddrInfoTest, KeepsTheBytesOfAnyOtherFamily) {
    sockaddr_storage other{};
    other.ss_family = AF_UNIX;
    const IPAddrInfo info(reinterpret_cast<const sockaddr*>(&other), sizeof(other));
    EXPECT_EQ(info.host(), "");
    EXPECT_EQ(info.port(), 0);
    EXPECT_EQ(info.family(), 0);
    EXPECT_EQ(info.addrLen(), 128U);
    EXPECT_EQ(std::memcmp(info.addr(), &other, sizeof(other)), 0);
    EXPECT_TRUE(info.resolved());
}

TEST(IPAddrInfoTest, IsCopiedWithEveryField) {
    const IPAddrInfo info("127.0.0.1", 9000);
    IPAddrInfo assigned("::1", 1);
    assigned = info;
    for (const IPAddrInfo& copy : {IPAddrInfo(info), assigned}) {
        EXPECT_EQ(copy.host(), "127.0.0.1");
        EXPECT_EQ(copy.port(), 9000);
        EXPECT_EQ(copy.family(), AF_INET);
        EXPECT_EQ(copy.socketAddress(), info.socketAddress());
    }
}

TEST(MergeAddressesTest, UsesACompleteNewAddress) {
    const IPAddrInfo merged =
        mergeAddresses(IPAddrInfo("127.0.0.2", 2), IPAddrInfo("127.0.0.1", 1));
    EXPECT_EQ(merged.socketAddress(), ipv4("127.0.0.2", 2));
}

TEST(MergeAddressesTest, KeepsTheOldPort) {
    const IPAddrInfo merged = mergeAddresses(IPAddrInfo("::1", 0), IPAddrInfo("127.0.0.1", 1));
    EXPECT_EQ(merged.host(), "::1");
    EXPECT_EQ(merged.socketAddress(), ipv6("::1", 1));
}

TEST(MergeAddressesTest, KeepsTheOldHost) {
    const IPAddrInfo merged = mergeAddresses(IPAddrInfo("", 9000), IPAddrInfo("127.0.0.1", 1));
    EXPECT_EQ(merged.host(), "127.0.0.1");
    EXPECT_EQ(merged.socketAddress(), ipv4("127.0.0.1", 9000));
}

TEST(MergeAddressesTest, StaysUnresolvedWhileAPartIsMissing) {
    expectUnresolved(mergeAddresses(IPAddrInfo("", 9000), IPAddrInfo()), "", 9000);
    expectUnresolved(mergeAddresses(IPAddrInfo("127.0.0.1", 0), IPAddrInfo("::1", 0)), "127.0.0.1",
                     0);
}

TEST(MergeAddressesTest, ResolvesAgainWhenBothPartsAreMissing) {
    const IPAddrInfo merged = mergeAddresses(IPAddrInfo(), IPAddrInfo("127.0.0.1", 1));
    EXPECT_EQ(merged.socketAddress(), ipv4("127.0.0.1", 1));
}

TEST(MergeAddressesTest, ThrowsWhenTheMergedAddressCannotBeResolved) {
    EXPECT_THROW(mergeAddresses(IPAddrInfo(unresolvableHost, 0), IPAddrInfo("127.0.0.1", 1)),
                 std::runtime_error);
}

TEST(WildcardAddressTest, FollowsTheFamily) {
    EXPECT_EQ(wildcardAddress(AF_INET6), "::");
    EXPECT_EQ(wildcardAddress(AF_INET), "0.0.0.0");
    EXPECT_EQ(wildcardAddress(0), "0.0.0.0");
    EXPECT_EQ(wildcardAddress(AF_UNIX), "0.0.0.0");
}

TEST(WildcardAddressTest, FollowsTheText) {
    EXPECT_EQ(wildcardAddress(std::string_view("::1")), "::");
    EXPECT_EQ(wildcardAddress(std::string_view("no:address")), "::");
    EXPECT_EQ(wildcardAddress(std::string_view("127.0.0.1")), "0.0.0.0");
    EXPECT_EQ(wildcardAddress(std::string_view("")), "0.0.0.0");
}

TEST(FamilyOfAddressTextTest, IsIpv6WhenTheTextContainsAColon) {
    EXPECT_EQ(familyOfAddressText("::"), AF_INET6);
    EXPECT_EQ(familyOfAddressText("a:b"), AF_INET6);
    EXPECT_EQ(familyOfAddressText("127.0.0.1"), AF_INET);
    EXPECT_EQ(familyOfAddressText("localhost"), AF_INET);
    EXPECT_EQ(familyOfAddressText(""), AF_INET);
}

}  // namespace
}  // namespace vesk
