#include "net/endpoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/child_process.h"

namespace vesk {
namespace {

void ignoreSockets(int, int) {}

FlowDesc upstreamFlow() {
    FlowDesc flow(5);
    flow.up.addrInfo = IPAddrInfo("::1", 4500);
    flow.up.srcAddrInfo = IPAddrInfo("::1", 4501);
    flow.down.addrInfo = IPAddrInfo("127.0.0.1", 4502);
    flow.down.inHmac.setKey(Bytes{1, 2});
    flow.isMultiplex = true;
    return flow;
}

TEST(EndpointTest, StartsWithTheGivenValues) {
    const VeskEndpointDescriptor endpoint(5, 7, 8, upstreamFlow(), ignoreSockets);
    EXPECT_EQ(endpoint.label, 5U);
    EXPECT_EQ(endpoint.rdsockfd, 7);
    EXPECT_EQ(endpoint.wrsockfd, 8);
    EXPECT_EQ(endpoint.family, AF_INET6);
    EXPECT_TRUE(endpoint.flow.isMultiplex);
    EXPECT_EQ(endpoint.flow.down.inHmac.keyLen, 2U);
    EXPECT_EQ(endpoint.localAddress.host(), "");
    EXPECT_EQ(endpoint.localAddress.port(), 0);
    EXPECT_FALSE(endpoint.idle);
    EXPECT_FALSE(endpoint.prepared);
}

TEST(EndpointTest, StartsWithCountersAtZero) {
    const VeskEndpointDescriptor endpoint(0, 7, 7, FlowDesc(), ignoreSockets);
    const EndpointCounters& counters = endpoint.counters;
    EXPECT_EQ(counters.rxDg.value(), 0U);
    EXPECT_EQ(counters.txDg.value(), 0U);
    EXPECT_EQ(counters.rxDgError.value(), 0U);
    EXPECT_EQ(counters.txDgDropped.value(), 0U);
    EXPECT_EQ(counters.dnTxDg.value(), 0U);
    EXPECT_EQ(counters.dnTxDgDropped.value(), 0U);
}

TEST(EndpointTest, ReceivesIntoABufferOf2048Bytes) {
    VeskEndpointDescriptor endpoint(0, 7, 7, FlowDesc(), ignoreSockets);
}

TEST(EndpointTest, TakesTheFirstRouteFromItsFlow) {
    VeskEndpointDescriptor endpoint(5, 7, 8, upstreamFlow(), ignoreSockets);
    EXPECT_EQ(endpoint.route.load().peer, IPAddrInfo("127.0.0.1", 4502).socketAddress());
    EXPECT_EQ(endpoint.route.load().local.address.length, 0U);
    EXPECT_TRUE(endpoint.route.load().returnPath.empty());
    EXPECT_EQ(endpoint.upstreamLocal.load().address, IPAddrInfo("::1", 4501).socketAddress());
}

TEST(EndpointTest, HandsItsSocketsToTheDeleterOnce) {
    std::vector<std::pair<int, int>> deleted;
    {
        const VeskEndpointDescriptor endpoint(
            5, 7, 8, FlowDesc(),
            [&deleted](int rdsockfd, int wrsockfd) { deleted.emplace_back(rdsockfd, wrsockfd); });
        EXPECT_TRUE(deleted.empty());
    }
    EXPECT_THAT(deleted, testing::ElementsAre(std::pair(7, 8)));
}

TEST(EndpointTest, ExistsUntilItsLastHolderReleasesIt) {
    int deletions = 0;
    EndpointPtr first = std::make_unique<VeskEndpointDescriptor>(
        5, 7, 8, FlowDesc(), [&deletions](int, int) { ++deletions; });
    EndpointPtr second = first;
    first.reset();
    EXPECT_EQ(deletions, 0);
    second.reset();
    EXPECT_EQ(deletions, 1);
}

TEST(EndpointTest, TerminatesTheProcessWhenItHasNoDeleter) {
    const ChildResult child = runInChild([] {
        // The message of the runtime on standard error is not part of the test.
        if (std::freopen("/dev/null", "w", stderr) == nullptr) {
            return 0;
        }
        { const VeskEndpointDescriptor endpoint(5, 7, 8, FlowDesc(), {}); }
        return 0;
    });
    EXPECT_NE(child.waitStatus, 0);
}

TEST(EndpointTest, IsMarkedActiveByTraffic) {
    VeskEndpointDescriptor endpoint(5, 7, 8, FlowDesc(), ignoreSockets);
    endpoint.markActive();
    EXPECT_FALSE(endpoint.idle);
    endpoint.idle = true;
    endpoint.markActive();
    EXPECT_FALSE(endpoint.idle);
}

}  // namespace
}  // namespace vesk
