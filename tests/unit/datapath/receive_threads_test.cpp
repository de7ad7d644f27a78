// The downstream and the lateral receive thread over real sockets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/thread_control.h"
#include "datapath/datapath_fixture.h"
#include "datapath/downstream.h"
#include "datapath/lateral.h"
#include "net/socket_options.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::MatchesRegex;

class ReceiveThreadTest : public DatapathTest {
 protected:
    void TearDown() override {
        thread.stop();
        DatapathTest::TearDown();
    }

    void startDownstream() {
        Vesk_requestLocalDestAddr(downstreamSocket.fd(), AF_INET);
        ASSERT_EQ(thread.start([this] { downstreamEptRecv(context, downstream); }), 0);
    }
    void startLateralThread() {
        startLateral(0, 1);
        Vesk_requestLocalDestAddr(lateralSocket.fd(), AF_INET);
        ASSERT_EQ(thread.start([this] { lateralStreamRecv(context, lateral); }), 0);
    }

    /// Whether the endpoint's counters reach these values before a deadline.
    static void expectCounts(const VeskEndpointDescriptor& endpoint, const Counts& expected) {
        EXPECT_TRUE(eventually([&] { return countsOf(endpoint) == expected; }))
            << countsOf(endpoint) << " and not " << expected;
    }

    CancellableThread thread;
};

TEST_F(ReceiveThreadTest, DownstreamForwardsAndStoresTheSender) {
    declareFlow(5);
    EXPECT_THAT(printedBy([this] {
                    startDownstream();
                    peer.send(framed(5, payload), downstreamSocket.address());
                    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
                    expectCounts(*downstream, {.rxDg = 1});
                    thread.stop();
                }),
                MatchesRegex("info Created upstream endpoint: .*\n"));
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(routeOf(*flow).peer, peer.address());
    EXPECT_EQ(routeOf(*flow).local.address,
              withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(), 0));
}

TEST_F(ReceiveThreadTest, DownstreamForwardsATruncatedDatagram) {
    declareFlow(5);
    printedBy([this] {
        startDownstream();
        peer.send(framed(5, Bytes(2100, 1)), downstreamSocket.address());
        EXPECT_EQ(upstream.receive(), framed(0x1111, Bytes(2028, 1)));
    });
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDg = 1}));
}

TEST_F(ReceiveThreadTest, DownstreamReportsAnEmptyDatagramAndContinues) {
    declareFlow(5);
    EXPECT_THAT(printedBy([this] {
                    startDownstream();
                    peer.send({}, downstreamSocket.address());
                    peer.send(framed(5, payload), downstreamSocket.address());
                    EXPECT_TRUE(upstream.receive().has_value());
                    thread.stop();
                }),
                MatchesRegex("error Forwarder downstream endpoint got error while receiving: errno "
                             "= [0-9]+ \\([A-Za-z ]+\\)\\.\ninfo Created .*\n"));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDg = 1}));
}

TEST_F(ReceiveThreadTest, DownstreamIgnoresARefusal) {
    provokeRefusal(downstreamSocket.fd());
    EXPECT_EQ(
        printedBy([this] {
            startDownstream();
            EXPECT_TRUE(eventually([this] { return !hasPendingError(downstreamSocket.fd()); }));
            EXPECT_EQ(thread.stop(), 0);
        }),
        "");
    EXPECT_EQ(countsOf(*downstream), Counts());
}

TEST_F(ReceiveThreadTest, LateralIgnoresARefusal) {
    provokeRefusal(lateralSocket.fd());
    EXPECT_EQ(printedBy([this] {
                  startLateralThread();
                  EXPECT_TRUE(eventually([this] { return !hasPendingError(lateralSocket.fd()); }));
                  EXPECT_EQ(thread.stop(), 0);
              }),
              "");
    EXPECT_EQ(countsOf(*lateral), Counts());
}

/// The lateral thread of an instance that owns every label.
class LateralThreadTest : public ReceiveThreadTest {
 protected:
    void SetUp() override {
        ReceiveThreadTest::SetUp();
        startLateralThread();
    }

    /// A lateral header as the instance with this key makes it, followed by a datagram.
    static Bytes wrapped(std::uint8_t type, const SocketAddress& address, const TestKey& key,
                         const Bytes& datagram) {
        return join({lateralHeader(type, address.bytes(), key), datagram});
    }

    void sendToInstance(const Bytes& datagram) {
        neighbour.send(datagram, lateralSocket.address());
    }

    UdpSocket neighbour;
    const TestKey foreignKey{"sha256", Bytes(16, 0x43)};
};

TEST_F(LateralThreadTest, ForwardsADatagramFromAnotherInstance) {
    declareFlow(5);
    // Only the instance that made the header has the key to check it.
    const Bytes datagram = wrapped(1, peer.address(), foreignKey, framed(5, payload));
    printedBy([&] {
        sendToInstance(datagram);
        EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
        expectCounts(*lateral, {.rxDg = 1});
        thread.stop();
    });
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(routeOf(*flow).peer, neighbour.address());
    EXPECT_EQ(toBytes(routeOf(*flow).returnPath.bytes()),
              Bytes(datagram.begin() + 1, datagram.begin() + 34));
    EXPECT_EQ(routeOf(*flow).local.address,
              withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(), 0));
}

TEST_F(LateralThreadTest, SendsAReturnedReplyToThePeer) {
    const Bytes reply = framed(0x2222, payload);
    sendToInstance(wrapped(2, peer.address(), lateralKey, reply));
    EXPECT_EQ(peer.receive(), reply);
    EXPECT_EQ(peer.sender(), downstreamSocket.address());
    expectCounts(*lateral, {.rxDg = 1, .dnTxDg = 1});
    EXPECT_EQ(countsOf(*downstream), Counts());
}

TEST_F(LateralThreadTest, CountsAReplyWithTheHmacOfAnotherInstance) {
    sendToInstance(wrapped(2, peer.address(), foreignKey, framed(0x2222, payload)));
    expectCounts(*lateral, {.rxDg = 1, .rxDgError = 1});
    EXPECT_TRUE(peer.empty());
}

TEST_F(LateralThreadTest, CountsAnInvalidLateralDatagram) {
    std::uint64_t count = 0;
    const Bytes good = wrapped(2, peer.address(), lateralKey, {});
    Bytes longByte = good;
    longByte[1] = 45;
    Bytes shortByte = good;
    shortByte[1] = 31;
    for (const Bytes& bad :
         {Bytes(good.begin(), good.end() - 1), Bytes{2}, longByte, shortByte,
          wrapped(3, peer.address(), lateralKey, {}), wrapped(0, peer.address(), lateralKey, {})}) {
        sendToInstance(bad);
        ++count;
        expectCounts(*lateral, {.rxDg = count, .rxDgError = count});
    }
    EXPECT_TRUE(peer.empty());
}

TEST_F(LateralThreadTest, DropsAReplyWithAnInvalidAddress) {
    SocketAddress longIpv4 = peer.address();
    longIpv4.length = 28;
    SocketAddress otherFamily = peer.address();
    otherFamily.storage.sin6_family = AF_UNIX;
    std::uint64_t count = 0;
    for (const SocketAddress& address : {longIpv4, otherFamily}) {
        sendToInstance(wrapped(2, address, lateralKey, framed(0x2222, payload)));
        ++count;
        expectCounts(*lateral, {.rxDg = count, .dnTxDgDropped = count});
    }
}

TEST_F(LateralThreadTest, DropsAReplyThatCannotBeSent) {
    // An IPv6 peer and an IPv4 socket to send from.
    const UdpSocket ipv6Peer(AF_INET6);
    sendToInstance(wrapped(2, ipv6Peer.address(), lateralKey, framed(0x2222, payload)));
    expectCounts(*lateral, {.rxDg = 1, .dnTxDgDropped = 1});
}

TEST_F(LateralThreadTest, DropsAReplyAfterStop) {
    context->downstreamEndpoint.withdraw();
    sendToInstance(wrapped(2, peer.address(), lateralKey, framed(0x2222, payload)));
    expectCounts(*lateral, {.rxDg = 1, .dnTxDgDropped = 1});
}

TEST_F(LateralThreadTest, DoesNotCountARefusalByThePeer) {
    provokeRefusal(downstreamSocket.fd());
    sendToInstance(wrapped(2, peer.address(), lateralKey, framed(0x2222, payload)));
    expectCounts(*lateral, {.rxDg = 1});
    EXPECT_TRUE(eventually([this] { return !hasPendingError(downstreamSocket.fd()); }));
    EXPECT_EQ(countsOf(*lateral), (Counts{.rxDg = 1}));
}

TEST_F(LateralThreadTest, ReportsAnEmptyDatagramAndContinues) {
    EXPECT_THAT(printedBy([this] {
                    sendToInstance({});
                    sendToInstance(Bytes{9});
                    expectCounts(*lateral, {.rxDg = 1, .rxDgError = 1});
                    thread.stop();
                }),
                MatchesRegex("error Forwarder lateral stream endpoint got error while receiving: "
                             "errno = [0-9]+ \\([A-Za-z ]+\\)\\.\n"));
}

}  // namespace
}  // namespace vesk
