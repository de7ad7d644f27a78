// Creation of a flow's endpoint for its first datagram.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <thread>

#include "datapath/datapath_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::EndsWith;

const Bytes payload = toBytes("payload");

class FlowEndpointTest : public DatapathTest {};

TEST_F(FlowEndpointTest, SetsTheOptionsOfANewFlowsSockets) {
    declareFlow(5);
    const EndpointPtr flow = openFlow(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(socketOption(flow->rdsockfd, IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(socketOption(flow->rdsockfd, SOL_SOCKET, SO_REUSEPORT), 0);
    // The sizes that this kernel grants for the same requests.
    const UdpSocket plain;
    const int receiveRequest = 524288;
    const int sendRequest = 262144;
    setsockopt(plain.fd(), SOL_SOCKET, SO_RCVBUF, &receiveRequest, sizeof(receiveRequest));
    setsockopt(plain.fd(), SOL_SOCKET, SO_SNDBUF, &sendRequest, sizeof(sendRequest));
    EXPECT_EQ(socketOption(flow->rdsockfd, SOL_SOCKET, SO_RCVBUF),
              socketOption(plain.fd(), SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(socketOption(flow->wrsockfd, SOL_SOCKET, SO_SNDBUF),
              socketOption(plain.fd(), SOL_SOCKET, SO_SNDBUF));
}

TEST_F(FlowEndpointTest, SharesThePortOfAMultiplexedFlow) {
    declareFlow(5, "is_multiplex true");
    EXPECT_THAT(arrive(framed(5, payload)),
                testing::MatchesRegex("info Created multiplexed upstream endpoint: label 0x5/5 "
                                      "sockfds [0-9]+ [0-9]+\n"));
    const EndpointPtr flow = manager().findEndpointByLabel(5);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(socketOption(flow->rdsockfd, SOL_SOCKET, SO_REUSEPORT), 1);
}

TEST_F(FlowEndpointTest, BindsToTheSourceAddress) {
    const std::string port = std::to_string(freePort());
    declareFlow(5, "up_src_ip 127.0.0.1 up_src_port " + port);
    EXPECT_THAT(arrive(framed(5, payload)),
                testing::StartsWith("info Bound upstream endpoint to 127.0.0.1:" + port +
                                    "\ninfo Created upstream endpoint: label 0x5/5 "));
    EXPECT_TRUE(upstream.receive().has_value());
    EXPECT_EQ(portOf(upstream.sender()), std::stoi(port));
}

TEST_F(FlowEndpointTest, DeletesAnEndpointWhoseSourceAddressIsTaken) {
    const UdpSocket occupied;
    declareFlow(5, "up_src_ip 127.0.0.1 up_src_port " + std::to_string(occupied.port()));
    EXPECT_EQ(arrive(framed(5, payload)),
              "error Failed bind syscall for upstream endpoint socket: Address already in use\n");
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(upstream.empty());
    // The sockets were never added to the poll loop, but it is asked to close them.
    EXPECT_THAT(takePollRequests(), testing::SizeIs(2));
}

TEST_F(FlowEndpointTest, DeletesAnEndpointThatThePollLoopCannotWatch) {
    declareFlow(5);
    context->pollSocket.reset();
    const std::string failure =
        "Error writing a control message to poll socket: bytes: -1 Error: Bad file descriptor\n";
    EXPECT_THAT(arrive(framed(5, payload)),
                testing::MatchesRegex(
                    "error pollLoop_add_fd" + failure +
                    "error Failed to add upstream endpoint's READ sockfd [0-9]+ to pollLoop, "
                    "error: -9\n"
                    "error pollLoop_del_fd" +
                    failure +
                    "error endpointSocketDestructor: Failed to del wrsockfd [0-9]+ error: Bad file "
                    "descriptor\n"
                    "error pollLoop_del_fd" +
                    failure +
                    "error endpointSocketDestructor: Failed to del rdsockfd [0-9]+ error: Bad file "
                    "descriptor\n"));
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
    EXPECT_TRUE(upstream.empty());
}

TEST_F(FlowEndpointTest, CountsADatagramWhoseFlowHasNoUpstreamAddress) {
    declare("label 5");
    const AtLogLevel level("debug");
    EXPECT_THAT(arrive(framed(5, payload)),
                EndsWith("error createEndpoint: Failed to create endpoint sockets (family 0): -97\n"
                         "debug Failed to create upstream endpoint with label 5\n"));
    EXPECT_EQ(countsOf(*downstream), (Counts{.rxDgError = 1}));
}

TEST_F(FlowEndpointTest, WaitsForAnEndpointThatAnotherThreadPrepares) {
    declareFlow(5);
    const EndpointPtr flow = createEndpoint(5);
    ThreadMark mark;
    std::thread receiving;
    {
        // The thread that creates an endpoint holds this lock until the endpoint is prepared.
        const MutexLock preparing(context->endpointCreation);
        receiving = std::thread([&] {
            mark.set();
            EXPECT_EQ(arrive(framed(5, payload)), "");
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        EXPECT_TRUE(upstream.empty());
        flow->prepared = true;
    }
    receiving.join();
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
    EXPECT_EQ(manager().findEndpointByLabel(5), flow);
}

// The other thread may make the label's next endpoint first, which may need the port of this one.
TEST_F(FlowEndpointTest, HoldsNoEndpointWhileItWaitsForAnotherThread) {
    declareFlow(5);
    const std::weak_ptr<VeskEndpointDescriptor> unprepared = createEndpoint(5);
    ThreadMark mark;
    std::thread receiving;
    {
        const MutexLock preparing(context->endpointCreation);
        receiving = std::thread([&] {
            mark.set();
            arrive(framed(5, payload));
        });
        EXPECT_TRUE(mark.eventuallyBlocks());
        manager().deleteEndpoint(5);
        EXPECT_TRUE(unprepared.expired());
    }
    receiving.join();
    EXPECT_EQ(upstream.receive(), framed(0x1111, payload));
}

}  // namespace
}  // namespace vesk
