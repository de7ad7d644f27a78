// Runs the parts of the forwarder that arm upstream sockets one operation at a time. The poll loop
// with its epoll set and channel, two upstream receivers, the tables and the deleter are the real
// ones. The test replaces the loops around them: it distributes sockets and keeps the workers'
// lists.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "actor.h"
#include "arming_operations.h"
#include "datapath/upstream.h"
#include "net/endpoint.h"
#include "poll/poll_param.h"

namespace vesk {
struct ForwarderContext;
}

namespace vesk::model {

/// The threads. Their stacks are allocated once.
struct Actors {
    Actor pollThread;
    std::array<Actor, 2> workers;
};

/// How the test creates a flow and replies on it; the fixture has the sockets.
class Surroundings {
 public:
    virtual ~Surroundings() = default;
    /// Creates the endpoint of the one flow, as its first datagram does.
    virtual EndpointPtr openFlow() = 0;
    virtual void removeFlow() = 0;
    virtual void sendReply(const SocketAddress& to) = 0;
    /// Takes the replies that have reached the peer, and returns their number.
    virtual std::size_t takeReplies() = 0;
    virtual SocketAddress addressOf(const VeskEndpointDescriptor& endpoint) = 0;
};

/// One sequence, from the first operation to the last.
class RealArming {
 public:
    RealArming(const std::shared_ptr<ForwarderContext>& context, Surroundings& surroundings,
               Actors& actors);
    /// Lets every paused thread finish.
    ~RealArming();
    RealArming(const RealArming&) = delete;
    RealArming& operator=(const RealArming&) = delete;

    void carryOut(const Operation& operation);

    /// The first difference between the forwarder and the model's state; empty if there is none.
    std::string differenceFrom(const State& expected);

 private:
    struct Endpoint {
        std::weak_ptr<VeskEndpointDescriptor> descriptor;
        int readSocket;
        int writeSocket;
        SocketAddress address;
    };
    struct Worker {
        std::unique_ptr<UpstreamReceiver> receiver;
        std::deque<int> queue;
        std::deque<int> serving;
        int socket = -1;
        bool keep = false;
    };

    void create();
    void begin(std::uint8_t who);
    void proceed(std::uint8_t who);
    void fail(std::uint8_t who, int error);
    void fill(std::uint8_t who);
    void endPass(std::uint8_t who);
    void noteResult(std::uint8_t who);
    bool recordIsWaiting() const;

    std::string endpointDifference(const State& expected, std::size_t index) const;
    std::string socketDifference(const State& expected, std::size_t index) const;
    std::string numberDifference(const State& expected);
    std::string listDifference(const State& expected) const;
    std::string replyDifference(const State& expected);
    std::uint8_t serverOf(const VeskEndpointDescriptor& endpoint) const;
    Watch watchOf(int socket) const;
    std::vector<int> socketsOf(const std::vector<std::uint8_t>& numbers) const;

    const std::shared_ptr<ForwarderContext> context_;
    Surroundings& surroundings_;
    Actors& actors_;
    PollThreadParam pollThread_;
    /// Sockets that the poll loop has reported and the test has not distributed yet.
    std::deque<int> ready_;
    std::array<Worker, 2> workers_;
    std::vector<Endpoint> endpoints_;
    /// The descriptor for each of the model's numbers that has been used.
    std::array<int, maxNumbers> descriptors_;
    /// The replies that the workers held after the last operation, in the model.
    std::size_t unsent_ = 0;
};

}  // namespace vesk::model
