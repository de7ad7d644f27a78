#include "context/lateral_stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace vesk {
namespace {

TEST(LateralPeersTest, ReturnsThePeersAddressWithTheRequestedPort) {
    LateralPeers peers;
    peers.set(2, IPAddrInfo("127.0.0.1", 8445));
    peers.set(3, IPAddrInfo("::1", 8445));
    EXPECT_EQ(peers.find(2, 4500), IPAddrInfo("127.0.0.1", 4500).socketAddress());
    EXPECT_EQ(peers.find(3, 4500), IPAddrInfo("::1", 4500).socketAddress());
}

TEST(LateralPeersTest, FindsNoUnknownPeer) {
    LateralPeers peers;
    EXPECT_TRUE(peers.empty());
    EXPECT_EQ(peers.find(0, 4500), std::nullopt);
    peers.set(2, IPAddrInfo("127.0.0.1", 8445));
    EXPECT_FALSE(peers.empty());
    EXPECT_EQ(peers.find(0, 4500), std::nullopt);
}

TEST(LateralPeersTest, ReplacesAPeer) {
    LateralPeers peers;
    peers.set(2, IPAddrInfo("127.0.0.1", 8445));
    peers.set(2, IPAddrInfo("127.0.0.2", 8445));
    EXPECT_EQ(peers.find(2, 1), IPAddrInfo("127.0.0.2", 1).socketAddress());
}

TEST(LateralPeersTest, CanBeAddedWhileAnotherThreadLooksThemUp) {
    LateralPeers peers;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            peers.find(7, 1);
        }
    });
    for (std::uint32_t index = 0; index < 1000; ++index) {
        peers.set(index, IPAddrInfo("127.0.0.1", 8445));
    }
    done = true;
    reader.join();
    EXPECT_TRUE(peers.find(999, 1).has_value());
}

TEST(LateralStreamTest, IsNotRunningByDefault) {
    const LateralStream lateral;
    EXPECT_FALSE(lateral.running);
    EXPECT_EQ(lateral.port, 0U);
    EXPECT_EQ(lateral.index, 0U);
    EXPECT_EQ(lateral.maxQels, 0U);
    EXPECT_EQ(lateral.checkingKey.algoName, "sha1");
    EXPECT_FALSE(lateral.checkingKey.hasKey());
}

}  // namespace
}  // namespace vesk
