// When a socket is read again, and when the poll loop is asked to watch it again.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <string>
#include <thread>
#include <vector>

#include "datapath/upstream_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UpstreamArmingTest : public UpstreamTest {
 protected:
    /// Serves a socket that brings no datagram: at the end of the pass it has to be watched again,
    /// and nothing may have become of its flow.
    void expectArmed() {
        serveFlow(false);
        EXPECT_THAT(takePollRequests(), IsEmpty());
        EXPECT_THAT(endPass(), IsEmpty());
        EXPECT_THAT(takePollRequests(),
                    ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
        EXPECT_EQ(manager().findEndpointByLabel(label), flow);
        EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    }
};

TEST_F(UpstreamArmingTest, ArmsADrainedSocketAtTheEndOfThePassAndOnce) {
    expectArmed();
    EXPECT_THAT(endPass(), IsEmpty());
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, TakesAnEmptyDatagramForADrainedSocket) {
    reply({});
    expectArmed();
}

TEST_F(UpstreamArmingTest, ArmsASocketAgainAfterAnIcmpError) {
    provokeRefusal(flow->rdsockfd);
    expectArmed();
}

TEST_F(UpstreamArmingTest, LooksAgainAtAnEndpointThatIsBeingPrepared) {
    flow->prepared = false;
    reply(framed(label, payload, inKey));
    const Served served = serve(flow->rdsockfd);
    EXPECT_TRUE(served.keep);
    EXPECT_EQ(served.printed, "");
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    flow->prepared = true;
    serveFlow(true);
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UpstreamArmingTest, LeavesAnEndpointToTheWorkerThatHasIt) {
    flow->serving = Serving::claimed;
    reply(framed(label, payload, inKey));
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::moreWanted);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_THAT(endPass(), IsEmpty());
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, GivesAnEndpointBackAfterEveryCall) {
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
    reply(framed(label, payload, inKey));
    serveFlow(true);
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
}

TEST_F(UpstreamArmingTest, HoldsADrainedEndpointUntilItsSocketIsArmed) {
    serveFlow(false);
    const int socket = flow->rdsockfd;
    manager().deleteEndpoint(label);
    flow.reset();
    EXPECT_TRUE(isOpen(socket));
    endPass();
    const std::vector<PollCtlMsg> requests = takePollRequests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[0], (PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, socket}));
    EXPECT_EQ(requests[2], (PollCtlMsg{EPOLL_CTL_DEL, 0, socket}));
}

TEST_F(UpstreamArmingTest, GivesAFlowUpThatCannotBeArmed) {
    serveFlow(false);
    context->pollSocket.reset();
    const std::string failure =
        "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    EXPECT_EQ(printedBy([this] { EXPECT_THAT(endPass(), IsEmpty()); }),
              failure +
                  "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint "
                  "of label 0x5a/90, errno 9 (Bad file descriptor). Endpoint Deleted\n");
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
    EXPECT_TRUE(isOpen(flow->rdsockfd));
    printedBy([this] { flow.reset(); });
}

TEST_F(UpstreamArmingTest, AnswersEveryReplyWhereTwoWorkersAreAtOneSocket) {
    constexpr int count = 60;
    for (int i = 0; i < count; ++i) {
        reply(framed(label, payload, inKey));
    }
    const auto work = [this] {
        UpstreamReceiver mine(context);
        bool keep = true;
        while (keep) {
            upstreamSocketRecv(flow->rdsockfd, keep, mine);
        }
        std::vector<int> serving;
        mine.endPass(serving);
        EXPECT_THAT(serving, IsEmpty());
    };
    EXPECT_EQ(printedBy([&work] {
                  std::thread other(work);
                  work();
                  other.join();
              }),
              "");
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(peer.receive(), framed(0x2222, payload, outKey));
    }
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = count, .txDg = 1, .dnTxDg = count}));
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
    // Whoever found it drained last has it watched again.
    EXPECT_THAT(takePollRequests(),
                testing::Each(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

/// More flows than this one, all of them drained.
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

TEST_F(ManyFlowsTest, AreArmedEarlierWhereTheyFillADatagramOfTheChannel) {
    drain(maxPollRecords);
    EXPECT_EQ(armedSockets(), sockets);
    endPass();
    EXPECT_THAT(armedSockets(), IsEmpty());
}

TEST_F(ManyFlowsTest, AreTriedOneByOneWhereTheyCannotBeArmedTogether) {
    drain(2);
    context->pollSocket.reset();
    const std::string failure =
        "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    const std::string report =
        "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint of label ";
    const std::string reason = ", errno 9 (Bad file descriptor). Endpoint Deleted\n";
    const std::string printed = printedBy([this] { endPass(); });
    EXPECT_THAT(printed, testing::StartsWith(failure + failure + report + "0x3e8/1000" + reason));
    EXPECT_THAT(printed, testing::HasSubstr(failure + report + "0x3e9/1001" + reason));
    EXPECT_EQ(manager().findEndpointByLabel(1000), nullptr);
    EXPECT_EQ(manager().findEndpointByLabel(1001), nullptr);
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

}  // namespace
}  // namespace vesk
