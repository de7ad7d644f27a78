#include "net/upstream_binding.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "net/endpoint_manager_fixture.h"
#include "support/printed.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

class UpstreamBindingTest : public EndpointManagerTest {
 protected:
    EndpointPtr boundTo(std::uint32_t label, const char* host, std::uint16_t localPort) {
        FlowDesc flow;
        flow.up.srcAddrInfo = IPAddrInfo(host, localPort);
        declare(label, flow, {"up_src_addrinfo"});
        return create(label);
    }

    bool bindTo(const EndpointPtr& endpoint) { return bindUpstreamSocket(*endpoint, *manager); }

    /// What an attempt to bind a taken port prints.
    std::string refusalOf(const EndpointPtr& endpoint) {
        return printedBy([&] { EXPECT_FALSE(bindTo(endpoint)); });
    }

    const std::uint16_t port = freePort();
};

const std::string refusal =
    "error Failed bind syscall for upstream endpoint socket: Address already in use\n";

TEST_F(UpstreamBindingTest, BindsBothSockets) {
    const EndpointPtr endpoint = boundTo(5, "127.0.0.1", port);
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(bindTo(endpoint)); }),
              "info Bound upstream endpoint to 127.0.0.1:" + std::to_string(port) + "\n");
    EXPECT_EQ(portOf(boundAddress(endpoint->rdsockfd)), port);
    EXPECT_EQ(portOf(boundAddress(endpoint->wrsockfd)), port);
    EXPECT_EQ(endpoint->boundPort, port);
}

TEST_F(UpstreamBindingTest, DoesNothingWithoutAnAddress) {
    declare(5);
    const EndpointPtr endpoint = create(5);
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(bindTo(endpoint)); }), "");
    EXPECT_EQ(portOf(boundAddress(endpoint->rdsockfd)), 0);
}

TEST_F(UpstreamBindingTest, FailsOnAPortOfAnotherSocket) {
    const UdpSocket other;
    const EndpointPtr endpoint = boundTo(5, "127.0.0.1", other.port());
    EXPECT_EQ(refusalOf(endpoint), refusal);
    EXPECT_EQ(endpoint->boundPort, 0);
    // The endpoint never held the port, so its successor need not wait for it.
    manager->undoCreation(*endpoint);
    EXPECT_FALSE(manager->portLeftRecently(other.port()));
}

TEST_F(UpstreamBindingTest, FailsOnThePortOfAnotherFlow) {
    const EndpointPtr first = boundTo(5, "127.0.0.1", port);
    ASSERT_TRUE(bindTo(first));
    EXPECT_FALSE(manager->portLeftRecently(port));
    EXPECT_EQ(refusalOf(boundTo(6, "127.0.0.1", port)), refusal);
}

TEST_F(UpstreamBindingTest, RemembersReleasedPorts) {
    ASSERT_TRUE(bindTo(boundTo(5, "127.0.0.1", port)));
    manager->removeLabel(5);
    EXPECT_TRUE(manager->portLeftRecently(port));
    EXPECT_FALSE(manager->portLeftRecently(port + 1));
}

TEST_F(UpstreamBindingTest, FailsWhenTheOldEndpointIsNotReleased) {
    const EndpointPtr old = boundTo(5, "127.0.0.1", port);
    ASSERT_TRUE(bindTo(old));
    EXPECT_EQ(refusalOf(boundTo(5, "127.0.0.1", port)), refusal);
    EXPECT_EQ(refusalOf(boundTo(5, "0.0.0.0", port)), refusal);
}

/// The old socket may be closed at any time: between an attempt and the decision to try again, or
/// by a thread that has freed its number but not the port yet.
TEST_F(UpstreamBindingTest, WaitsForAnOldEndpointToBeClosed) {
    int judged = 0;
    for (std::uint32_t label = 100; label < 400; ++label) {
        const std::uint16_t own = freePort();
        EndpointPtr old = boundTo(label, "127.0.0.1", own);
        ASSERT_TRUE(bindTo(old));
        const EndpointPtr successor = boundTo(label, "127.0.0.1", own);
        bool bound = false;
        const auto began = std::chrono::steady_clock::now();
        std::thread binding([&] { bound = bindTo(successor); });
        usleep(static_cast<useconds_t>(label % 20) * 10);
        old.reset();
        const auto took = std::chrono::steady_clock::now() - began;
        binding.join();
        manager->removeLabel(label);
        // On a busy machine the successor may have given up before.
        if (took < std::chrono::milliseconds(20)) {
            ASSERT_TRUE(bound) << label;
            ++judged;
        }
    }
    EXPECT_GT(judged, 0);
}

}  // namespace
}  // namespace vesk
