
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>

#include "datapath/datapath_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

const TestKey inKey{"sha256", {1, 2, 3}};
const TestKey outKey{"sha1", {4, 5}};

class DownstreamTest : public DatapathTest {};

/// Tests that apply to both framing versions.
class BothVersionsTest : public DatapathTest, public testing::WithParamInterface<int> {
 protected:
    BothVersionsTest() : DatapathTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Udp, BothVersionsTest, testing::Values(1, 2),
                         [](const auto& row) { return "v" + std::to_string(row.param); });

TEST_P(BothVersionsTest, RelabelsSignsAndSends) {
    declareFlow(0x5a, keyWords("down_in", inKey) + keyWords("up_out", outKey));
    const std::string printed = arrive(framed(0x5a, payload, inKey));
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload, outKey));
    const EndpointPtr flow = manager().findEndpointByLabel(0x5a);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(printed, "info Created upstream endpoint: label 0x5a/90 sockfds " +
                           std::to_string(flow->rdsockfd) + " " + std::to_string(flow->wrsockfd) +
                           "\n");
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_EQ(countsOf(*downstream), Counts());
    EXPECT_TRUE(flow->prepared);
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_ADD, EPOLLIN, flow->rdsockfd}));
}

TEST_P(BothVersionsTest, SendsUnsignedWithoutAKey) {
    declareFlow(5);
    arrive(framed(5, payload));
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
}

TEST_P(BothVersionsTest, CountsAnInvalidDatagram) {
    std::uint64_t rejected = 0;
    for (const std::size_t length : {1U, 19U}) {
        EXPECT_EQ(arrive(Bytes(length)), "");
        EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = ++rejected}));
    }
    EXPECT_THAT(manager().endpoints(), IsEmpty());
}

TEST_F(DownstreamTest, UsesTheSameEndpointForFurtherDatagrams) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    EXPECT_EQ(arrive(framed(5, payload)), "");
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
    EXPECT_EQ(manager().findEndpointByLabel(5), flow);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 2}));
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(DownstreamTest, CountsADatagramOfAnUnknownLabel) {
    const AtLogLevel level("debug");
    EXPECT_EQ(arrive(framed(0xabcd, payload)),
              "debug Failed to create upstream endpoint with label 43981\n");
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_THAT(manager().endpoints(), IsEmpty());
}

const std::string forgedText = "downstreamPacketReceivedFailed HMAC Check!\n";

TEST_F(DownstreamTest, DeletesTheEndpointOfAForgedFirstDatagram) {
    declareFlow(5, keyWords("down_in", inKey));
    EXPECT_THAT(arrive(framed(5, payload, outKey)), EndsWith("\n" + forgedText));
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(upstream.empty());
    EXPECT_THAT(takePollRequests(), testing::SizeIs(3));
}

TEST_F(DownstreamTest, KeepsAnExistingEndpointAfterAForgedDatagram) {
    declareFlow(5, keyWords("down_in", inKey));
    arrive(framed(5, payload, inKey));
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    upstream.receive();
    const UdpSocket stranger;
    EXPECT_EQ(arriveFrom(stranger, framed(5, payload, outKey)), forgedText);
    EXPECT_EQ(manager().findEndpointByLabel(5), flow);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(upstream.empty());
    // Replies still go to the peer.
    EXPECT_EQ(routeOf(*flow).peer, peer.address());
}

TEST_F(DownstreamTest, NeverSendsFromAnEndpointWhoseFirstDatagramWasForged) {
    // The state in which the other receive thread leaves an endpoint after a forged first datagram
    // and before its deletion.
    declareFlow(5, keyWords("down_in", inKey));
    arrive(framed(5, payload, inKey));
    const EndpointPtr givenUp = manager().findEndpointByLabel(5);
    ASSERT_NE(givenUp, nullptr);
    upstream.receive();
    {
        const MutexLock lock(givenUp->towardsUpstream);
        givenUp->trial = Trial::failed;
    }
    arrive(framed(5, payload, inKey));
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_NE(flow, givenUp);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_EQ(countsOf(*givenUp), (Counts{.txDg = 1}));
    EXPECT_FALSE(upstream.empty());
}

TEST_F(DownstreamTest, LogsAForgedDatagramAtEveryLevel) {
    declareFlow(5);
    openFlow(5);
    const AtLogLevel level("error");
    Bytes forged = framed(5, payload);
    forged[15] = 1;
    EXPECT_EQ(arrive(forged), forgedText);
}

TEST_F(DownstreamTest, DropsADatagramThatCannotBeSigned) {
    FlowDesc scratch;
    scratch.up.addrInfo = IPAddrInfo("127.0.0.1", upstream.port());
    scratch.up.outHmac.setKey(outKey.bytes);
    scratch.up.outHmac.digest = []() -> const EVP_MD* { return nullptr; };
    manager().setLabel(5, scratch, {"up_addrinfo", "up_out_key", "up_out_algo"});
    arrive(framed(5, payload));
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDgDropped = 1}));
    EXPECT_TRUE(upstream.empty());
}

TEST_F(DownstreamTest, RefusesADatagramThatCannotBeChecked) {
    FlowDesc scratch;
    scratch.up.addrInfo = IPAddrInfo("127.0.0.1", upstream.port());
    scratch.down.inHmac.setKey(inKey.bytes);
    scratch.down.inHmac.digest = []() -> const EVP_MD* { return nullptr; };
    manager().setLabel(5, scratch, {"up_addrinfo", "down_in_key", "down_in_algo"});
    EXPECT_THAT(arrive(framed(5, payload, inKey)), EndsWith(forgedText));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(upstream.empty());
}

TEST_F(DownstreamTest, StoresTheLastSenderAndItsLocalAddress) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    EXPECT_EQ(routeOf(*flow).peer, peer.address());
    EXPECT_EQ(routeOf(*flow).local, localDestination);
    const UdpSocket newer;
    localDestination = {withPort(IPAddrInfo("127.0.0.2", 1).socketAddress(), 0), true};
    arriveFrom(newer, framed(5, payload));
    EXPECT_EQ(routeOf(*flow).peer, newer.address());
    EXPECT_EQ(routeOf(*flow).local, localDestination);
}

TEST_F(DownstreamTest, SetsTheDscpOfADatagram) {
    declareFlow(5, "up_out_dscp_v4 46");
    const int on = 1;
    ASSERT_EQ(setsockopt(upstream.fd(), IPPROTO_IP, IP_RECVTOS, &on, sizeof(on)), 0);
    arrive(framed(5, payload));
    std::array<std::uint8_t, 64> control{};
    Bytes datagram(100);
    iovec element{datagram.data(), datagram.size()};
    msghdr header{};
    header.msg_iov = &element;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    ASSERT_GT(recvmsg(upstream.fd(), &header, 0), 0);
    const cmsghdr* const first = CMSG_FIRSTHDR(&header);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->cmsg_type, IP_TOS);
    EXPECT_EQ(*CMSG_DATA(first), 184);
}

TEST_F(DownstreamTest, ClearsTheIdleMarkWithEveryDatagramSentInFull) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    flow->idle = true;
    arrive(framed(5, payload));
    EXPECT_FALSE(flow->idle);
}

TEST_F(DownstreamTest, RefusalIsNotCountedAndLeavesTheFlowIdle) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    provokeRefusal(flow->wrsockfd);
    flow->idle = true;
    EXPECT_EQ(arrive(framed(5, payload)), "");
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_TRUE(flow->idle);
    EXPECT_EQ(manager().findEndpointByLabel(5), flow);
    arrive(framed(5, payload));
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
}

TEST_F(DownstreamTest, DeletesAnEndpointThatCannotSend) {
    // SO_BROADCAST is not set, so the kernel refuses to send.
    declare("label 5 up_ip 255.255.255.255 up_port 4500");
    EXPECT_THAT(arrive(framed(5, payload)),
                EndsWith("error DOWN_TO_UP_SEND: network error on upstream endpoint of label "
                         "0x5/5, errno 13 (Permission denied). Endpoint Deleted\n"));
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
    EXPECT_EQ(countsOf(*downstream), Counts());
}

TEST_F(DownstreamTest, CountsAFailedSendOnTheFlow) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    ASSERT_EQ(connect(flow->wrsockfd, upstream.address().get(), upstream.address().length), 0);
    ASSERT_EQ(shutdown(flow->wrsockfd, SHUT_WR), 0);
    EXPECT_EQ(arrive(framed(5, payload)),
              "error DOWN_TO_UP_SEND: network error on upstream endpoint of label 0x5/5, errno 32 "
              "(Broken pipe). Endpoint Deleted\n");
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1, .txDgDropped = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
}

}  // namespace
}  // namespace vesk
