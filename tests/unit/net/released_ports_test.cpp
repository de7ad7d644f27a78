#include "net/released_ports.h"

#include <gtest/gtest.h>

#include <chrono>

namespace vesk {
namespace {

using std::chrono::milliseconds;
using ReleaseClock = std::chrono::steady_clock;

constexpr milliseconds recent{50};

/// Waits until the port is no longer contained; returns when that was seen.
ReleaseClock::time_point waitForAbsence(const ReleasedPorts& ports, std::uint16_t port) {
    const auto deadline = ReleaseClock::now() + std::chrono::seconds(10);
    while (ports.contains(port)) {
        if (ReleaseClock::now() > deadline) {
            ADD_FAILURE() << "port " << port << " is still contained";
            break;
        }
    }
    return ReleaseClock::now();
}

TEST(ReleasedPortsTest, ContainsNothingAtFirst) {
    const ReleasedPorts ports;
    for (const int port : {0, 1, 65535}) {
        EXPECT_FALSE(ports.contains(static_cast<std::uint16_t>(port)));
    }
}

TEST(ReleasedPortsTest, ContainsAPortForFiftyMilliseconds) {
    ReleasedPorts ports;
    const auto before = ReleaseClock::now();
    ports.add(4500);
    EXPECT_GT(waitForAbsence(ports, 4500) - before, recent);
    EXPECT_FALSE(ports.contains(4500));
}

TEST(ReleasedPortsTest, ContainsOnlyThePortsAdded) {
    ReleasedPorts ports;
    const auto before = ReleaseClock::now();
    ports.add(0);
    ports.add(65535);
    const bool lowest = ports.contains(0);
    const bool highest = ports.contains(65535);
    // Otherwise the machine was too busy to tell.
    if (ReleaseClock::now() - before <= recent) {
        EXPECT_TRUE(lowest);
        EXPECT_TRUE(highest);
    }
    EXPECT_FALSE(ports.contains(1));
    EXPECT_FALSE(ports.contains(65534));
}

TEST(ReleasedPortsTest, CountsFromTheLastOfSeveralReleases) {
    ReleasedPorts ports;
    const auto first = ReleaseClock::now();
    ports.add(4500);
    while (ReleaseClock::now() - first < recent / 2) {
    }
    const auto second = ReleaseClock::now();
    ports.add(4500);
    EXPECT_GT(waitForAbsence(ports, 4500) - second, recent);
}

TEST(ReleasedPortsTest, KeepsRecentPortsWhenOldOnesAreRemoved) {
    ReleasedPorts ports;
    ports.add(1);
    ports.add(2);
    waitForAbsence(ports, 2);
    const auto before = ReleaseClock::now();
    ports.add(3);
    EXPECT_FALSE(ports.contains(1));
    EXPECT_FALSE(ports.contains(2));
    ports.add(2);
    EXPECT_GT(waitForAbsence(ports, 3) - before, recent);
    EXPECT_GT(waitForAbsence(ports, 2) - before, recent);
}

}  // namespace
}  // namespace vesk
