#include "control/listening_endpoint.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "net/endpoint_sockets.h"
#include "support/forwarder.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

class ListeningEndpointTest : public ForwarderTest {
 protected:
    static LentEndpoint endpointWith(EndpointDeleter deleter) {
        return LentEndpoint(
            std::make_unique<VeskEndpointDescriptor>(0, 7, 7, FlowDesc(), std::move(deleter)));
    }
};

TEST_F(ListeningEndpointTest, AcceptsAnEmptyEndpoint) {
    closeListeningEndpoint(LentEndpoint(), *context);
}

TEST_F(ListeningEndpointTest, ClosesTheSocketBeforeItReturns) {
    const int fd = dup(context->pollSocket.get());
    closeListeningEndpoint(LentEndpoint(std::make_unique<VeskEndpointDescriptor>(
                               0, fd, fd, FlowDesc(), closeEndpointSockets)),
                           *context);
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(ListeningEndpointTest, SleepsUntilTheLastSenderHasFinished) {
    std::thread::id closedBy;
    LentEndpoint endpoint =
        endpointWith([&closedBy](int, int) { closedBy = std::this_thread::get_id(); });
    EndpointPtr sender = endpoint.lease();
    ThreadMark mark;
    std::atomic<bool> returned{false};
    std::thread closing([&] {
        mark.set();
        closeListeningEndpoint(std::move(endpoint), *context);
        returned = true;
    });
    const std::thread::id closingThread = closing.get_id();
    EXPECT_TRUE(mark.eventuallyBlocks());
    EXPECT_FALSE(returned);
    sender.reset();
    closing.join();
    // The closing thread destroys the endpoint, so it knows when the sockets are closed.
    EXPECT_EQ(closedBy, closingThread);
}

TEST_F(ListeningEndpointTest, PreventsOtherThreadsFromMakingSocketsMeanwhile) {
    declare("label 5 up_ip 127.0.0.1 up_port 4500");
    std::atomic<bool> made{false};
    ThreadMark mark;
    std::thread making;
    closeListeningEndpoint(endpointWith([&](int, int) {
                               making = std::thread([&] {
                                   mark.set();
                                   EXPECT_NE(createEndpoint(5), nullptr);
                                   made = true;
                               });
                               EXPECT_TRUE(mark.eventuallyBlocks());
                               EXPECT_FALSE(made);
                           }),
                           *context);
    making.join();
    EXPECT_TRUE(made);
}

}  // namespace
}  // namespace vesk
