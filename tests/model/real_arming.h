// The forwarder's pieces that arm upstream sockets, driven operation by operation: the poll loop
// with its epoll set and channel, two upstream receivers, the tables and the deleter are the real
// ones. The test stands in for the loops around them: it deals sockets out and keeps the workers'
// lists.
#pragma once

#include <array>
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

/// The threads, with stacks that are made once.
struct Actors {
    Actor pollThread;
    std::array<Actor, 2> workers;
};

/// How the test makes a flow and answers it; the fixture has the sockets.
class Surroundings {
 public:
    virtual ~Surroundings() = default;
    /// Creates the endpoint of the one flow, as its first datagram does.
    virtual EndpointPtr openFlow() = 0;
    virtual void removeFlow() = 0;
    virtual void sendReply(const SocketAddress& to) = 0;
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

    /// The first thing in which the forwarder and the model's state differ; empty where nothing
    /// does.
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
    void endPass(std::uint8_t who);
    void noteResult(std::uint8_t who);
    bool recordIsWaiting() const;

    std::string endpointDifference(const State& expected, std::size_t index) const;
    std::string socketDifference(const State& expected, std::size_t index) const;
    std::string numberDifference(const State& expected);
    std::string listDifference(const State& expected) const;
    Watch watchOf(int socket) const;
    std::vector<int> socketsOf(const std::vector<std::uint8_t>& numbers) const;

    const std::shared_ptr<ForwarderContext> context_;
    Surroundings& surroundings_;
    Actors& actors_;
    PollThreadParam pollThread_;
    /// What the poll loop reported and is still to be dealt out.
    std::deque<int> ready_;
    std::array<Worker, 2> workers_;
    std::vector<Endpoint> endpoints_;
    /// The descriptor behind each of the model's numbers, once it was used.
    std::array<int, maxNumbers> descriptors_;
};

}  // namespace vesk::model
