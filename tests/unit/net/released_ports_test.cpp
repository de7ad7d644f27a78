#include "net/released_ports.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

namespace vesk {
namespace {

using ReleaseClock = std::chrono::steady_clock;

constexpr std::uint16_t somePort = 4500;

TEST(ReleasedPortsTest, ContainsNothingAtFirst) {
    const ReleasedPorts ports;
    for (const std::uint16_t port : {std::uint16_t{0}, std::uint16_t{1}, somePort}) {
        EXPECT_FALSE(ports.contains(port));
    }
}

TEST(ReleasedPortsTest, ContainsOnlyThePortsAdded) {
    ReleasedPorts ports;
    ports.add(somePort);
    ports.add(65535);
    EXPECT_TRUE(ports.contains(somePort));
    EXPECT_TRUE(ports.contains(65535));
    EXPECT_FALSE(ports.contains(somePort + 1));
    EXPECT_FALSE(ports.contains(0));
}

TEST(ReleasedPortsTest, ForgetsAPortAfterASecond) {
    ReleasedPorts ports;
    const auto before = ReleaseClock::now();
    ports.add(somePort);
    const auto deadline = before + std::chrono::seconds(10);
    while (ports.contains(somePort) && ReleaseClock::now() < deadline) {
        usleep(1000);
    }
    EXPECT_FALSE(ports.contains(somePort));
    EXPECT_GE(ReleaseClock::now() - before, std::chrono::seconds(1));
    // It is removed, while one that is added again is not.
    ports.add(65535);
    EXPECT_FALSE(ports.contains(somePort));
    ports.add(somePort);
    EXPECT_TRUE(ports.contains(somePort));
}

}  // namespace
}  // namespace vesk
