// Arming the sockets of many flows again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <string>
#include <vector>

#include "datapath/upstream_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::IsEmpty;

/// Further flows, whose sockets are all drained.
class ManyFlowsTest : public UpstreamTest {
 protected:
    void drain(std::uint32_t count) {
        for (std::uint32_t other = 1000; other < 1000 + count; ++other) {
            declareFlow(other);
            const EndpointPtr endpoint = createEndpoint(other);
            ASSERT_NE(endpoint, nullptr);
            endpoint->prepared = true;
            sockets.push_back(endpoint->rdsockfd);
            bool keep = true;
            EXPECT_EQ(upstreamSocketRecv(endpoint->rdsockfd, keep, *receiver), 0);
        }
    }
    std::vector<int> armedSockets() {
        std::vector<int> armed;
        for (const PollCtlMsg& request : takePollRequests()) {
            EXPECT_EQ(request.op, static_cast<std::uint32_t>(EPOLL_CTL_MOD));
            armed.push_back(request.fd);
        }
        return armed;
    }

    std::vector<int> sockets;
};

TEST_F(ManyFlowsTest, AreArmedTogetherAtTheEndOfThePass) {
    drain(3);
    EXPECT_THAT(armedSockets(), IsEmpty());
    endPass();
    EXPECT_EQ(armedSockets(), sockets);
}

TEST_F(ManyFlowsTest, AreArmedEarlyWhenTheyFillADatagramOfThePollChannel) {
    drain(maxPollRecords + 1);
    const int last = sockets.back();
    sockets.pop_back();
    EXPECT_EQ(armedSockets(), sockets);
    endPass();
    EXPECT_THAT(armedSockets(), testing::ElementsAre(last));
}

TEST_F(ManyFlowsTest, AreArmedOneByOneWhenArmingThemTogetherFails) {
    drain(2);
    context->pollSocket.reset();
    const std::string failure =
        "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    const std::string report =
        "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint of label ";
    const std::string reason = ", errno 9 (Bad file descriptor). Endpoint Deleted\n";
    const std::string printed = printedBy([this] { endPass(); });
    EXPECT_THAT(printed, testing::StartsWith(failure + report + "0x3e8/1000" + reason));
    EXPECT_THAT(printed, testing::HasSubstr(failure + report + "0x3e9/1001" + reason));
    EXPECT_EQ(manager().findEndpointByLabel(1000), nullptr);
    EXPECT_EQ(manager().findEndpointByLabel(1001), nullptr);
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

}  // namespace
}  // namespace vesk
