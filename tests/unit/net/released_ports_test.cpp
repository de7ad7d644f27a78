#include "net/released_ports.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>

#include "base/unique_fd.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

using ReleaseClock = std::chrono::steady_clock;

class ReleasedPortsTest : public testing::Test {
 protected:
    void release(const UdpSocket& released, const UniqueFd& second) {
        ports.add(released.port(), released.fd(), second.get());
    }

    /// The time during which a port is contained even if its descriptors are closed.
    static void waitForCloseToEnd() { usleep(51 * 1000); }

    static UniqueFd duplicateOf(const UdpSocket& original) { return UniqueFd(dup(original.fd())); }

    ReleasedPorts ports;
    std::optional<UdpSocket> socket{std::in_place};
    const std::uint16_t port = socket->port();
    UniqueFd duplicate = duplicateOf(*socket);
};

TEST_F(ReleasedPortsTest, ContainsNothingAtFirst) {
    for (const int other : {0, 1, 65535, static_cast<int>(port)}) {
        EXPECT_FALSE(ports.contains(static_cast<std::uint16_t>(other)));
    }
}

TEST_F(ReleasedPortsTest, ContainsAPortUntilBothDescriptorsAreClosed) {
    release(*socket, duplicate);
    waitForCloseToEnd();
    EXPECT_TRUE(ports.contains(port));
    socket.reset();
    EXPECT_TRUE(ports.contains(port));
    duplicate.reset();
    EXPECT_FALSE(ports.contains(port));
}

TEST_F(ReleasedPortsTest, ContainsAPortUntilTheReadDescriptorIsClosed) {
    release(*socket, duplicate);
    waitForCloseToEnd();
    duplicate.reset();
    EXPECT_TRUE(ports.contains(port));
    socket.reset();
    EXPECT_FALSE(ports.contains(port));
}

// close(2) frees the number of the descriptor before it releases the port.
TEST_F(ReleasedPortsTest, ContainsAClosedPortForFiftyMilliseconds) {
    const auto before = ReleaseClock::now();
    release(*socket, duplicate);
    socket.reset();
    duplicate.reset();
    while (ports.contains(port)) {
        usleep(1000);
    }
    EXPECT_GE(ReleaseClock::now() - before, std::chrono::milliseconds(50));
}

TEST_F(ReleasedPortsTest, ContainsAPortOfAnIPv6Socket) {
    const UdpSocket other(AF_INET6);
    release(other, duplicateOf(other));
    EXPECT_TRUE(ports.contains(other.port()));
}

TEST_F(ReleasedPortsTest, ContainsOnlyThePortsAdded) {
    const UdpSocket other;
    release(*socket, duplicate);
    EXPECT_FALSE(ports.contains(other.port()));
    EXPECT_FALSE(ports.contains(0));
}

TEST_F(ReleasedPortsTest, RecognizesNumbersThatOtherSocketsHaveByNow) {
    const std::uint16_t closed = freePort();
    ports.add(closed, socket->fd(), duplicate.get());
    waitForCloseToEnd();
    EXPECT_FALSE(ports.contains(closed));
}

TEST_F(ReleasedPortsTest, ForgetsAPortAfterASecond) {
    const auto before = ReleaseClock::now();
    release(*socket, duplicate);
    const auto deadline = before + std::chrono::seconds(10);
    while (ports.contains(port) && ReleaseClock::now() < deadline) {
        usleep(1000);
    }
    EXPECT_FALSE(ports.contains(port));
    EXPECT_GE(ReleaseClock::now() - before, std::chrono::seconds(1));
}

TEST_F(ReleasedPortsTest, KeepsOpenSocketsWhenAnotherIsAdded) {
    UdpSocket other;
    const UniqueFd otherDuplicate = duplicateOf(other);
    release(*socket, duplicate);
    release(other, otherDuplicate);
    EXPECT_TRUE(ports.contains(port));
    EXPECT_TRUE(ports.contains(other.port()));
}

}  // namespace
}  // namespace vesk
