// Replies on the socket of a multiplexed flow, which receives replies to any multiplexed flow.
#include <gtest/gtest.h>

#include "datapath/upstream_fixture.h"

namespace vesk {
namespace {

class MultiplexedUpstreamTest : public UpstreamTest {
 protected:
    void SetUp() override {
        UpstreamTest::SetUp();
        open("is_multiplex true");
        declareFlow(otherLabel, "is_multiplex true up_in_key 0102");
        otherPeerOpensItsFlow();
    }
    void TearDown() override {
        other.reset();
        UpstreamTest::TearDown();
    }
    void otherPeerOpensItsFlow() {
        arriveFrom(otherPeer, framed(otherLabel, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        other = manager().findEndpointByLabel(otherLabel);
        ASSERT_NE(other, nullptr);
    }

    static constexpr std::uint32_t otherLabel = 0x77;
    const TestKey otherKey{"sha1", {1, 2}};
    UdpSocket otherPeer;
    EndpointPtr other;
};

TEST_F(MultiplexedUpstreamTest, ReturnsAReplyToTheFlowOfItsLabel) {
    reply(framed(otherLabel, replyPayload, otherKey));
    makePass();
    EXPECT_EQ(otherPeer.receive(), framed(0x2222, replyPayload));
    EXPECT_TRUE(peer.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(countsOf(*other), (Counts{.txDg = 1, .dnTxDg = 1}));
}

TEST_F(MultiplexedUpstreamTest, CountsAForgedReplyOnTheFlowOfItsLabel) {
    reply(framed(otherLabel, replyPayload));
    makePass();
    EXPECT_TRUE(otherPeer.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(countsOf(*other), (Counts{.txDg = 1, .rxDgError = 1}));
}

TEST_F(MultiplexedUpstreamTest, CountsAnUnknownLabelOnTheReceivingEndpoint) {
    for (const std::uint32_t unknown : {0x888U, 0U}) {
        reply(framed(unknown, replyPayload));
        makePass();
    }
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 2, .txDg = 1, .rxDgError = 2}));
    EXPECT_TRUE(peer.empty());
}

/// The other flow after a "set", when a reply with its label arrives before its next request.
class MultiplexedSiblingTest : public MultiplexedUpstreamTest {
 protected:
    void SetUp() override {
        MultiplexedUpstreamTest::SetUp();
        other.reset();
        declareFlow(otherLabel, "is_multiplex true");
        takePollRequests();
        other = createEndpoint(otherLabel);
        ASSERT_NE(other, nullptr);
    }
    void expectReplyDropped() {
        const LocalAddress localBefore = upstreamLocalOf(*other);
        reply(framed(otherLabel, replyPayload, otherKey));
        makePass();
        EXPECT_TRUE(otherPeer.empty());
        EXPECT_EQ(countsOf(*other), (Counts{.dnTxDgDropped = 1}));
        EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
        EXPECT_EQ(manager().findEndpointByLabel(otherLabel), other);
        EXPECT_EQ(upstreamLocalOf(*other), localBefore);
    }
    static LocalAddress upstreamLocalOf(VeskEndpointDescriptor& endpoint) {
        return endpoint.upstreamLocal.load();
    }
};

TEST_F(MultiplexedSiblingTest, DropsAReplyWhileTheEndpointIsBeingPrepared) {
    expectReplyDropped();
}

TEST_F(MultiplexedSiblingTest, DropsAReplyBeforeTheFirstRequest) {
    other->prepared = true;
    expectReplyDropped();
}

TEST_F(MultiplexedSiblingTest, CountsAForgedReplyBeforeTheFirstRequestAsAnError) {
    other->prepared = true;
    reply(framed(otherLabel, replyPayload));
    makePass();
    EXPECT_EQ(countsOf(*other), (Counts{.rxDgError = 1}));
}

}  // namespace
}  // namespace vesk
