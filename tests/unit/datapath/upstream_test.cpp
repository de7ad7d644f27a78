#include "datapath/upstream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "datapath/datapath_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const TestKey inKey{"sha256", {1, 2, 3}};
const TestKey outKey{"sha1", {4, 5}};
const Bytes payload = toBytes("reply");
constexpr std::uint32_t label = 0x5a;

/// One flow that a peer has opened; the test serves its socket as a worker does.
class UpstreamTest : public DatapathTest {
 protected:
    explicit UpstreamTest(int framingVersion = 2) : DatapathTest(framingVersion) {}

    void SetUp() override {
        DatapathTest::SetUp();
        receiver = std::make_unique<UpstreamReceiver>(context);
        open(keyWords("up_in", inKey) + keyWords("down_out", outKey));
    }
    void TearDown() override {
        receiver.reset();
        flow.reset();
        DatapathTest::TearDown();
    }

    /// Opens the flow afresh with these attributes besides its addresses and labels.
    void open(const std::string& words) {
        flow.reset();
        printedBy([this] { manager().removeLabel(label); });
        declareFlow(label, words);
        flow = openFlow(label);
        ASSERT_NE(flow, nullptr);
    }

    void reply(const Bytes& datagram) { upstream.send(datagram, flowAddress(*flow)); }
    static SocketAddress flowAddress(const VeskEndpointDescriptor& endpoint) {
        return withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(),
                        portOf(boundAddress(endpoint.rdsockfd)));
    }

    struct Served {
        int result = -1;
        bool keep = false;
        std::string printed;
    };
    Served serve(int socket) {
        Served served;
        served.keep = true;
        served.printed =
            printedBy([&] { served.result = upstreamSocketRecv(socket, served.keep, *receiver); });
        return served;
    }
    /// Serves the flow's socket once; it must say what is expected and print nothing.
    void serveFlow(bool expectedKeep) {
        const Served served = serve(flow->rdsockfd);
        EXPECT_EQ(served.keep, expectedKeep);
        EXPECT_EQ(served.result, expectedKeep ? 1 : 0);
        EXPECT_EQ(served.printed, "");
    }
    /// What the end of a pass adds to the sockets to be served.
    std::vector<int> endPass() {
        std::vector<int> serving;
        receiver->endPass(serving);
        return serving;
    }

    std::unique_ptr<UpstreamReceiver> receiver;
    EndpointPtr flow;
};

class UpstreamBothVersionsTest : public UpstreamTest, public testing::WithParamInterface<int> {
 protected:
    UpstreamBothVersionsTest() : UpstreamTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Udp, UpstreamBothVersionsTest, testing::Values(1, 2),
                         [](const auto& row) { return "v" + std::to_string(row.param); });

TEST_P(UpstreamBothVersionsTest, RelabelsSignsAndSendsToTheLastSender) {
    reply(framed(label, payload, inKey));
    flow->idle = true;
    serveFlow(true);
    EXPECT_EQ(peer.receive(), framed(0x2222, payload, outKey));
    EXPECT_EQ(peer.sender(), downstreamSocket.address());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
    EXPECT_EQ(countsOf(*downstream), Counts());
    EXPECT_FALSE(flow->idle);
}

TEST_P(UpstreamBothVersionsTest, DropsAForgedReplyWithoutAWord) {
    reply(framed(label, payload, outKey));
    reply(framed(label, payload));
    serveFlow(true);
    serveFlow(true);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 2, .txDg = 1, .rxDgError = 2}));
    EXPECT_TRUE(peer.empty());
}

TEST_P(UpstreamBothVersionsTest, CountsWhatIsNoDatagram) {
    reply(Bytes(19, 1));
    serveFlow(true);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .rxDgError = 1}));
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, AnswersTheSenderOfTheNewestDatagram) {
    UdpSocket newer;
    arriveFrom(newer, framed(label, toBytes("request")));
    reply(framed(label, payload, inKey));
    serveFlow(true);
    EXPECT_TRUE(newer.receive().has_value());
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, CountsADifferentLabelAndCarriesOn) {
    reply(framed(0x999, payload, inKey));
    serveFlow(true);
    EXPECT_EQ(peer.receive(), framed(0x2222, payload, outKey));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .rxDgError = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, DoesNotCountAMissingLabel) {
    reply(framed(0, payload, inKey));
    serveFlow(true);
    EXPECT_TRUE(peer.receive().has_value());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, ReturnsNothingThatCannotBeSigned) {
    FlowDesc scratch;
    scratch.down.outHmac.digest = []() -> const EVP_MD* { return nullptr; };
    open(keyWords("down_out", outKey));
    flow->flow.down.outHmac.copyAlgorithmFrom(scratch.down.outHmac);
    reply(framed(label, payload));
    serveFlow(true);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
    EXPECT_TRUE(peer.empty());
}

TEST_F(UpstreamTest, LearnsTheAddressThatRepliesArriveOn) {
    reply(framed(label, payload, inKey));
    serveFlow(true);
    const ReadLock lock(flow->routeLock);
    EXPECT_EQ(flow->upstreamLocal, withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(), 0));
}

TEST_F(UpstreamTest, DropsAReplyAfterStop) {
    context->downstreamEndpoint.exchange(nullptr);
    reply(framed(label, payload, inKey));
    serveFlow(true);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
}

TEST_F(UpstreamTest, CannotAnswerAFlowThatNoPeerHasUsed) {
    {
        const WriteLock lock(flow->routeLock);
        flow->route = {};
    }
    reply(framed(label, payload, inKey));
    const Served served = serve(flow->rdsockfd);
    EXPECT_EQ(served.printed,
              "error UP_TO_DOWN_SEND: network error on upstream endpoint of label 0x5a/90, errno "
              "89 (Destination address required). Endpoint Deleted\n");
    EXPECT_TRUE(served.keep);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDgDropped = 1}));
}

TEST_F(UpstreamTest, CountsNoRefusalOfThePeer) {
    provokeRefusal(downstreamSocket.fd());
    reply(framed(label, payload, inKey));
    serveFlow(true);
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
}

TEST_F(UpstreamTest, ArmsADrainedSocketAtTheEndOfThePass) {
    serveFlow(false);
    EXPECT_THAT(takePollRequests(), IsEmpty());
    EXPECT_THAT(endPass(), IsEmpty());
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
    EXPECT_THAT(endPass(), IsEmpty());
    EXPECT_THAT(takePollRequests(), IsEmpty());
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
}

TEST_F(UpstreamTest, TakesAnEmptyDatagramForADrainedSocket) {
    reply({});
    serveFlow(false);
    endPass();
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
}

TEST_F(UpstreamTest, ArmsASocketAgainAfterAnIcmpError) {
    provokeRefusal(flow->rdsockfd);
    serveFlow(false);
    endPass();
    EXPECT_THAT(takePollRequests(),
                ElementsAre(PollCtlMsg{EPOLL_CTL_MOD, EPOLLIN, flow->rdsockfd}));
    EXPECT_EQ(manager().findEndpointByLabel(label), flow);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
}

TEST_F(UpstreamTest, TakesADatagramThatIsTooLongAsItWasCut) {
    open("");
    reply(framed(label, Bytes(2100, 1)));
    serveFlow(true);
    EXPECT_EQ(peer.receive(), framed(0x2222, Bytes(2028, 1)));
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1, .dnTxDg = 1}));
}

TEST_F(UpstreamTest, DeletesAnEndpointWhoseSocketFails) {
    // Something that is no socket, under the socket's number.
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
    EXPECT_THAT(endPass(), IsEmpty());
}

TEST_F(UpstreamTest, IsSilentAboutASocketThatIsUnknown) {
    const AtLogLevel level("trace");
    for (const int socket : {-1, 10000}) {
        const Served served = serve(socket);
        EXPECT_EQ(served.result, 0);
        EXPECT_FALSE(served.keep);
        EXPECT_EQ(served.printed, "");
    }
}

TEST_F(UpstreamTest, RemarksOnAStaleSocketNumber) {
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

TEST_F(UpstreamTest, LooksAgainAtAnEndpointThatIsBeingPrepared) {
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

TEST_F(UpstreamTest, LeavesAnEndpointToTheWorkerThatHasIt) {
    flow->serving = Serving::claimed;
    reply(framed(label, payload, inKey));
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::moreWanted);
    EXPECT_EQ(countsOf(*flow), (Counts{.txDg = 1}));
    EXPECT_THAT(endPass(), IsEmpty());
    EXPECT_THAT(takePollRequests(), IsEmpty());
}

TEST_F(UpstreamTest, GivesAnEndpointBackAfterEveryCall) {
    serveFlow(false);
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
    reply(framed(label, payload, inKey));
    serveFlow(true);
    EXPECT_EQ(flow->serving.load(), Serving::nobody);
}

TEST_F(UpstreamTest, HoldsADrainedEndpointUntilItsSocketIsArmed) {
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

TEST_F(UpstreamTest, GivesAFlowUpThatCannotBeArmed) {
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

TEST_F(UpstreamTest, HasNothingToDoForWriting) {
    bool keep = true;
    EXPECT_EQ(printedBy([&keep] { EXPECT_EQ(upstreamSocketSend(7, keep), 0); }),
              "error upstreamSocketSend:Not Implemented yet\n");
    EXPECT_FALSE(keep);
}

class MultiplexedUpstreamTest : public UpstreamTest {
 protected:
    void SetUp() override {
        UpstreamTest::SetUp();
        open("is_multiplex true");
        declareFlow(otherLabel, "is_multiplex true up_in_key 0102");
        otherPeerOpensItsFlow();
    }
    void TearDown() override {
        other.reset();
        UpstreamTest::TearDown();
    }
    void otherPeerOpensItsFlow() {
        arriveFrom(otherPeer, framed(otherLabel, toBytes("request")));
        EXPECT_TRUE(upstream.receive().has_value());
        other = manager().findEndpointByLabel(otherLabel);
        ASSERT_NE(other, nullptr);
    }

    static constexpr std::uint32_t otherLabel = 0x77;
    const TestKey otherKey{"sha1", {1, 2}};
    UdpSocket otherPeer;
    EndpointPtr other;
};

TEST_F(MultiplexedUpstreamTest, ReturnsAReplyToTheFlowOfItsLabel) {
    reply(framed(otherLabel, payload, otherKey));
    serveFlow(true);
    EXPECT_EQ(otherPeer.receive(), framed(0x2222, payload));
    EXPECT_TRUE(peer.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(countsOf(*other), (Counts{.txDg = 1, .dnTxDg = 1}));
}

TEST_F(MultiplexedUpstreamTest, CountsAForgedReplyOnTheFlowOfItsLabel) {
    reply(framed(otherLabel, payload));
    serveFlow(true);
    EXPECT_TRUE(otherPeer.empty());
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 1, .txDg = 1}));
    EXPECT_EQ(countsOf(*other), (Counts{.txDg = 1, .rxDgError = 1}));
}

TEST_F(MultiplexedUpstreamTest, CountsAnUnknownLabelOnItsOwnEndpoint) {
    for (const std::uint32_t unknown : {0x888U, 0U}) {
        reply(framed(unknown, payload));
        serveFlow(true);
    }
    EXPECT_EQ(countsOf(*flow), (Counts{.rxDg = 2, .txDg = 1, .rxDgError = 2}));
    EXPECT_TRUE(peer.empty());
}

}  // namespace
}  // namespace vesk
