#include "net/local_address.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "flow/ip_addr_info.h"

namespace vesk {
namespace {

bool validAsConfigured(const char* host) {
    return configuredLocalAddress(IPAddrInfo(host, 4500).socketAddress()).validIpv4Source;
}

TEST(LocalAddressTest, KeepsTheConfiguredAddressAndPort) {
    const SocketAddress address = IPAddrInfo("192.0.2.1", 4500).socketAddress();
    EXPECT_EQ(configuredLocalAddress(address).address, address);
    EXPECT_EQ(configuredLocalAddress(SocketAddress()), LocalAddress());
}

TEST(LocalAddressTest, RecognizesConfiguredAddressesThatAreNotValidSources) {
    const auto rows = std::to_array<std::pair<const char*, bool>>({
        {"192.0.2.1", true},
        {"127.0.0.1", true},
        {"223.255.255.255", true},
        {"224.0.0.0", false},
        {"239.255.255.255", false},
        {"240.0.0.0", true},
        {"255.255.255.254", true},
        {"255.255.255.255", false},
        {"2001:db8::1", false},
        {"::ffff:192.0.2.1", false},
    });
    for (const auto& [host, valid] : rows) {
        EXPECT_EQ(validAsConfigured(host), valid) << host;
    }
}

TEST(LocalAddressTest, IsComparedAsAWhole) {
    const SocketAddress address = IPAddrInfo("192.0.2.1", 4500).socketAddress();
    const SocketAddress other = IPAddrInfo("192.0.2.2", 4500).socketAddress();
    EXPECT_EQ((LocalAddress{address, true}), (LocalAddress{address, true}));
    EXPECT_NE((LocalAddress{address, true}), (LocalAddress{address, false}));
    EXPECT_NE((LocalAddress{address, true}), (LocalAddress{other, true}));
}

}  // namespace
}  // namespace vesk
