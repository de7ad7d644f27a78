// From which IPv4 address replies and requests leave, by the kernel's choice and by arrival. On
// loopback the kernel chooses 127.0.0.1 for them all.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "datapath/upstream_fixture.h"

namespace vesk {
namespace {

LocalAddress localAddress(const char* host, bool validSource = true) {
    return {withPort(IPAddrInfo(host, 1).socketAddress(), 0), validSource};
}

class Ipv4SourceTest : public UpstreamTest {
 protected:
    explicit Ipv4SourceTest(Ipv4Source source = Ipv4Source::arrival) : UpstreamTest(2, source) {}

    /// Where a reply comes from to a peer that has asked this address.
    std::string replySource(const LocalAddress& asked) {
        localDestination = asked;
        arrive(framed(label, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        reply(framed(label, payload, inKey));
        serveFlow(true);
        EXPECT_TRUE(peer.receive().has_value());
        return IPAddrInfo(peer.sender().get(), peer.sender().length).host();
    }

    /// Where a request comes from, by a flow that is sent from this address.
    std::string requestSource(const LocalAddress& local) {
        {
            const WriteLock lock(flow->routeLock);
            flow->upstreamLocal = local;
        }
        arrive(framed(label, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        return IPAddrInfo(upstream.sender().get(), upstream.sender().length).host();
    }
};

class KernelSourceTest : public Ipv4SourceTest {
 protected:
    KernelSourceTest() : Ipv4SourceTest(Ipv4Source::kernel) {}
};

TEST_F(Ipv4SourceTest, IsTheAddressWhereThePeersDatagramArrived) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.7");
    EXPECT_EQ(replySource(localAddress("127.0.0.8")), "127.0.0.8");
}

TEST_F(Ipv4SourceTest, IsTheFlowsOwnTowardsUpstream) {
    EXPECT_EQ(requestSource(localAddress("127.0.0.7")), "127.0.0.7");
}

TEST_F(Ipv4SourceTest, IsTheKernelsChoiceForWhatIsNoSource) {
    EXPECT_EQ(replySource(localAddress("127.255.255.255", false)), "127.0.0.1");
    EXPECT_EQ(requestSource(localAddress("127.255.255.255", false)), "127.0.0.1");
}

TEST_F(Ipv4SourceTest, FollowsTheRouteWhereOnlyItsValidityChanges) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7", false)), "127.0.0.1");
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.7");
}

TEST_F(KernelSourceTest, IsTheKernelsChoice) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.1");
    EXPECT_EQ(requestSource(localAddress("127.0.0.7")), "127.0.0.1");
}

TEST_F(Ipv4SourceTest, DeletesTheEndpointIfAReplysSourceAddressIsGone) {
    localDestination = localAddress("192.0.2.1");
    arrive(framed(label, toBytes("request")));
    EXPECT_TRUE(upstream.receive().has_value());
    reply(framed(label, payload, inKey));
    const Served served = serve(flow->rdsockfd);
    EXPECT_THAT(served.printed,
                testing::StartsWith("error UP_TO_DOWN_SEND: network error on upstream endpoint of "
                                    "label 0x5a/90, errno "));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 2, .dnTxDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(Ipv4SourceTest, DeletesTheEndpointIfARequestsSourceAddressIsGone) {
    {
        const WriteLock lock(flow->routeLock);
        flow->upstreamLocal = localAddress("192.0.2.1");
    }
    EXPECT_THAT(arrive(framed(label, toBytes("request"))),
                testing::StartsWith("error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                                    "label 0x5a/90, errno "));
    EXPECT_TRUE(upstream.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1, .txDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(KernelSourceTest, IsNotAskedWhetherTheAddressIsGone) {
    EXPECT_EQ(replySource(localAddress("192.0.2.1")), "127.0.0.1");
}

}  // namespace
}  // namespace vesk
