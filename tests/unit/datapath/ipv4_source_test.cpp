// The IPv4 source address of replies and requests, chosen by the kernel or taken from the arrival
// address. On loopback the kernel always chooses 127.0.0.1.

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

    /// The source of a reply to a peer that sent its request to this address.
    std::string replySource(const LocalAddress& asked) {
        localDestination = asked;
        arrive(framed(label, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        reply(framed(label, replyPayload, inKey));
        makePass();
        EXPECT_TRUE(peer.receive().has_value());
        return IPAddrInfo(peer.sender().get(), peer.sender().length).host();
    }

    /// The source of a request on a flow whose local address is this one.
    std::string requestSource(const LocalAddress& local) {
        flow->upstreamLocal.store(local);
        arrive(framed(label, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        return IPAddrInfo(upstream.sender().get(), upstream.sender().length).host();
    }
};

class KernelSourceTest : public Ipv4SourceTest {
 protected:
    KernelSourceTest() : Ipv4SourceTest(Ipv4Source::kernel) {}
};

TEST_F(Ipv4SourceTest, OfAReplyIsTheArrivalAddressOfTheRequest) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.7");
    EXPECT_EQ(replySource(localAddress("127.0.0.8")), "127.0.0.8");
}

TEST_F(Ipv4SourceTest, OfARequestIsTheFlowsLocalAddress) {
    EXPECT_EQ(requestSource(localAddress("127.0.0.7")), "127.0.0.7");
}

TEST_F(Ipv4SourceTest, IsTheKernelsChoiceForAnInvalidSource) {
    EXPECT_EQ(replySource(localAddress("127.255.255.255", false)), "127.0.0.1");
    EXPECT_EQ(requestSource(localAddress("127.255.255.255", false)), "127.0.0.1");
}

TEST_F(Ipv4SourceTest, ChangesWhenOnlyTheValidityOfTheAddressChanges) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7", false)), "127.0.0.1");
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.7");
}

TEST_F(KernelSourceTest, IgnoresTheArrivalAddress) {
    EXPECT_EQ(replySource(localAddress("127.0.0.7")), "127.0.0.1");
    EXPECT_EQ(requestSource(localAddress("127.0.0.7")), "127.0.0.1");
}

TEST_F(Ipv4SourceTest, ReplyFromAMissingAddressDeletesTheEndpoint) {
    localDestination = localAddress("192.0.2.1");
    arrive(framed(label, toBytes("request")));
    EXPECT_TRUE(upstream.receive().has_value());
    reply(framed(label, replyPayload, inKey));
    serveFlow(1);
    EXPECT_THAT(printedBy([this] { endPass(); }),
                testing::StartsWith("error UP_TO_DOWN_SEND: network error on upstream endpoint of "
                                    "label 0x5a/90, errno "));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 2, .dnTxDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(Ipv4SourceTest, RequestFromAMissingAddressDeletesTheEndpoint) {
    flow->upstreamLocal.store(localAddress("192.0.2.1"));
    EXPECT_THAT(arrive(framed(label, toBytes("request"))),
                testing::StartsWith("error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                                    "label 0x5a/90, errno "));
    EXPECT_TRUE(upstream.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1, .txDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(KernelSourceTest, IgnoresThatTheArrivalAddressIsMissing) {
    EXPECT_EQ(replySource(localAddress("192.0.2.1")), "127.0.0.1");
}

}  // namespace
}  // namespace vesk
