#include "net/upstream_binding.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "net/endpoint_manager_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"
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

TEST_F(UpstreamBindingTest, RemembersReleasedPortsWhileTheyMayBeOpen) {
    EndpointPtr endpoint = boundTo(5, "127.0.0.1", port);
    ASSERT_TRUE(bindTo(endpoint));
    manager->removeLabel(5);
    EXPECT_TRUE(manager->portLeftRecently(port));
    EXPECT_FALSE(manager->portLeftRecently(port + 1));
    endpoint.reset();
    EXPECT_TRUE(eventually([this] { return !manager->portLeftRecently(port); }));
}

TEST_F(UpstreamBindingTest, FailsWhenTheOldEndpointIsNotReleased) {
    const EndpointPtr old = boundTo(5, "127.0.0.1", port);
    ASSERT_TRUE(bindTo(old));
    EXPECT_EQ(refusalOf(boundTo(5, "127.0.0.1", port)), refusal);
    EXPECT_EQ(refusalOf(boundTo(5, "0.0.0.0", port)), refusal);
}

/// The old endpoint is released while its successor waits. A slow machine may take longer than
/// the successor waits, so there is more than one attempt.
TEST_F(UpstreamBindingTest, WaitsForAnOldEndpointToBeClosed) {
    bool bound = false;
    for (int attempt = 0; attempt < 50 && !bound; ++attempt) {
        EndpointPtr old = boundTo(5, "127.0.0.1", port);
        ASSERT_TRUE(bindTo(old));
        const EndpointPtr successor = boundTo(5, "127.0.0.1", port);
        ThreadMark mark;
        std::thread binding([&] {
            mark.set();
            bound = bindTo(successor);
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        old.reset();
        binding.join();
        manager->removeLabel(5);
    }
    EXPECT_TRUE(bound);
}

}  // namespace
}  // namespace vesk
