#include "control/forwarder_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "control/control_fixture.h"
#include "support/child_process.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class ForwarderCommandsTest : public ControlTest {
 protected:
    Outcome start(const std::string& words) { return run(startForwarder, words); }
    Outcome startOn(std::uint16_t port) {
        return start("addr 127.0.0.1 port " + std::to_string(port));
    }
    std::string stop() { return run(stopForwarder, "").printed; }

    /// Whether a socket is bound to the port.
    static bool isTaken(std::uint16_t port) {
        const UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
        const IPAddrInfo address("127.0.0.1", port);
        return bind(fd.get(), address.addr(), address.addrLen()) != 0;
    }
};

const std::string refusal = "error startForwarder: bad command, ";
const std::string unavailable = "Resource temporarily unavailable";

TEST_F(ForwarderCommandsTest, StartChecksForAnAddressAndThenForAPort) {
    const std::string missingAddress = refusal + "missing or empty 'addr' attr\n";
    expectRefused(startForwarder, "", missingAddress);
    expectRefused(startForwarder, "port 4500", missingAddress);
    expectRefused(startForwarder, "port x1", missingAddress);
    const std::string missingPort = refusal + "missing or empty 'port' attr\n";
    expectRefused(startForwarder, "addr 127.0.0.1", missingPort);
    expectRefused(startForwarder, "addr 127.0.0.1 port", missingPort);
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
}

TEST_F(ForwarderCommandsTest, StartRefusesABadPort) {
    expectRefused(startForwarder, "addr 127.0.0.1 port 45x", refusal + " Bad port value45x\n");
    expectRefused(startForwarder, "addr 127.0.0.1 port x1", refusal + " Bad port valuex1\n");
    expectRefused(startForwarder, "addr 127.0.0.1 port 99999999999999999999",
                  refusal + " Bad port value99999999999999999999\n");
}

TEST_F(ForwarderCommandsTest, StartListens) {
    const std::uint16_t port = freePort();
    const Outcome outcome = startOn(port);
    const std::string text = std::to_string(port);
    EXPECT_TRUE(outcome.succeeded);
    ASSERT_EQ(context->downstreamListeners.size(), 1U);
    EXPECT_THAT(outcome.printed,
                testing::StartsWith("info Making downstream endpoint with address 127.0.0.1 port " +
                                    text + "\ninfo Making socket with family 2 "));
    EXPECT_THAT(outcome.printed,
                EndsWith("info Created downstream receive thread: " +
                         logged(context->downstreamListeners.front().thread.id()) +
                         "\ninfo Vesk started on port " + text + " address 127.0.0.1\n"));
    const EndpointPtr endpoint = context->downstreamEndpoint.load();
    ASSERT_NE(endpoint, nullptr);
    expectReceives(*endpoint);
}

TEST_F(ForwarderCommandsTest, StartAcceptsAPortInAnyBase) {
    const std::uint16_t port = freePort();
    std::ostringstream hexadecimal;
    hexadecimal << "0x" << std::hex << port;
    const Outcome outcome = start("port " + hexadecimal.str() + " addr 127.0.0.1");
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_THAT(outcome.printed, EndsWith("info Vesk started on port " + std::to_string(port) +
                                          " address 127.0.0.1\n"));
}

TEST_F(ForwarderCommandsTest, FailedStartStillLogsThatItStarted) {
    const UdpSocket occupied;
    const Outcome outcome = startOn(occupied.port());
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed,
                EndsWith("error Failed bind syscall for endpoint socket: Address already in use\n"
                         "info Vesk started on port " +
                         std::to_string(occupied.port()) + " address 127.0.0.1\n"));
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
    EXPECT_TRUE(context->downstreamListeners.empty());
    EXPECT_EQ(stop(), "");
}

TEST_F(ForwarderCommandsTest, StartWithoutAUsablePortFailsToBind) {
    const Outcome outcome = start("addr 127.0.0.1 port 0");
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed,
                EndsWith("error Failed bind syscall for endpoint socket: Invalid argument\n"
                         "info Vesk started on port 0 address 127.0.0.1\n"));
}

TEST_F(ForwarderCommandsTest, StartPropagatesAResolverFailure) {
    EXPECT_THROW(start("addr fe80::1::2 port 53"), std::runtime_error);
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
}

TEST_F(ForwarderCommandsTest, StartKeepsTheEndpointWhenItsThreadCannotBeCreated) {
    const std::uint16_t port = freePort();
    const Outcome outcome = withoutThreads([&] { return startOn(port); });
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed, EndsWith("error Failed to create downstream receive thread: " +
                                          unavailable + "\ninfo Vesk started on port " +
                                          std::to_string(port) + " address 127.0.0.1\n"));
    EXPECT_NE(context->downstreamEndpoint.load(), nullptr);
    // A second attempt on the same port succeeds.
    EXPECT_TRUE(startOn(port).succeeded);
}

TEST_F(ForwarderCommandsTest, StopReleasesAnEndpointWithoutAThreadSilently) {
    const std::uint16_t port = freePort();
    withoutThreads([&] { return startOn(port); });
    EXPECT_TRUE(isTaken(port));
    EXPECT_EQ(stop(), "");
    EXPECT_FALSE(isTaken(port));
}

TEST_F(ForwarderCommandsTest, StopEndsTheThreadAndClosesTheSocket) {
    const std::uint16_t port = freePort();
    startOn(port);
    EXPECT_TRUE(isTaken(port));
    EXPECT_EQ(stop(), "info Forwarder listener stopped\n");
    EXPECT_FALSE(isTaken(port));
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
    EXPECT_TRUE(context->downstreamListeners.empty());
    EXPECT_EQ(context.use_count(), 1);
}

TEST_F(ForwarderCommandsTest, StopIsSilentWhenNothingIsRunning) {
    EXPECT_EQ(stop(), "");
    startOn(freePort());
    stop();
    EXPECT_EQ(stop(), "");
    EXPECT_TRUE(run(stopForwarder, "now please").succeeded);
}

TEST_F(ForwarderCommandsTest, StopKeepsTheEndpointOfAThreadThatCannotBeCancelled) {
    checkInChild([this] {
        const std::uint16_t port = freePort();
        startOn(port);
        EXPECT_TRUE(othersEventuallyBlock());
        forbidCancelling();
        EXPECT_EQ(stop(), "error Failed pthread_cancel: error " + unavailable +
                              "\ninfo Forwarder listener stopped\n");
        EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
        EXPECT_TRUE(isTaken(port));
        EXPECT_EQ(stop(), "");
        EXPECT_TRUE(startOn(freePort()).succeeded);
        EXPECT_EQ(context->downstreamListeners.size(), 2U);
    });
}

TEST_F(ForwarderCommandsTest, StopAndStartSucceedOnTheSamePortManyTimes) {
    const std::uint16_t port = freePort();
    std::atomic<bool> done{false};
    // A thread that sends from the endpoint holds it only briefly.
    std::thread sender([&] {
        while (!done) {
            const EndpointPtr endpoint = context->downstreamEndpoint.load();
        }
    });
    for (int round = 0; round < 100; ++round) {
        EXPECT_TRUE(startOn(port).succeeded) << round;
        EXPECT_EQ(stop(), "info Forwarder listener stopped\n");
    }
    done = true;
    sender.join();
}

TEST_F(ForwarderCommandsTest, SecondStartKeepsTheEndpointOfTheFirstThread) {
    const std::uint16_t firstPort = freePort();
    startOn(firstPort);
    const std::weak_ptr<VeskEndpointDescriptor> first = context->downstreamEndpoint.load();
    EXPECT_TRUE(startOn(freePort()).succeeded);
    EXPECT_EQ(context->downstreamListeners.size(), 2U);
    {
        const EndpointPtr held = first.lock();
        ASSERT_NE(held, nullptr);
        expectReceives(*held);
    }
    EXPECT_EQ(stop(), "info Forwarder listener stopped\n");
    EXPECT_TRUE(first.expired());
    EXPECT_FALSE(isTaken(firstPort));
}

TEST_F(ForwarderCommandsTest, SecondStartOnTheSamePortFailsAndKeepsTheFirstThread) {
    const std::uint16_t port = freePort();
    startOn(port);
    const Outcome outcome = startOn(port);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed, HasSubstr("Address already in use\n"));
    EXPECT_EQ(context->downstreamListeners.size(), 1U);
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
    EXPECT_EQ(stop(), "info Forwarder listener stopped\n");
    EXPECT_FALSE(isTaken(port));
}

}  // namespace
}  // namespace vesk
