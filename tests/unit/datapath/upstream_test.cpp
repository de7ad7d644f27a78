#include "datapath/upstream.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "datapath/upstream_fixture.h"
#include "support/printed.h"
#include "support/receive_hook.h"

namespace vesk {
namespace {

class UpstreamBothVersionsTest : public UpstreamTest, public testing::WithParamInterface<int> {
 protected:
    UpstreamBothVersionsTest() : UpstreamTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Udp, UpstreamBothVersionsTest, testing::Values(1, 2),
                         [](const auto& row) { return "v" + std::to_string(row.param); });

TEST_P(UpstreamBothVersionsTest, RelabelsSignsAndSendsToTheLastSender) {
    reply(framed(label, replyPayload, inKey));
    flow->idle = true;
    makePass();
    EXPECT_EQ(peer.receive(), framed(0x2222, replyPayload, outKey));
    EXPECT_EQ(peer.sender(), downstreamSocket.address());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
    EXPECT_EQ(countsOf(*downstream), Counts());
    EXPECT_FALSE(flow->idle);
}

TEST_P(UpstreamBothVersionsTest, DropsAForgedReplySilently) {
    reply(framed(label, replyPayload, outKey));
    reply(framed(label, replyPayload));
    makePass(2);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 2, .txDg = 1, .rxDgError = 2}));
    EXPECT_TRUE(peer.empty());
}

TEST_P(UpstreamBothVersionsTest, CountsAnInvalidDatagram) {
    reply(Bytes(19, 1));
    makePass();
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .rxDgError = 1}));
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, ForwardsToTheSenderOfTheNewestDatagram) {
    UdpSocket newer;
    arriveFrom(newer, framed(label, toBytes("request")));
    reply(framed(label, replyPayload, inKey));
    makePass();
    EXPECT_TRUE(newer.receive().has_value());
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, CountsADifferentLabelAndForwardsTheReply) {
    reply(framed(0x999, replyPayload, inKey));
    makePass();
    EXPECT_EQ(peer.receive(), framed(0x2222, replyPayload, outKey));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .rxDgError = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, DoesNotCountAMissingLabel) {
    reply(framed(0, replyPayload, inKey));
    makePass();
    EXPECT_TRUE(peer.receive().has_value());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, DropsAReplyThatCannotBeSigned) {
    FlowDesc scratch;
    scratch.down.outHmac.digest = []() -> const EVP_MD* { return nullptr; };
    open(keyWords("down_out", outKey));
    flow->flow.down.outHmac.copyAlgorithmFrom(scratch.down.outHmac);
    reply(framed(label, replyPayload));
    makePass();
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, StoresTheAddressAtWhichRepliesArrive) {
    reply(framed(label, replyPayload, inKey));
    makePass();
    EXPECT_EQ(flow->upstreamLocal.load(),
              (LocalAddress{withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(), 0), true}));
}

TEST_F(UpstreamTest, DropsAReplyAfterStop) {
    context->downstreamEndpoint.withdraw();
    reply(framed(label, replyPayload, inKey));
    makePass();
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
}

TEST_F(UpstreamTest, DropsRepliesOfAFlowThatIsRemovedAfterTheReceiveCall) {
    reply(framed(label, replyPayload, inKey));
    reply(framed(label, replyPayload, inKey));
    hookReceives([this](const ReceiveCall& call) {
        const long received = call.make();
        manager().removeLabel(label);
        return received;
    });
    serve(flow->rdsockfd);
    hookReceives({});
    endPass();
    EXPECT_TRUE(peer.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 2, .txDg = 1, .rxDgError = 2}));
}

TEST_F(UpstreamTest, DropsAReplyForAFlowThatNoPeerHasUsed) {
    flow->route.store({});
    reply(framed(label, replyPayload, inKey));
    makePass();
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

TEST_F(UpstreamTest, DoesNotCountARefusalByThePeer) {
    provokeRefusal(downstreamSocket.fd());
    reply(framed(label, replyPayload, inKey));
    makePass();
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

TEST_F(UpstreamTest, ForwardsATruncatedDatagram) {
    open("");
    reply(framed(label, Bytes(2100, 1)));
    makePass();
    EXPECT_EQ(peer.receive(), framed(0x2222, Bytes(2028, 1)));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, DeletesAnEndpointWhoseSocketFails) {
    // The socket's descriptor number now refers to a file.
    const UniqueFd other(::open("/dev/null", O_RDONLY));
    ASSERT_EQ(dup2(other.get(), flow->rdsockfd), flow->rdsockfd);
    const Served served = serve(flow->rdsockfd);
    EXPECT_EQ(served.printed,
              "error UP_RECEIVE: network error on upstream endpoint of label 0x5a/90, errno 88 "
              "(Socket operation on non-socket). Endpoint Deleted\n");
    EXPECT_FALSE(served.keep);
    EXPECT_EQ(served.result, 0);
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1, .rxDgError = 1}));
    endPass();
}

TEST_F(UpstreamTest, IgnoresAnUnknownSocketSilently) {
    const AtLogLevel level("trace");
    for (const int socket : {-1, 10000}) {
        const Served served = serve(socket);
        EXPECT_EQ(served.result, 0);
        EXPECT_FALSE(served.keep);
        EXPECT_EQ(served.printed, "");
    }
}

TEST_F(UpstreamTest, LogsAndIgnoresAStaleSocketNumber) {
    const std::string read = std::to_string(flow->rdsockfd);
    const std::string write = std::to_string(flow->wrsockfd);
    const Served served = serve(flow->wrsockfd);
    EXPECT_EQ(served.printed, "info upstreamSocketRecv Woke up from a stale sockfd " + write +
                                  " for upEpt label 90 rdsockfd " + read + " wrsockfd " + write +
                                  ", ignored.\n");
    EXPECT_EQ(served.result, 0);
    EXPECT_FALSE(served.keep);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
}

TEST_F(UpstreamTest, SendingOnAnUpstreamSocketIsNotImplemented) {
    bool keep = true;
    EXPECT_EQ(printedBy([&keep] { EXPECT_EQ(upstreamSocketSend(7, keep), 0); }),
              "error upstreamSocketSend:Not Implemented yet\n");
    EXPECT_FALSE(keep);
}

}  // namespace
}  // namespace vesk
