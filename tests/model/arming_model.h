// A model of how upstream read sockets are armed: the steps that each thread may take next, and the
// state after each. arming_conformance_test.cpp compares it with the code. A change of
// poll/epoll_set.cpp, poll/poll_loop.cpp, poll/receive_worker.cpp, datapath/upstream.cpp,
// datapath/serving_claim.h, datapath/arming_queue.cpp, datapath/flow_endpoint.cpp,
// net/endpoint_cache.cpp or net/lifecycle/endpoint_lifecycle.cpp needs a change of the model too.
//
// It contains: the poll thread with the epoll set and the message channel; two workers with their
// queues, private lists and unsent replies; one thread that creates endpoints and one that removes
// them from the tables; the deleter; arriving datagrams; failing calls; and descriptor numbers, of
// which the kernel always assigns the lowest free one. Each step is what happens under one lock, in
// one atomic operation or in one system call.
//
// Some simplifications, each of which allows more than can happen: a ready socket may be added to
// either worker's queue; a worker may collect its queue, and end its pass, between any two sockets;
// any receive call that finds a datagram may fill the batch; a worker requests arming one socket at
// a time, while a real datagram may contain a row of them; a worker does not drop a number that it
// served for an earlier endpoint; a deleter runs in parallel with the thread that released the
// endpoint.
//
// A receive call that fails after its first datagram returns those before the failure. That is the
// same as a later arrival of the others.
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

/// The rules that the forwarder follows so that no wake-up is lost and the replies of a flow stay
/// in order. Each can be disabled to show that the search detects it.
struct Rules {
    bool claimsSocket = true;
    /// Keeps the claim of a drained socket until its replies have been sent.
    bool claimsUntilSent = true;
    bool sendsBeforeArming = true;
    bool endsClaimBeforeArming = true;
    /// Takes the right to arm the socket while no other worker can claim it.
    bool takesArmingBeforeEndingClaim = true;
    /// Arms a socket that was drained twice in one pass once, and ends its claim once.
    bool armsOnce = true;
    /// Keeps an endpoint until its replies have been sent.
    bool holdsUntilSent = true;
    /// Keeps a drained endpoint until its arming has been requested.
    bool holdsDrained = true;
    /// Arms the collected sockets at the end of a pass, not only when there are many.
    bool armsAfterEachPass = true;
    bool armsAfterRefusedReceive = true;
    bool pollThreadCloses = true;
    /// What a worker does with an endpoint that its creator has not prepared yet.
    enum class Unprepared : std::uint8_t { waitForCreator, forget, serve };
    Unprepared unprepared = Unprepared::waitForCreator;
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
    /// How often each worker's queue contains, at the start, the first endpoint's number: left over
    /// from earlier endpoints.
    std::array<std::uint8_t, 2> leftOver{};
    /// Whether it is a fault to arm an armed socket. A left-over number causes that.
    bool armedOnce = false;
};

// All members are bytes, without padding, because states are compared and hashed as bytes.

inline constexpr std::size_t maxEndpoints = 3;
inline constexpr std::size_t maxNumbers = 2 * maxEndpoints;
/// The longest list of a worker.
inline constexpr std::size_t listLength = 4;
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
enum class Deletion : std::uint8_t { notYet, writeSocket, readSocket, done };

struct Endpoint {
    bool created = false;
    /// In the tables, where datagrams and ready sockets find it.
    bool filed = false;
    bool prepared = false;
    /// The number of requests to arm it.
    std::uint8_t armings = 0;
    /// The worker that has the claim.
    std::uint8_t server = noOne;
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
    handle,
    // The end of a pass.
    sendReplies,
    takeArming,
    endClaim,
    requestArming,
    endClaimLate,
    release
};

/// The result of a receive call. `filled`: as many datagrams as the batch had room for; all others
/// leave the socket drained or returned an error.
enum class Outcome : std::uint8_t { drained, filled, refused, passingFailure, lastingFailure };

/// Why a worker keeps an endpoint that it has served: for its pass, or to serve the socket again.
enum class Hold : std::uint8_t { none, ended, again };

struct Worker {
    WorkerStep step = WorkerStep::idle;
    std::uint8_t number = 0;
    std::uint8_t endpoint = noOne;
    Outcome outcome = Outcome::drained;
    /// The batch has no room: the replies must be sent before the next receive call.
    bool batchIsFull = false;
    Fifo<std::uint8_t, listLength> queue;
    Fifo<std::uint8_t, listLength> serving;
    /// The endpoint's number of requests before the receive call.
    std::uint8_t armings = 0;
    std::array<Hold, maxEndpoints> holds{};
    /// The replies received and not yet handled, and those of each endpoint that are held back.
    std::uint8_t received = 0;
    std::array<std::uint8_t, maxEndpoints> unsent{};
    /// The drained endpoints, each with that number.
    Fifo<std::uint8_t, listLength> drained;
    Fifo<std::uint8_t, listLength> drainedArmings;
    /// Those that this worker has the right to arm.
    Fifo<std::uint8_t, listLength> toArm;
    /// Endpoints whose arming failed and is to be retried.
    Fifo<std::uint8_t, listLength> refused;

    bool operator==(const Worker&) const = default;
};

enum class CreatorStep : std::uint8_t { idle, registerSocket, markPrepared, forward, release };

/// Errors that must never occur, detected during a step.
enum class Fault : std::uint8_t {
    none,
    overtaken,
    usedAfterRelease,
    closedWhileWatched,
    usedAfterClose,
    armedTwice,
    refusedByEpoll
};

struct State {
    std::array<Endpoint, maxEndpoints> endpoints{};
    /// The endpoint to which a descriptor number currently belongs.
    std::array<std::uint8_t, maxNumbers> owner{};
    Fifo<Record, 4> channel;
    /// The poll thread between two waits: a record to execute and numbers to distribute.
    bool recordReady = false;
    Fifo<std::uint8_t, maxEndpoints> ready;
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

/// The state in which a search begins.
State firstState(const Bounds& bounds);

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
