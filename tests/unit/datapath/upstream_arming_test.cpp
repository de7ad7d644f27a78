// When a socket is read again and when it is armed again in the poll loop.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "datapath/serving_claim.h"
#include "datapath/upstream_fixture.h"
#include "support/printed.h"
#include "support/receive_hook.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UpstreamArmingTest : public UpstreamTest {
 protected:
    /// Serves a socket that yields no datagram. Expects that the end of the pass arms it again and
    /// that its flow is unchanged.
    void expectArmed() {
        serveFlow(false);
        EXPECT_THAT(takePollRequests(), IsEmpty());
        endPass();
        EXPECT_THAT(takePollRequests(),
                    ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
        EXPECT_EQ(manager().findEndpointByLabel(label), flow);
        EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    }
};

TEST_F(UpstreamArmingTest, ArmsADrainedSocketOnceAtTheEndOfThePass) {
    expectArmed();
    endPass();
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, TreatsAnEmptyDatagramAsADrainedSocket) {
    reply({});
    expectArmed();
}

TEST_F(UpstreamArmingTest, ArmsASocketAgainAfterAnIcmpError) {
    provokeRefusal(flow->rdsockfd);
    expectArmed();
}

TEST_F(UpstreamArmingTest, WaitsForTheCreatorOfAnEndpointThatIsNotPrepared) {
    flow->prepared = false;
    reply(framed(label, replyPayload, inKey));
    ThreadMark mark;
    std::thread worker;
    {
        const MutexLock creator(context->endpointCreation);
        worker = std::thread([&] {
            mark.set();
            serveFlow(true);
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
        flow->prepared = true;
    }
    worker.join();
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UpstreamArmingTest, ArmsDrainedSocketsBeforeItWaitsForACreator) {
    serveFlow(false);
    declareFlow(1000);
    const EndpointPtr unprepared = createEndpoint(1000);
    ASSERT_NE(unprepared, nullptr);
    const Served served = serve(unprepared->rdsockfd);
    EXPECT_FALSE(served.keep);
    EXPECT_EQ(served.printed, "");
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

TEST_F(UpstreamArmingTest, LeavesAClaimedEndpointToItsWorker) {
    flow->serving = Serving::claimed;
    reply(framed(label, replyPayload, inKey));
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::moreWanted);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    endPass();
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, ReleasesItsClaimAfterEveryCall) {
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
    reply(framed(label, replyPayload, inKey));
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

TEST_F(UpstreamArmingTest, DeletesAnEndpointThatCannotBeArmed) {
    serveFlow(false);
    context->pollSocket.reset();
    const std::string failure =
        "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    EXPECT_EQ(printedBy([this] { endPass(); }),
              failure +
                  "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint "
                  "of label 0x5a/90, errno 9 (Bad file descriptor). Endpoint Deleted\n");
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
    EXPECT_TRUE(isOpen(flow->rdsockfd));
    printedBy([this] { flow.reset(); });
}

TEST_F(UpstreamArmingTest, ForwardsEveryReplyWhenTwoWorkersServeOneSocket) {
    constexpr int count = 60;
    for (int i = 0; i < count; ++i) {
        reply(framed(label, replyPayload, inKey));
    }
    const auto work = [this] {
        UpstreamReceiver mine(context);
        bool keep = true;
        while (keep) {
            upstreamSocketRecv(flow->rdsockfd, keep, mine);
        }
        endPassOf(mine);
    };
    EXPECT_EQ(printedBy([&work] {
                  std::thread other(work);
                  work();
                  other.join();
              }),
              "");
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(peer.receive(), framed(0x2222, replyPayload, outKey));
    }
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = count, .txDg = 1, .dnTxDg = count}));
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
    // The worker that drained the socket last arms it.
    EXPECT_THAT(takePollRequests(),
                testing::Each(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

TEST_F(UpstreamArmingTest, ArmsASocketOnceWhenTwoWorkersFoundItDrained) {
    UpstreamReceiver other(context);
    bool keep = true;
    serveFlow(false);
    upstreamSocketRecv(flow->rdsockfd, keep, other);
    endPass();
    endPassOf(other);
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
    // When it is drained again, it is armed again.
    upstreamSocketRecv(flow->rdsockfd, keep, other);
    endPassOf(other);
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

TEST_F(UpstreamArmingTest, ReportsASocketErrorWhenAnotherWorkerTriedToClaimIt) {
    const UniqueFd notASocket(memfd_create("not a socket", 0));
    ASSERT_EQ(dup2(notASocket.get(), flow->rdsockfd), flow->rdsockfd);
    bool foundClaimed = false;
    duringNextReceive([&] { foundClaimed = !ServingClaim(*flow).held(); });
    const Served served = serve(flow->rdsockfd);
    EXPECT_TRUE(foundClaimed);
    EXPECT_FALSE(served.keep);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1, .rxDgError = 1}));
    EXPECT_EQ(served.printed,
              "error UP_RECEIVE: network error on upstream endpoint of label 0x5a/90, errno 88 "
              "(Socket operation on non-socket). Endpoint Deleted\n");
}

TEST_F(UpstreamArmingTest, ReadsADrainedSocketAgainWhenAnotherWorkerTriedToClaimIt) {
    duringNextReceive([this] { EXPECT_FALSE(ServingClaim(*flow).held()); });
    serveFlow(true);
    expectArmed();
}

TEST_F(UpstreamArmingTest, LogsNoArmingFailureDuringShutdown) {
    serveFlow(false);
    context->shuttingDown = true;
    retirePollChannel(context->serverPollSock.get());
    EXPECT_EQ(printedBy([this] { endPass(); }), "");
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

TEST_F(UpstreamArmingTest, DeletesTheEndpointAfterThePollLoopFailed) {
    serveFlow(false);
    retirePollChannel(context->serverPollSock.get());
    EXPECT_EQ(printedBy([this] { endPass(); }),
              "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 "
              "Error: Broken pipe\n"
              "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint of "
              "label 0x5a/90, errno 32 (Broken pipe). Endpoint Deleted\n");
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(UpstreamArmingTest, ReleasesItsEndpointsBeforeLinesAreWritten) {
    reply(framed(label, replyPayload, inKey));
    serveFlow(true);
    const int socket = flow->rdsockfd;
    manager().deleteEndpoint(label);
    flow.reset();
    endPass();
    EXPECT_TRUE(isOpen(socket));
    printedBy([this] {
        const LogDelay lines;
        logError("line");
        receiver->endPass(lines);
    });
    takePollRequests();
    EXPECT_FALSE(isOpen(socket));
}

TEST_F(UpstreamArmingTest, DropsADescriptorNumberOfAnEarlierSocket) {
    reply(framed(label, replyPayload, inKey));
    serveFlow(true);
    const int socket = flow->rdsockfd;
    // The number is reused while the worker still has it.
    manager().deleteEndpoint(label);
    flow.reset();
    bool keep = true;
    upstreamSocketRecv(-1, keep, *receiver);
    takePollRequests();
    ASSERT_FALSE(isOpen(socket));
    // The kernel assigns the lowest free number.
    std::vector<UniqueFd> lower;
    while (lower.empty() || lower.back().get() < socket) {
        lower.emplace_back(dup(STDIN_FILENO));
    }
    ASSERT_EQ(lower.back().get(), socket);
    lower.pop_back();
    const EndpointPtr next = createEndpoint(label);
    ASSERT_NE(next, nullptr);
    next->prepared = true;
    ASSERT_EQ(next->rdsockfd, socket);
    upstreamSocketRecv(next->rdsockfd, keep, *receiver);
    EXPECT_FALSE(keep);
    endPass();
    EXPECT_THAT(takePollRequests(), IsEmpty());
    // The event for the new socket comes later.
    upstreamSocketRecv(next->rdsockfd, keep, *receiver);
    endPass();
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, next->rdsockfd}));
}

TEST_F(UpstreamArmingTest, ReleasesADrainedEndpointWhenAnyEndpointIsRemoved) {
    declareFlow(1000);
    const EndpointPtr other = createEndpoint(1000);
    ASSERT_NE(other, nullptr);
    other->prepared = true;
    serveFlow(false);
    const int socket = flow->rdsockfd;
    manager().deleteEndpoint(label);
    flow.reset();
    EXPECT_TRUE(isOpen(socket));
    bool keep = true;
    upstreamSocketRecv(other->rdsockfd, keep, *receiver);
    takePollRequests();
    EXPECT_FALSE(isOpen(socket));
}

}  // namespace
}  // namespace vesk
