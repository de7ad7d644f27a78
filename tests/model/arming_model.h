// A model of how upstream read sockets are armed: who may do what next, and what that makes of the
// whole. arming_conformance_test.cpp compares it with the code. A change of poll/epoll_set.cpp,
// poll/poll_loop.cpp, poll/receive_worker.cpp, datapath/upstream.cpp, datapath/flow_endpoint.cpp or
// net/endpoint_lifecycle.cpp needs a change of the model too.
//
// What is in it: the poll thread with the epoll set and the message channel; two workers with their
// queues and private lists; one thread that creates endpoints and one that takes them out of the
// tables; the deleter; datagrams arriving; calls that fail; descriptor numbers, of which the kernel
// always gives out the lowest that is free. Each step is what happens under one lock or in one
// system call.
//
// Some liberties, each of which allows more than can happen: a ready socket may go to either
// worker's queue; a worker may collect its queue, and end its pass, between any two sockets; it
// asks for drained sockets one by one, where a single datagram may ask for a row of them; a deleter
// runs beside the thread that let go of the endpoint.
//
// Not in it: events of nothing but an error. Upstream sockets are never connected, so the kernel
// reports no error of an earlier datagram on them.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vesk::model {

/// What the forwarder does so that no wake-up is lost. Each can be taken away, to see that the
/// search would notice.
struct Rules {
    bool claimsSocket = true;
    /// Reads once more where another worker came by meanwhile.
    bool heedsOtherWorker = true;
    bool givesBackBeforeArming = true;
    /// Keeps a drained endpoint until the poll thread was asked to arm its socket.
    bool holdsDrained = true;
    /// Sees to the sockets put off at the end of a pass, not only when many have gathered.
    bool armsAfterEachPass = true;
    bool armsAfterRefusedReceive = true;
    bool pollThreadCloses = true;
    /// What a worker does with an endpoint whose creator is not done with it.
    enum class Unprepared : std::uint8_t { waitForCreator, forget, serve };
    Unprepared unprepared = Unprepared::waitForCreator;
    /// A socket that another worker armed since it was found drained is not armed again.
    bool armsOnce = true;
    /// A socket that could not be armed is tried again.
    bool triesAgain = true;
};

/// How much happens.
struct Bounds {
    std::uint8_t endpoints = 2;
    /// Flows at one time; endpoints beyond that take the place of earlier ones.
    std::uint8_t labels = 1;
    std::uint8_t arrivals = 2;
    std::uint8_t removals = 1;
    std::uint8_t failures = 0;
    /// Records that the channel holds before a sender has to wait.
    std::uint8_t channel = 3;
};

// Everything is made of bytes, with no gaps, since states are compared and hashed as bytes.

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
    /// Whose descriptor was meant; the real record does not say.
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
    /// How often a worker has asked for it to be armed.
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

/// What a receive call brought when it was no datagram.
enum class Outcome : std::uint8_t { drained, refused, passingFailure, lastingFailure };

struct Worker {
    WorkerStep step = WorkerStep::idle;
    std::uint8_t number = 0;
    std::uint8_t endpoint = noOne;
    Outcome outcome = Outcome::drained;
    bool keep = false;
    Fifo<std::uint8_t, 6> queue;
    Fifo<std::uint8_t, 6> serving;
    /// What the endpoint's count was before the receive call.
    std::uint8_t armings = 0;
    /// Endpoints to be armed when the pass is over, each with that count, and how many of them are.
    Fifo<std::uint8_t, 6> drained;
    Fifo<std::uint8_t, 6> drainedArmings;
    std::uint8_t armed = 0;
    /// Endpoints that could not be armed, to be tried again.
    Fifo<std::uint8_t, 6> refused;

    bool operator==(const Worker&) const = default;
};

enum class CreatorStep : std::uint8_t { idle, registerSocket, markPrepared, forward, release };

/// What must never happen, found while a step is taken.
enum class Fault : std::uint8_t {
    none,
    sharedBuffer,
    closedWhileWatched,
    usedAfterClose,
    refusedByEpoll
};

struct State {
    std::array<Endpoint, maxEndpoints> endpoints{};
    /// The endpoint that a descriptor number belongs to at present.
    std::array<std::uint8_t, maxNumbers> owner{};
    Fifo<Record, 4> channel;
    /// The poll thread, between two waits: a record to be taken and numbers to be dealt out.
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
    /// A deleter closed what it could not ask for, and records of it may still be on their way.
    bool closedUnasked = false;
    Fault fault = Fault::none;

    State() { owner.fill(noOne); }
};

struct Transition {
    std::string_view name;
    /// Not of the forwarder's doing: a datagram, a command. Nobody may wait for one.
    bool fromOutside;
    State next;
};

/// Every step that some thread could take next.
std::vector<Transition> stepsFrom(const State& state, const Rules& rules, const Bounds& bounds);

/// Whether something is on its way that will read the endpoint's socket or have it watched.
bool isCovered(const State& state, std::uint8_t endpoint);

/// Whether all is as it should be where no thread has anything left to do: live flows armed and
/// read, sockets of the others closed.
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
