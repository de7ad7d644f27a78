#include "arming_operations.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace vesk::model {

namespace {

using Kind = Operation::Kind;

/// Takes steps by name. After a step that is not found it does nothing.
class Steps {
 public:
    /// `first` are the model's steps from the current situation.
    Steps(Situation& situation, const std::vector<Transition>& first, const Rules& rules,
          const Bounds& bounds)
        : situation_(situation), first_(first), rules_(rules), bounds_(bounds) {}

    bool carryOut(const Operation& operation);

 private:
    using Wanted = std::function<bool(const State& next)>;

    State& state() { return situation_.state; }
    Worker& worker(std::uint8_t who) { return state().workers.at(who); }

    bool tryStep(std::string_view name, const Wanted& wanted);
    void step(
        std::string_view name, const Wanted& wanted = [](const State&) { return true; }) {
        possible_ = possible_ && tryStep(name, wanted);
    }
    bool tryStepOf(std::uint8_t who, std::string_view name) {
        return tryStep(name,
                       [&](const State& next) { return !(next.workers.at(who) == worker(who)); });
    }
    void stepOf(std::uint8_t who, std::string_view name) {
        possible_ = possible_ && tryStepOf(who, name);
    }

    void create();
    void remove(std::uint8_t endpoint);
    void wake();
    void begin(std::uint8_t who);
    void receive(std::uint8_t who);
    void fail(std::uint8_t who, Outcome outcome);
    void finish(std::uint8_t who);
    void endPass(std::uint8_t who);
    void finishPass(std::uint8_t who, bool all);
    void letGo(std::uint8_t who);
    void dispose();

    Situation& situation_;
    const std::vector<Transition>& first_;
    bool atFirst_ = true;
    const Rules& rules_;
    const Bounds& bounds_;
    bool possible_ = true;
};

bool Steps::tryStep(std::string_view name, const Wanted& wanted) {
    const std::vector<Transition> later =
        atFirst_ ? std::vector<Transition>() : stepsFrom(state(), rules_, bounds_);
    const std::vector<Transition>& steps = atFirst_ ? first_ : later;
    const auto found = std::ranges::find_if(
        steps, [&](const Transition& it) { return it.name == name && wanted(it.next); });
    if (found == steps.end()) {
        return false;
    }
    state() = found->next;
    atFirst_ = false;
    return true;
}

bool Steps::carryOut(const Operation& operation) {
    const std::uint8_t which = operation.which;
    switch (operation.kind) {
        case Kind::arrive:
            step("a datagram arrives", [&](const State& next) {
                return next.endpoints.at(which).data != state().endpoints.at(which).data;
            });
            break;
        case Kind::create:
            create();
            break;
        case Kind::remove:
            remove(which);
            break;
        case Kind::wake:
            wake();
            break;
        case Kind::deal:
            stepOf(which, "poll thread distributes a socket");
            break;
        case Kind::collect:
            possible_ = worker(which).step == WorkerStep::idle;
            stepOf(which, "worker collects its queue");
            break;
        case Kind::begin:
            begin(which);
            break;
        case Kind::receive:
            receive(which);
            break;
        case Kind::fill:
            possible_ = worker(which).step == WorkerStep::receive;
            stepOf(which, "worker fills its batch");
            break;
        case Kind::finish:
            finish(which);
            break;
        case Kind::endPass:
            endPass(which);
            break;
        case Kind::refuse:
            fail(which, Outcome::refused);
            break;
        case Kind::failForNow:
            fail(which, Outcome::passingFailure);
            break;
        case Kind::failForGood:
            fail(which, Outcome::lastingFailure);
            break;
    }
    return possible_;
}

void Steps::create() {
    for (const std::string_view name :
         {"an endpoint is created", "its creator requests that it be watched",
          "the endpoint is marked prepared", "its first datagram is sent",
          "its creator releases it"}) {
        step(name);
    }
}

void Steps::remove(std::uint8_t endpoint) {
    step("an endpoint is removed",
         [endpoint](const State& next) { return !next.endpoints.at(endpoint).filed; });
    // Not the removal of another endpoint.
    possible_ = possible_ && state().removerHolds == endpoint;
    situation_.removalUnseen = {true, true};
    step("its remover releases it");
    dispose();
}

void Steps::wake() {
    step("poll thread wakes");
    if (state().recordReady) {
        step("poll thread executes a record");
    }
}

/// Up to the receive call, or to the end if there is none.
void Steps::begin(std::uint8_t who) {
    possible_ = worker(who).step == WorkerStep::idle;
    if (possible_ && situation_.removalUnseen.at(who)) {
        letGo(who);
    }
    situation_.removalUnseen.at(who) = false;
    stepOf(who, "worker takes a socket");
    stepOf(who, "worker looks the socket up");
    if (possible_ && worker(who).step == WorkerStep::checkPrepared) {
        stepOf(who, "worker may use the endpoint");
        stepOf(who, "worker claims the socket");
        if (possible_ && worker(who).step == WorkerStep::receive && worker(who).batchIsFull) {
            stepOf(who, "worker sends its replies to make room");
        }
    }
}

void Steps::receive(std::uint8_t who) {
    possible_ = worker(who).step == WorkerStep::receive;
    stepOf(who, "worker drains the socket");
}

void Steps::fail(std::uint8_t who, Outcome outcome) {
    possible_ = worker(who).step == WorkerStep::receive;
    step("worker fails to receive", [&](const State& next) {
        const Worker& failed = next.workers.at(who);
        return !(failed == worker(who)) && failed.outcome == outcome;
    });
}

void Steps::finish(std::uint8_t who) {
    possible_ = worker(who).step == WorkerStep::handle;
    if (worker(who).outcome == Outcome::lastingFailure &&
        state().endpoints.at(worker(who).endpoint).filed) {
        situation_.removalUnseen = {true, true};
    }
    stepOf(who, "worker handles what it received");
}

void Steps::endPass(std::uint8_t who) {
    possible_ = worker(who).step == WorkerStep::idle;
    stepOf(who, "worker ends its pass");
    finishPass(who, false);
}

/// `all`: releases all endpoints, not only those of the pass.
void Steps::finishPass(std::uint8_t who, bool all) {
    while (possible_ && worker(who).step != WorkerStep::release) {
        possible_ = tryStepOf(who, "worker sends its replies") ||
                    tryStepOf(who, "worker takes the right to arm") ||
                    tryStepOf(who, "worker ends its claim") ||
                    tryStepOf(who, "worker requests the arming of a drained socket");
    }
    const bool releasedAll =
        possible_ && all && tryStepOf(who, "worker releases all its endpoints");
    if (!releasedAll) {
        stepOf(who, "worker releases the endpoints of its pass");
    }
    dispose();
}

void Steps::letGo(std::uint8_t who) {
    if (tryStepOf(who, "worker ends its pass")) {
        finishPass(who, true);
    } else if (tryStepOf(who, "worker releases all its endpoints")) {
        dispose();
    }
}

/// The thread that releases an endpoint last runs the deleter at once.
void Steps::dispose() {
    const auto isDue = [](const Endpoint& it) {
        return it.deletion == Deletion::writeSocket || it.deletion == Deletion::readSocket;
    };
    while (possible_ && std::ranges::any_of(state().endpoints, isDue)) {
        step("the deleter requests that a socket be closed");
    }
}

}  // namespace

std::vector<Outgoing> operationsFrom(const Situation& situation, const Rules& rules,
                                     const Bounds& bounds) {
    const std::vector<Transition> firstSteps = stepsFrom(situation.state, rules, bounds);
    std::vector<Outgoing> possible;
    for (const Operation& operation : allOperations()) {
        Situation then = situation;
        if (Steps(then, firstSteps, rules, bounds).carryOut(operation)) {
            possible.push_back({operation, then});
        }
    }
    return possible;
}

}  // namespace vesk::model
