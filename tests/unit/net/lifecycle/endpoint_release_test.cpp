#include "net/lifecycle/endpoint_release.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/forwarder.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

class EndpointReleaseTest : public ForwarderTest {
 protected:
    /// An endpoint that is in no table.
    EndpointPtr removedEndpoint(std::uint32_t label, const std::string& furtherWords = "") {
        declare("label " + std::to_string(label) + " up_ip 127.0.0.1 up_port 4500 " + furtherWords);
        EndpointPtr endpoint = createEndpoint(label);
        manager().deleteEndpoint(label);
        return endpoint;
    }

    std::vector<EndpointPtr> removedEndpoints(std::uint32_t count) {
        std::vector<EndpointPtr> endpoints;
        for (std::uint32_t label = 1; label <= count; ++label) {
            endpoints.push_back(removedEndpoint(label));
        }
        return endpoints;
    }

    void release(std::vector<EndpointPtr> endpoints) {
        releaseEndpoints(std::move(endpoints), context);
    }

    /// A poll loop that is not started: the test executes its deletions.
    void makePollLoop() {
        context->pollThread = std::make_shared<PollThreadParam>(
            context->serverPollSock.get(), context->receiveWorkers, context->sendWorkers);
    }
};

/// The requests to the poll loop when the endpoint is released.
std::vector<PollCtlMsg> deletionsOf(const VeskEndpointDescriptor& endpoint) {
    return {{EPOLL_CTL_DEL, 0, endpoint.wrsockfd}, {EPOLL_CTL_DEL, 0, endpoint.rdsockfd}};
}

std::vector<PollCtlMsg> deletionsOf(const std::vector<EndpointPtr>& endpoints) {
    std::vector<PollCtlMsg> deletions;
    for (const EndpointPtr& endpoint : endpoints) {
        std::ranges::copy(deletionsOf(*endpoint), std::back_inserter(deletions));
    }
    return deletions;
}

TEST_F(EndpointReleaseTest, DeletesTheSocketsOfEveryEndpoint) {
    for (const std::uint32_t count : {0U, 1U, 2U, 16U, 17U, 40U}) {
        std::vector<EndpointPtr> endpoints = removedEndpoints(count);
        const std::vector<PollCtlMsg> expected = deletionsOf(endpoints);
        EXPECT_EQ(printedBy([&] { release(std::move(endpoints)); }), "");
        EXPECT_EQ(takePollRequests(), expected) << count;
    }
}

TEST_F(EndpointReleaseTest, LogsEachDeletion) {
    std::vector<EndpointPtr> endpoints = removedEndpoints(2);
    const std::vector<PollCtlMsg> expected = deletionsOf(endpoints);
    std::string lines;
    for (const PollCtlMsg& deletion : expected) {
        lines +=
            "debug Successfully sent fd " + std::to_string(deletion.fd) + " (del) to poll loop\n";
    }
    const AtLogLevel level("debug");
    EXPECT_EQ(printedBy([&] { release(std::move(endpoints)); }), lines);
}

TEST_F(EndpointReleaseTest, ReleasesBoundEndpointsFirst) {
    const std::string bound = "up_src_ip 127.0.0.1 up_src_port 4600";
    std::vector<EndpointPtr> endpoints{removedEndpoint(1), removedEndpoint(2, bound),
                                       removedEndpoint(3), removedEndpoint(4, bound)};
    const std::vector<PollCtlMsg> expected =
        deletionsOf({endpoints[1], endpoints[3], endpoints[0], endpoints[2]});
    release(std::move(endpoints));
    EXPECT_EQ(takePollRequests(), expected);
}

TEST_F(EndpointReleaseTest, LeavesAHeldEndpointToItsHolder) {
    std::vector<EndpointPtr> endpoints = removedEndpoints(3);
    EndpointPtr held = endpoints[1];
    const std::vector<PollCtlMsg> others = deletionsOf({endpoints[0], endpoints[2]});
    release(std::move(endpoints));
    EXPECT_EQ(takePollRequests(), others);
    const std::vector<PollCtlMsg> expected = deletionsOf(*held);
    held.reset();
    EXPECT_EQ(takePollRequests(), expected);
}

TEST_F(EndpointReleaseTest, ClosesTheSocketsWhenAskingThePollLoopFails) {
    std::vector<EndpointPtr> endpoints = removedEndpoints(2);
    const std::vector<PollCtlMsg> sockets = deletionsOf(endpoints);
    const std::string failure =
        "error pollLoop_del_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Bad file descriptor\n";
    std::string lines;
    for (const EndpointPtr& endpoint : endpoints) {
        // Both lines print the write descriptor.
        for (const char* const which : {"wrsockfd ", "rdsockfd "}) {
            lines += failure + "error endpointSocketDestructor: Failed to del " + which +
                     std::to_string(endpoint->wrsockfd) + " error: Bad file descriptor\n";
        }
    }
    context->pollSocket.reset();
    EXPECT_EQ(printedBy([&] { release(std::move(endpoints)); }), lines);
    for (const PollCtlMsg& socket : sockets) {
        EXPECT_FALSE(isOpen(socket.fd));
    }
}

TEST_F(EndpointReleaseTest, ClosesAtOnceWhenThePollLoopHasEnded) {
    makePollLoop();
    context->pollThread->ended = true;
    retirePollChannel(context->serverPollSock.get());
    std::vector<EndpointPtr> endpoints = removedEndpoints(100);
    const std::vector<PollCtlMsg> sockets = deletionsOf(endpoints);
    EXPECT_EQ(printedBy([&] { release(std::move(endpoints)); }), "");
    for (const PollCtlMsg& socket : sockets) {
        EXPECT_FALSE(isOpen(socket.fd));
    }
}

TEST_F(EndpointReleaseTest, WaitsForThePollLoopBetweenRows) {
    makePollLoop();
    std::vector<EndpointPtr> endpoints = removedEndpoints(200);
    std::atomic<bool> done{false};
    std::thread releasing([&] {
        release(std::move(endpoints));
        done = true;
    });
    std::size_t deleted = 0;
    EXPECT_TRUE(eventually([&] {
        // Asked first: the last row may be sent between the two.
        const bool allSent = done;
        const std::size_t waiting = takePollRequests().size();
        EXPECT_LE(waiting, 2 * maxPollRecords);
        context->pollThread->deletions.add(waiting);
        deleted += waiting;
        return allSent && waiting == 0;
    }));
    releasing.join();
    EXPECT_EQ(deleted, 400U);
}

TEST_F(EndpointReleaseTest, EndsWhenThePollLoopEnds) {
    makePollLoop();
    std::vector<EndpointPtr> endpoints = removedEndpoints(200);
    const std::vector<PollCtlMsg> sockets = deletionsOf(endpoints);
    std::thread releasing([&] { release(std::move(endpoints)); });
    EXPECT_TRUE(eventually([this] { return !takePollRequests().empty(); }));
    context->pollThread->ended = true;
    retirePollChannel(context->serverPollSock.get());
    releasing.join();
    for (const PollCtlMsg& socket : sockets) {
        EXPECT_FALSE(isOpen(socket.fd));
    }
}

TEST_F(EndpointReleaseTest, DoesNotWaitForADeletionThatCouldNotBeSent) {
    makePollLoop();
    std::vector<EndpointPtr> endpoints = removedEndpoints(200);
    context->pollSocket.reset();
    const auto began = std::chrono::steady_clock::now();
    printedBy([&] { release(std::move(endpoints)); });
    // A wait would take one second for each row.
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
}

}  // namespace
}  // namespace vesk
