#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "datapath/datapath_fixture.h"
#include "datapath/downstream.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::IsEmpty;

/// A label that belongs to instance 1 of 2.
constexpr std::uint32_t foreignLabel = 0x10005;
constexpr std::uint32_t ownLabel = 0x20005;

/// Instance 0 of two; instance 1 listens on `neighbour`.
class LateralDispatchTest : public DatapathTest {
 protected:
    void SetUp() override {
        DatapathTest::SetUp();
        startLateral(0, 2);
        context->lateral.peers.set(1, IPAddrInfo("127.0.0.1", 8445));
        context->lateral.port = neighbour.port();
        declareFlow(ownLabel);
    }

    UdpSocket neighbour;
};

const ReturnPath somePath(Bytes(33, 9));

TEST_F(LateralDispatchTest, ForwardsADatagramToTheOwnerOfItsLabel) {
    const Bytes datagram = framed(foreignLabel, payload);
    EXPECT_EQ(arrive(datagram), "");
    EXPECT_EQ(neighbour.receive(),
              join({lateralHeader(1, peer.address().bytes(), lateralKey), datagram}));
    EXPECT_EQ(neighbour.sender(), lateralSocket.address());
    EXPECT_EQ(countsOf(*lateral), (Counts{.txDg = 1}));
    EXPECT_EQ(countsOf(*downstream), Counts());
    EXPECT_THAT(manager().endpoints(), IsEmpty());
}

TEST_F(LateralDispatchTest, ForwardsADatagramOfADeclaredLabelToItsOwner) {
    declareFlow(foreignLabel);
    arrive(framed(foreignLabel, payload));
    EXPECT_TRUE(neighbour.receive().has_value());
    EXPECT_THAT(manager().endpoints(), IsEmpty());
}

TEST_F(LateralDispatchTest, ServesItsOwnLabels) {
    arrive(framed(ownLabel, payload));
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
    EXPECT_TRUE(neighbour.empty());
}

TEST_F(LateralDispatchTest, ServesEveryLabelWhenTheNumberOfInstancesIsZero) {
    startLateral(0, 0);
    declareFlow(foreignLabel);
    arrive(framed(foreignLabel, payload));
    EXPECT_TRUE(upstream.receive().has_value());
    EXPECT_TRUE(neighbour.empty());
}

TEST_F(LateralDispatchTest, ServesEveryLabelWhileTheStreamIsNotRunning) {
    context->lateral.running = false;
    declareFlow(foreignLabel);
    arrive(framed(foreignLabel, payload));
    EXPECT_TRUE(upstream.receive().has_value());
    EXPECT_TRUE(neighbour.empty());
}

TEST_F(LateralDispatchTest, CountsALabelOfAnUnknownOwner) {
    startLateral(0, 3);
    arrive(framed(0x20005, payload));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(neighbour.empty());
    EXPECT_TRUE(upstream.empty());
}

TEST_F(LateralDispatchTest, CountsALabelThatCannotBeForwardedToItsOwner) {
    context->lateralEndpoint.withdraw();
    arrive(framed(foreignLabel, payload));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
}

TEST_F(LateralDispatchTest, ForwardsALateralDatagramNoFurther) {
    arriveLaterally(framed(foreignLabel, payload), somePath);
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_EQ(countsOf(*lateral), Counts());
    EXPECT_TRUE(neighbour.empty());
}

TEST_F(LateralDispatchTest, CountsOnTheLateralEndpointWithoutADownstreamEndpoint) {
    context->downstreamEndpoint.withdraw();
    arriveLaterally(framed(foreignLabel, payload), somePath);
    EXPECT_EQ(countsOf(*lateral), (Counts{.rxDgError = 1}));
}

TEST_F(LateralDispatchTest, CountsADatagramThatIsTooLongForItsHeader) {
    // Header plus datagram: 2049 bytes, then 2048.
    arrive(framed(foreignLabel, Bytes(2048 - 34 - 20 + 1, 1)));
    EXPECT_EQ(countsOf(*lateral), (Counts{.txDgDropped = 1}));
    EXPECT_TRUE(neighbour.empty());
    arrive(framed(foreignLabel, Bytes(2048 - 34 - 20, 1)));
    EXPECT_EQ(neighbour.receive()->size(), 2048U);
    EXPECT_EQ(countsOf(*lateral), (Counts{.txDg = 1, .txDgDropped = 1}));
    EXPECT_EQ(countsOf(*downstream), Counts());
}

TEST_F(LateralDispatchTest, CountsADatagramThatCouldNotBeSent) {
    // The kernel sends nothing to port 0.
    context->lateral.port = 0;
    arrive(framed(foreignLabel, payload));
    EXPECT_EQ(countsOf(*lateral), (Counts{.txDgDropped = 1}));
}

TEST_F(LateralDispatchTest, DoesNotCountARefusal) {
    provokeRefusal(lateralSocket.fd());
    arrive(framed(foreignLabel, payload));
    EXPECT_EQ(countsOf(*lateral), Counts());
}

TEST_F(LateralDispatchTest, StoresTheReturnPathOfALateralDatagram) {
    EXPECT_NE(arriveLaterally(framed(ownLabel, payload), somePath), "");
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
    const EndpointPtr flow = manager().findEndpointByLabel(ownLabel);
    EXPECT_EQ(routeOf(*flow).returnPath, somePath);
    // The same sender, but not over the lateral stream.
    arrive(framed(ownLabel, payload));
    EXPECT_TRUE(routeOf(*flow).returnPath.empty());
}

TEST_F(LateralDispatchTest, KeepsTheReturnPathWhileTheStreamIsNotRunning) {
    arriveLaterally(framed(ownLabel, payload), somePath);
    const EndpointPtr flow = manager().findEndpointByLabel(ownLabel);
    context->lateral.running = false;
    const UdpSocket other;
    arriveFrom(other, framed(ownLabel, payload));
    EXPECT_EQ(routeOf(*flow).returnPath, somePath);
    EXPECT_EQ(routeOf(*flow).peer, other.address());
}

TEST_F(LateralDispatchTest, ForwardsTheSameDatagramFromBothReceiveThreads) {
    declareFlow(ownLabel, keyWords("down_in", {"sha256", {1}}) + keyWords("up_out", {"sha1", {2}}));
    const Bytes datagram = framed(ownLabel, payload, {"sha256", {1}});
    const Bytes expected = framed(0x1111, payload, {"sha1", {2}});
    // Few enough to fit into the receive buffer.
    constexpr std::uint64_t each = 80;
    printedBy([&] {
        const SocketAddress sender = peer.address();
        const auto deliver = [&](VeskEndpointDescriptor& endpoint, const ReturnPath& path) {
            for (std::uint64_t i = 0; i < each; ++i) {
                hand(endpoint, datagram, sender, path);
            }
        };
        std::thread laterally([&] { deliver(*lateral, somePath); });
        deliver(*downstream, {});
        laterally.join();
    });
    // One of the two threads creates the endpoint, and every datagram is signed correctly.
    EXPECT_EQ(manager().endpoints().size(), 1U);
    EXPECT_EQ(countsOf(*manager().findEndpointByLabel(ownLabel)), (Counts{.txDg = 2 * each}));
    for (std::uint64_t i = 0; i < 2 * each; ++i) {
        ASSERT_EQ(upstream.receive(), expected);
    }
}

}  // namespace
}  // namespace vesk
