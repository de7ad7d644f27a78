#include "net/lifecycle/endpoint_lifecycle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <cerrno>
#include <string>

#include "support/forwarder.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EndpointLifecycleTest : public ForwarderTest {
 protected:
    void SetUp() override {
        ForwarderTest::SetUp();
        declare("label 0xab12 up_ip 127.0.0.1 up_port 4500");
        endpoint = createEndpoint(0xab12);
        ASSERT_NE(endpoint, nullptr);
    }
    void TearDown() override {
        endpoint.reset();
        ForwarderTest::TearDown();
    }

    EndpointPtr endpoint;
};

TEST_F(EndpointLifecycleTest, DeleterAsksThePollLoopToCloseBothSockets) {
    const int readSocket = endpoint->rdsockfd;
    const int writeSocket = endpoint->wrsockfd;
    manager().deleteEndpoint(0xab12);
    EXPECT_THAT(takePollRequests(), IsEmpty());
    EXPECT_EQ(printedBy([this] { endpoint.reset(); }), "");
    EXPECT_TRUE(isOpen(readSocket));
    EXPECT_TRUE(isOpen(writeSocket));
    EXPECT_THAT(takePollRequests(), ElementsAre(PollCtlMsg{EPOLL_CTL_DEL, 0, writeSocket},
                                                PollCtlMsg{EPOLL_CTL_DEL, 0, readSocket}));
}

TEST_F(EndpointLifecycleTest, DeleterClosesTheSocketsWhenAskingThePollLoopFails) {
    const int readSocket = endpoint->rdsockfd;
    const int writeSocket = endpoint->wrsockfd;
    manager().deleteEndpoint(0xab12);
    context->pollSocket.reset();
    const std::string failure =
        "error pollLoop_del_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    const std::string number = std::to_string(writeSocket);
    // Both lines print the write descriptor.
    EXPECT_EQ(printedBy([this] { endpoint.reset(); }),
              failure + "error endpointSocketDestructor: Failed to del wrsockfd " + number +
                  " error: Bad file descriptor\n" + failure +
                  "error endpointSocketDestructor: Failed to del rdsockfd " + number +
                  " error: Bad file descriptor\n");
    EXPECT_FALSE(isOpen(readSocket));
    EXPECT_FALSE(isOpen(writeSocket));
}

TEST_F(EndpointLifecycleTest, DeleterDoesNotKeepTheContextAlive) {
    EXPECT_EQ(context.use_count(), 1);
    const int readSocket = endpoint->rdsockfd;
    const int writeSocket = endpoint->wrsockfd;
    const std::weak_ptr<ForwarderContext> watched = context;
    context.reset();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(printedBy([this] { endpoint.reset(); }), "");
    EXPECT_FALSE(isOpen(readSocket));
    EXPECT_FALSE(isOpen(writeSocket));
    // A new forwarder for TearDown, without the endpoint that the fixture adds.
    ForwarderTest::SetUp();  // NOLINT(bugprone-parent-virtual-call)
}

TEST_F(EndpointLifecycleTest, DeleterClosesAtOnceWhenThePollLoopHasEnded) {
    const int readSocket = endpoint->rdsockfd;
    const int writeSocket = endpoint->wrsockfd;
    context->pollThread = std::make_shared<PollThreadParam>(
        context->serverPollSock.get(), context->receiveWorkers, context->sendWorkers);
    context->pollThread->ended = true;
    retirePollChannel(context->serverPollSock.get());
    manager().deleteEndpoint(0xab12);
    EXPECT_EQ(printedBy([this] { endpoint.reset(); }), "");
    EXPECT_FALSE(isOpen(readSocket));
    EXPECT_FALSE(isOpen(writeSocket));
}

struct NetworkError {
    int error;
    const char* text;
};

class PassingErrorTest : public EndpointLifecycleTest,
                         public testing::WithParamInterface<NetworkError> {};

TEST_P(PassingErrorTest, LogsAWarningAndKeepsTheEndpoint) {
    const auto [error, text] = GetParam();
    EXPECT_EQ(printedBy([&, error = error] {
                  EXPECT_EQ(
                      reportUpstreamNetworkError(*endpoint, "DOWN_TO_UP_SEND:", error, *context),
                      0);
              }),
              "warn DOWN_TO_UP_SEND: network error on upstream endpoint of label 0xab12/43794, "
              "errno " +
                  std::to_string(error) + " (" + text + ").\n");
    EXPECT_EQ(manager().findEndpointByLabel(0xab12), endpoint);
}

INSTANTIATE_TEST_SUITE_P(Errors, PassingErrorTest,
                         testing::Values(NetworkError{12, "Cannot allocate memory"},
                                         NetworkError{90, "Message too long"},
                                         NetworkError{105, "No buffer space available"},
                                         NetworkError{113, "No route to host"}));

class FatalErrorTest : public EndpointLifecycleTest,
                       public testing::WithParamInterface<NetworkError> {};

TEST_P(FatalErrorTest, LogsAnErrorAndDeletesTheEndpoint) {
    const auto [error, text] = GetParam();
    EXPECT_EQ(printedBy([&, error = error] {
                  EXPECT_EQ(reportUpstreamNetworkError(*endpoint, "UP_RECEIVE:", error, *context),
                            1);
              }),
              "error UP_RECEIVE: network error on upstream endpoint of label 0xab12/43794, errno " +
                  std::to_string(error) + " (" + text + "). Endpoint Deleted\n");
    EXPECT_EQ(manager().findEndpointByLabel(0xab12), nullptr);
    EXPECT_TRUE(manager().knowsLabel(0xab12));
}

INSTANTIATE_TEST_SUITE_P(Errors, FatalErrorTest,
                         testing::Values(NetworkError{ECONNREFUSED, "Connection refused"},
                                         NetworkError{EINVAL, "Invalid argument"},
                                         NetworkError{ENETUNREACH, "Network is unreachable"},
                                         NetworkError{EDESTADDRREQ, "Destination address required"},
                                         NetworkError{0, "Success"}));

TEST_F(EndpointLifecycleTest, FailureKeepsTheRecordOfAnAuxiliaryFlow) {
    declare(
        "label 5 up_ip 127.0.0.1 up_port 4500 up_aux_flow_label 0xab0000 "
        "down_aux_flow_label_prefix 0x12");
    const EndpointPtr auxiliary = createEndpoint(0x120034);
    printedBy([&] { reportUpstreamNetworkError(*auxiliary, "UP_RECEIVE:", EINVAL, *context); });
    EXPECT_EQ(manager().findEndpointByLabel(0x120034), nullptr);
    printedBy([this] { declare("label 0x120034 down_label 4"); });
    EXPECT_EQ(createEndpoint(0x120034)->flow.up.label, 0xab0034U);
}

TEST_F(EndpointLifecycleTest, FailureOfAnOldEndpointKeepsItsSuccessor) {
    manager().deleteEndpoint(*endpoint);
    const EndpointPtr successor = createEndpoint(0xab12);
    printedBy([&] { reportUpstreamNetworkError(*endpoint, "UP_RECEIVE:", EINVAL, *context); });
    EXPECT_EQ(manager().findEndpointByLabel(0xab12), successor);
}

TEST_F(EndpointLifecycleTest, FailureDeletesTheEndpointAtEveryLogLevel) {
    const AtLogLevel level("error");
    EXPECT_EQ(printedBy([this] {
                  reportUpstreamNetworkError(*endpoint, "UP_RECEIVE:", ENOBUFS, *context);
              }),
              "");
}

}  // namespace
}  // namespace vesk
