// The steps of the receive workers for one socket.
#include <utility>

#include <utility>

#include "arming_steps.h"

namespace vesk::model {

void Stepper::worker(std::size_t who) {
    const Worker& worker = from_.workers.at(who);
    switch (worker.step) {
        case WorkerStep::idle:
            beginNext(who);
            break;
        case WorkerStep::lookUp:
            add("worker looks the socket up", [who](State& next) { lookUp(next, who); });
            break;
        case WorkerStep::checkPrepared:
            checkPrepared(who);
            break;
        case WorkerStep::claim:
            add("worker claims the socket", [&](State& next) { claim(next, who); });
            break;
        case WorkerStep::receive:
            receive(who);
            break;
        case WorkerStep::handle:
            add("worker handles what it received", [&](State& next) { handle(next, who); });
            break;
        default:
            endOfPass(who);
            break;
    }
}

void Stepper::beginNext(std::size_t who) {
    const Worker& worker = from_.workers.at(who);
    if (!worker.queue.empty()) {
        add("worker collects its queue", [who](State& next) {
            Worker& it = next.workers.at(who);
            while (!it.queue.empty()) {
                it.serving.push(it.queue.pop());
            }
        });
    }
    if (!worker.serving.empty()) {
        add("worker takes a socket", [who](State& next) {
            Worker& it = next.workers.at(who);
            it.number = it.serving.pop();
            it.step = WorkerStep::lookUp;
        });
    }
    if (!worker.refused.empty()) {
        retryRefused(who);
    }
    mayEndPass(who);
}

void Stepper::lookUp(State& next, std::size_t who) {
    Worker& worker = next.workers.at(who);
    const std::uint8_t index = next.owner.at(worker.number);
    // The descriptors of an endpoint in the tables are open, so the tables and the kernel agree.
    const bool found = index != noOne && next.endpoints.at(index).filed;
    if (found && next.endpoints.at(index).readNumber == worker.number) {
        worker.endpoint = index;
        worker.step = WorkerStep::checkPrepared;
        return;
    }
    for (std::size_t i = 0; i < maxEndpoints; ++i) {
        Hold& hold = worker.holds.at(i);
        if (hold == Hold::again && next.endpoints.at(i).readNumber == worker.number) {
            hold = Hold::ended;
        }
    }
    worker.number = 0;
    worker.step = WorkerStep::idle;
}

void Stepper::checkPrepared(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).endpoint;
    const bool prepared = from_.endpoints.at(index).prepared;
    if (prepared || rules_.unprepared == Rules::Unprepared::serve) {
        add("worker may use the endpoint",
            [who](State& next) { next.workers.at(who).step = WorkerStep::claim; });
    } else if (rules_.unprepared == Rules::Unprepared::forget || !isBeingPrepared(index)) {
        add("worker drops an unprepared endpoint", [&](State& next) { finish(next, who, false); });
    }
    // If the creator is not done, the worker waits.
}

bool Stepper::isBeingPrepared(std::uint8_t index) const {
    return from_.creatorHolds == index && (from_.creator == CreatorStep::registerSocket ||
                                           from_.creator == CreatorStep::markPrepared);
}

/// A worker that has the claim already keeps it. One that is refused the claim forgets the socket.
void Stepper::claim(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    Endpoint& endpoint = next.endpoints.at(worker.endpoint);
    if (rules_.claimsSocket && endpoint.server != noOne && endpoint.server != who) {
        finish(next, who, false);
        return;
    }
    if (rules_.claimsSocket) {
        endpoint.server = static_cast<std::uint8_t>(who);
    }
    worker.armings = endpoint.armings;
    worker.step = WorkerStep::receive;
}

void Stepper::receive(std::size_t who) {
    if (from_.workers.at(who).batchIsFull) {
        add("worker sends its replies to make room", [&](State& next) { sendAll(next, who); });
        return;
    }
    const std::uint8_t index = from_.workers.at(who).endpoint;
    const std::uint8_t waiting = from_.endpoints.at(index).data;
    if (from_.owner.at(from_.endpoints.at(index).readNumber) != index) {
        add("worker reads a socket", [](State& next) { next.fault = Fault::usedAfterClose; });
    } else {
        add("worker drains the socket",
            [&](State& next) { take(next, who, waiting, Outcome::drained); });
    }
    if (waiting > 0) {
        add("worker fills its batch", [who](State& next) { take(next, who, 1, Outcome::filled); });
    }
    for (const Outcome outcome :
         {Outcome::refused, Outcome::passingFailure, Outcome::lastingFailure}) {
        mayFail("worker fails to receive",
                [who, outcome](State& next) { take(next, who, 0, outcome); });
    }
}

void Stepper::take(State& next, std::size_t who, std::uint8_t datagrams, Outcome outcome) {
    Worker& worker = next.workers.at(who);
    const std::uint8_t index = worker.endpoint;
    if (datagrams > 0 && next.workers.at(1 - who).unsent.at(index) > 0) {
        next.fault = Fault::overtaken;
    }
    std::uint8_t& data = next.endpoints.at(index).data;
    data = static_cast<std::uint8_t>(data - datagrams);
    worker.received = datagrams;
    worker.outcome = outcome;
    worker.step = WorkerStep::handle;
}

void Stepper::handle(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    holdReplies(next, who);
    bool again = false;
    switch (worker.outcome) {
        case Outcome::filled:
            worker.batchIsFull = true;
            again = true;
            break;
        case Outcome::passingFailure:
            again = true;
            break;
        case Outcome::lastingFailure:
            next.endpoints.at(worker.endpoint).filed = false;
            break;
        case Outcome::refused:
            if (rules_.armsAfterRefusedReceive) {
                addDrained(next, who);
            }
            break;
        case Outcome::drained:
            addDrained(next, who);
            break;
    }
    finish(next, who, again);
}

/// Replies of a flow that was removed meanwhile are dropped.
void Stepper::holdReplies(State& next, std::size_t who) {
    Worker& worker = next.workers.at(who);
    const std::uint8_t received = std::exchange(worker.received, std::uint8_t{0});
    if (next.endpoints.at(worker.endpoint).filed) {
        std::uint8_t& unsent = worker.unsent.at(worker.endpoint);
        unsent = static_cast<std::uint8_t>(unsent + received);
    }
}

void Stepper::addDrained(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    worker.drained.push(worker.endpoint);
    worker.drainedArmings.push(worker.armings);
    if (!rules_.claimsUntilSent) {
        next.endpoints.at(worker.endpoint).server = noOne;
    }
}

/// The worker has finished with the socket, for ever or for this pass.
void Stepper::finish(State& next, std::size_t who, bool again) const {
    Worker& worker = next.workers.at(who);
    const std::uint8_t index = std::exchange(worker.endpoint, noOne);
    if (again) {
        worker.serving.push(worker.number);
    }
    worker.number = 0;
    worker.armings = 0;
    worker.outcome = Outcome::drained;
    worker.step = WorkerStep::idle;
    if (rules_.holdsUntilSent) {
        worker.holds.at(index) = again ? Hold::again : Hold::ended;
    }
    disposeIfFree(next, index);
}

}  // namespace vesk::model
