// When a socket is read again and when it is armed again in the poll loop.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
    /// Sends as many replies as the worker has room for, so that it serves the socket again.
    void fillTheBatch() {
        for (std::size_t i = 0; i < ReceiveBatch::capacity; ++i) {
            reply(framed(label, replyPayload, inKey));
        }
    }

    /// Serves a socket that yields no datagram. Expects that the end of the pass arms it again and
    /// that its flow is unchanged.
    void expectArmed() {
        serveFlow(0);
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

TEST_F(UpstreamArmingTest, IgnoresAnEmptyDatagram) {
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
            makePass();
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
        flow->prepared = true;
    }
    worker.join();
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UpstreamArmingTest, HoldsAnEndpointThatItWaitedForUntilItsRepliesAreSent) {
    flow->prepared = false;
    fillTheBatch();
    ThreadMark mark;
    bool keep = false;
    std::thread worker;
    {
        const MutexLock creator(context->endpointCreation);
        worker = std::thread([&] {
            mark.set();
            upstreamSocketRecv(flow->rdsockfd, keep, *receiver);
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        flow->prepared = true;
    }
    worker.join();
    EXPECT_TRUE(keep);
    const std::weak_ptr<VeskEndpointDescriptor> served = std::exchange(flow, nullptr);
    manager().deleteEndpoint(label);
    ASSERT_FALSE(served.expired());
    EXPECT_TRUE(peer.empty());
    endPass();
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UpstreamArmingTest, ArmsDrainedSocketsBeforeItWaitsForACreator) {
    serveFlow(0);
    declareFlow(1000);
    const EndpointPtr unprepared = createEndpoint(1000);
    ASSERT_NE(unprepared, nullptr);
    const Served served = serve(unprepared->rdsockfd);
    EXPECT_FALSE(served.keep);
    EXPECT_EQ(served.printed, "");
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

TEST_F(UpstreamArmingTest, LeavesASocketToTheWorkerThatServesIt) {
    const int otherWorker = 0;
    flow->server = &otherWorker;
    reply(framed(label, replyPayload, inKey));
    serveFlow(0);
    EXPECT_EQ(flow->server.load(), &otherWorker);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    endPass();
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, ServesASocketUntilItsRepliesAreSent) {
    reply(framed(label, replyPayload, inKey));
    serveFlow(1);
    EXPECT_EQ(flow->server.load(), receiver.get());
    EXPECT_TRUE(peer.empty());
    endPass();
    EXPECT_EQ(flow->server.load(), nullptr);
    EXPECT_TRUE(peer.receive().has_value());
}

TEST_F(UpstreamArmingTest, ArmsASocketOnceThatItDrainedTwiceInAPass) {
    serveFlow(0);
    reply(framed(label, replyPayload, inKey));
    serveFlow(1);
    endPass();
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
    EXPECT_EQ(flow->server.load(), nullptr);
}

// The worker comes to the second entry of a socket that it drained twice. It ended its claim with
// the first entry, and another worker has claimed the socket since.
TEST_F(UpstreamArmingTest, DoesNotEndTheClaimOfAnotherWorker) {
    const int otherWorker = 0;
    serveFlow(0);
    flow->server = &otherWorker;
    ++flow->armings;
    endPass();
    EXPECT_EQ(flow->server.load(), &otherWorker);
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamArmingTest, HoldsADrainedEndpointUntilItsSocketIsArmed) {
    serveFlow(0);
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
    serveFlow(0);
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
    EXPECT_EQ(flow->server.load(), nullptr);
    // The worker that drained the socket last arms it.
    EXPECT_THAT(takePollRequests(),
                testing::Each(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
}

TEST_F(UpstreamArmingTest, ArmsASocketOnceWhenTwoWorkersFoundItDrained) {
    UpstreamReceiver other(context);
    bool keep = true;
    serveFlow(0);
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

TEST_F(UpstreamArmingTest, ArmsASocketThatAnotherWorkerWasWokenFor) {
    UpstreamReceiver other(context);
    duringNextReceive([&] {
        bool keep = true;
        EXPECT_EQ(upstreamSocketRecv(flow->rdsockfd, keep, other), 0);
        EXPECT_FALSE(keep);
        endPassOf(other);
        EXPECT_THAT(takePollRequests(), IsEmpty());
    });
    expectArmed();
}

TEST_F(UpstreamArmingTest, LogsNoArmingFailureDuringShutdown) {
    serveFlow(0);
    context->shuttingDown = true;
    retirePollChannel(context->serverPollSock.get());
    EXPECT_EQ(printedBy([this] { endPass(); }), "");
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

TEST_F(UpstreamArmingTest, DeletesTheEndpointAfterThePollLoopFailed) {
    serveFlow(0);
    retirePollChannel(context->serverPollSock.get());
    EXPECT_EQ(printedBy([this] { endPass(); }),
              "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 "
              "Error: Broken pipe\n"
              "error Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint of "
              "label 0x5a/90, errno 32 (Broken pipe). Endpoint Deleted\n");
    EXPECT_EQ(manager().findEndpointByLabel(label), nullptr);
}

TEST_F(UpstreamArmingTest, ReleasesItsEndpointsBeforeLinesAreWritten) {
    fillTheBatch();
    EXPECT_TRUE(serve(flow->rdsockfd).keep);
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
    fillTheBatch();
    EXPECT_TRUE(serve(flow->rdsockfd).keep);
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
    serveFlow(0);
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
