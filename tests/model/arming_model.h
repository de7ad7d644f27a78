// A model of how upstream read sockets are armed: the steps that each thread may take next, and the
// state after each. arming_conformance_test.cpp compares it with the code. A change of
// poll/epoll_set.cpp, poll/poll_loop.cpp, poll/receive_worker.cpp, datapath/upstream.cpp,
// datapath/flow_endpoint.cpp or net/endpoint_lifecycle.cpp needs a change of the model too.
//
// It contains: the poll thread with the epoll set and the message channel; two workers with their
// queues and private lists; one thread that creates endpoints and one that removes them from the
// tables; the deleter; arriving datagrams; failing calls; and descriptor numbers, of which the
// kernel always assigns the lowest free one. Each step is what happens under one lock or in one
// system call.
//
// Some simplifications, each of which allows more than can happen: a ready socket may be added to
// either worker's queue; a worker may collect its queue, and end its pass, between any two sockets;
// it requests arming one socket at a time, while a real datagram may contain a row of them; a
// deleter runs in parallel with the thread that released the endpoint.
//
// It does not contain events that report only an error. Upstream sockets are never connected, so
// the kernel reports no error of an earlier datagram on them.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vesk::model {

/// The rules that the forwarder follows so that no wake-up is lost. Each can be disabled to show
/// that the search detects it.
struct Rules {
    bool claimsSocket = true;
    /// Reads again if another worker tried to claim the endpoint meanwhile.
    bool heedsOtherWorker = true;
    bool givesBackBeforeArming = true;
    /// Keeps a drained endpoint until its arming has been requested.
    bool holdsDrained = true;
    /// Arms the collected sockets at the end of a pass, not only when there are many.
    bool armsAfterEachPass = true;
    bool armsAfterRefusedReceive = true;
    bool pollThreadCloses = true;
    /// What a worker does with an endpoint that its creator has not prepared yet.
    enum class Unprepared : std::uint8_t { waitForCreator, forget, serve };
    Unprepared unprepared = Unprepared::waitForCreator;
    /// A socket that another worker has armed since it was drained is not armed again.
    bool armsOnce = true;
    /// The arming of a socket is retried if it failed.
    bool triesAgain = true;
};

/// The size of the searched model.
struct Bounds {
    std::uint8_t endpoints = 2;
    /// Flows at one time; further endpoints replace earlier ones.
    std::uint8_t labels = 1;
    std::uint8_t arrivals = 2;
    std::uint8_t removals = 1;
    std::uint8_t failures = 0;
    /// Records that fit into the channel before a sender has to wait.
    std::uint8_t channel = 3;
};

// All members are bytes, without padding, because states are compared and hashed as bytes.

inline constexpr std::size_t maxEndpoints = 3;
inline constexpr std::size_t maxNumbers = 2 * maxEndpoints;
inline constexpr std::uint8_t noOne = 0xFF;

template <typename Item, std::size_t Capacity>
struct Fifo {
    std::uint8_t size = 0;
    std::array<Item, Capacity> items{};

    bool empty() const { return size == 0; }
    void push(Item item) { items.at(size++) = item; }
    Item pop();
    bool contains(Item item) const;
    bool operator==(const Fifo&) const = default;
};

enum class Op : std::uint8_t { none, add, rearm, remove };

struct Record {
    Op op = Op::none;
    std::uint8_t number = 0;
    /// The owner of the descriptor, which the real record does not contain.
    std::uint8_t endpoint = 0;
};

enum class Watch : std::uint8_t { none, armed, fired };
enum class Serving : std::uint8_t { nobody, claimed, moreWanted };
enum class Deletion : std::uint8_t { notYet, writeSocket, readSocket, done };

struct Endpoint {
    bool created = false;
    /// In the tables, where datagrams and ready sockets find it.
    bool filed = false;
    bool prepared = false;
    /// The number of requests to arm it.
    std::uint8_t armings = 0;
    Serving serving = Serving::nobody;
    /// Datagrams in the socket's buffer.
    std::uint8_t data = 0;
    /// Of the read descriptor in the epoll set.
    Watch watch = Watch::none;
    Deletion deletion = Deletion::notYet;
    std::uint8_t readNumber = 0;
    std::uint8_t writeNumber = 0;
};

enum class WorkerStep : std::uint8_t {
    idle,
    lookUp,
    checkPrepared,
    claim,
    receive,
    process,
    giveBack,
    armClaimed,
    release,
    armDrained,
    releaseDrained
};

/// The result of a receive call that returned no datagram.
enum class Outcome : std::uint8_t { drained, refused, passingFailure, lastingFailure };

struct Worker {
    WorkerStep step = WorkerStep::idle;
    std::uint8_t number = 0;
    std::uint8_t endpoint = noOne;
    Outcome outcome = Outcome::drained;
    bool keep = false;
    Fifo<std::uint8_t, 6> queue;
    Fifo<std::uint8_t, 6> serving;
    /// The endpoint's number of requests before the receive call.
    std::uint8_t armings = 0;
    /// The endpoints to be armed at the end of the pass, each with that number, and their count.
    Fifo<std::uint8_t, 6> drained;
    Fifo<std::uint8_t, 6> drainedArmings;
    std::uint8_t armed = 0;
    /// Endpoints whose arming failed and is to be retried.
    Fifo<std::uint8_t, 6> refused;

    bool operator==(const Worker&) const = default;
};

enum class CreatorStep : std::uint8_t { idle, registerSocket, markPrepared, forward, release };

/// Errors that must never occur, detected during a step.
enum class Fault : std::uint8_t {
    none,
    sharedBuffer,
    closedWhileWatched,
    usedAfterClose,
    refusedByEpoll
};

struct State {
    std::array<Endpoint, maxEndpoints> endpoints{};
    /// The endpoint to which a descriptor number currently belongs.
    std::array<std::uint8_t, maxNumbers> owner{};
    Fifo<Record, 4> channel;
    /// The poll thread between two waits: a record to execute and numbers to distribute.
    bool recordReady = false;
    Fifo<std::uint8_t, maxEndpoints> batch;
    std::array<Worker, 2> workers{};
    CreatorStep creator = CreatorStep::idle;
    std::uint8_t creatorHolds = noOne;
    std::uint8_t removerHolds = noOne;
    std::uint8_t endpointsMade = 0;
    std::uint8_t arrivals = 0;
    std::uint8_t removals = 0;
    std::uint8_t failures = 0;
    /// A deleter closed a socket because its request failed, and records for the socket may still
    /// be in the channel.
    bool closedUnasked = false;
    Fault fault = Fault::none;

    State() { owner.fill(noOne); }
};

struct Transition {
    std::string_view name;
    /// From outside the forwarder: a datagram or a command. No thread may depend on it.
    bool fromOutside;
    State next;
};

/// Every step that a thread could take next.
std::vector<Transition> stepsFrom(const State& state, const Rules& rules, const Bounds& bounds);

/// Whether a pending step will read the endpoint's socket or arm it.
bool isCovered(const State& state, std::uint8_t endpoint);

/// Whether a state in which no thread has anything to do is correct: the sockets of existing flows
/// are armed and read, and all others are closed.
bool isAtRest(const State& state);

template <typename Item, std::size_t Capacity>
Item Fifo<Item, Capacity>::pop() {
    const Item front = items.front();
    std::rotate(items.begin(), items.begin() + 1, items.end());
    items.back() = Item{};
    --size;
    return front;
}

template <typename Item, std::size_t Capacity>
bool Fifo<Item, Capacity>::contains(Item item) const {
    return std::find(items.begin(), items.begin() + size, item) != items.begin() + size;
}

}  // namespace vesk::model
