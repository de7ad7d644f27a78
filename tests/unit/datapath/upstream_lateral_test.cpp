#include <gtest/gtest.h>

#include "datapath/datapath_fixture.h"
#include "datapath/upstream.h"

namespace vesk {
namespace {

const Bytes answerPayload = toBytes("reply");
constexpr std::uint32_t replyLabel = 5;

/// A flow whose last datagram came over the lateral stream from the instance at `peer`.
class LateralReplyTest : public DatapathTest {
 protected:
    void SetUp() override {
        DatapathTest::SetUp();
        startLateral(0, 1);
        declareFlow(replyLabel);
        arriveLaterally(framed(replyLabel, toBytes("request")), ReturnPath(kept));
        ASSERT_TRUE(upstream.receive().has_value());
        flow = manager().findEndpointByLabel(replyLabel);
        ASSERT_NE(flow, nullptr);
    }
    void TearDown() override {
        flow.reset();
        DatapathTest::TearDown();
    }

    /// Sends one reply from the upstream service and serves it.
    void answer(const Bytes& datagram) {
        upstream.send(datagram, withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(),
                                         portOf(boundAddress(flow->rdsockfd))));
        UpstreamReceiver receiver(context);
        bool keep = false;
        EXPECT_EQ(upstreamSocketRecv(flow->rdsockfd, keep, receiver), 1);
        receiver.endPass(LogDelay());
    }

    const Bytes kept = Bytes(33, 9);
    EndpointPtr flow;
};

TEST_F(LateralReplyTest, IsReturnedOverTheLateralStream) {
    answer(framed(replyLabel, answerPayload));
    EXPECT_EQ(peer.receive(), join({Bytes{2}, kept, framed(0x2222, answerPayload)}));
    EXPECT_EQ(peer.sender(), lateralSocket.address());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
    EXPECT_EQ(countsOf(*lateral), Counts());
}

TEST_F(LateralReplyTest, IsDroppedWhenItsHeaderDoesNotFit) {
    answer(framed(replyLabel, Bytes(2048 - 34 - 20 + 1, 1)));
    EXPECT_TRUE(peer.empty());
    EXPECT_EQ(countsOf(*lateral), (Counts{.txDgDropped = 1}));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    answer(framed(replyLabel, Bytes(2048 - 34 - 20, 1)));
    EXPECT_EQ(peer.receive()->size(), 2048U);
}

TEST_F(LateralReplyTest, IsSentToThePeerAfterADirectRequest) {
    arrive(framed(replyLabel, toBytes("request")));
    answer(framed(replyLabel, answerPayload));
    EXPECT_EQ(peer.receive(), framed(0x2222, answerPayload));
    EXPECT_EQ(peer.sender(), downstreamSocket.address());
}

TEST_F(LateralReplyTest, IsSentToThePeerWhileTheStreamIsNotRunning) {
    context->lateral.running = false;
    answer(framed(replyLabel, answerPayload));
    EXPECT_EQ(peer.receive(), framed(0x2222, answerPayload));
    EXPECT_EQ(peer.sender(), downstreamSocket.address());
}

TEST_F(LateralReplyTest, NeedsNoDownstreamEndpoint) {
    context->downstreamEndpoint.withdraw();
    answer(framed(replyLabel, answerPayload));
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(LateralReplyTest, IsDroppedWithoutALateralEndpoint) {
    context->lateralEndpoint.withdraw();
    answer(framed(replyLabel, answerPayload));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
}

}  // namespace
}  // namespace vesk
