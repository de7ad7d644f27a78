#include "base/socket_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "support/socket_addresses.h"

namespace vesk {
namespace {

TEST(SocketAddressTest, IsEmptyByDefault) {
    const SocketAddress empty;
    EXPECT_EQ(empty.length, 0U);
    EXPECT_TRUE(empty.bytes().empty());
    EXPECT_EQ(empty, SocketAddress());
}

TEST(SocketAddressTest, DiffersInBytesAndInLength) {
    const SocketAddress address = ipv4("127.0.0.1", 1);
    SocketAddress shorter = address;
    shorter.length = 8;
    EXPECT_EQ(address, ipv4("127.0.0.1", 1));
    EXPECT_FALSE(address == ipv4("127.0.0.1", 2));
    EXPECT_FALSE(address == ipv4("127.0.0.2", 1));
    EXPECT_FALSE(address == shorter);
    EXPECT_FALSE(address == SocketAddress());
}

TEST(SocketAddressTest, ReturnsTheBytesInTheKernelsLayout) {
    const SocketAddress address = ipv4("1.2.3.4", 0x0506);
    const auto bytes = address.bytes();
    ASSERT_EQ(bytes.size(), 16U);
    const std::vector<std::uint8_t> portAndAddress(bytes.begin() + 2, bytes.begin() + 8);
    EXPECT_THAT(portAndAddress, testing::ElementsAre(5, 6, 1, 2, 3, 4));
}

TEST(WithPortTest, ReplacesOnlyThePort) {
    EXPECT_EQ(withPort(ipv4("127.0.0.1", 1), 4500), ipv4("127.0.0.1", 4500));
    EXPECT_EQ(withPort(ipv6("::1", 1), 4500), ipv6("::1", 4500));
    EXPECT_EQ(withPort(ipv4("127.0.0.1", 1), 0), ipv4("127.0.0.1", 0));
}

TEST(AddressOfFamilyTest, RequiresTheLengthOfTheFamily) {
    EXPECT_TRUE(isAddressOfFamily(AF_INET, 16));
    EXPECT_TRUE(isAddressOfFamily(AF_INET6, 28));
    EXPECT_FALSE(isAddressOfFamily(AF_INET, 28));
    EXPECT_FALSE(isAddressOfFamily(AF_INET6, 16));
    EXPECT_FALSE(isAddressOfFamily(AF_INET, 0));
    EXPECT_FALSE(isAddressOfFamily(0, 0));
    EXPECT_FALSE(isAddressOfFamily(AF_UNIX, 16));
}

}  // namespace
}  // namespace vesk
