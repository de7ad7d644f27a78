// The steps of the receive workers.
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
        case WorkerStep::process:
            process(who);
            break;
        case WorkerStep::giveBack:
            add("worker releases its claim", [&](State& next) { giveBack(next, who); });
            break;
        case WorkerStep::armClaimed:
            armClaimed(who);
            break;
        case WorkerStep::release:
            add("worker releases the endpoint", [&](State& next) { release(next, who); });
            break;
        case WorkerStep::armDrained:
            armDrained(who);
            break;
        case WorkerStep::releaseDrained:
            add("worker releases a drained endpoint",
                [&](State& next) { releaseDrained(next, who); });
            break;
    }
}

void Stepper::beginNext(std::size_t who) {
    if (!from_.workers.at(who).queue.empty()) {
        add("worker collects its queue", [who](State& next) {
            Worker& worker = next.workers.at(who);
            while (!worker.queue.empty()) {
                worker.serving.push(worker.queue.pop());
            }
        });
    }
    if (!from_.workers.at(who).serving.empty()) {
        add("worker takes a socket", [who](State& next) {
            Worker& worker = next.workers.at(who);
            worker.number = worker.serving.pop();
            worker.step = WorkerStep::lookUp;
        });
    }
    if (!from_.workers.at(who).refused.empty()) {
        retryRefused(who);
    }
    if (!from_.workers.at(who).drained.empty() && rules_.armsAfterEachPass) {
        add("worker ends its pass",
            [who](State& next) { next.workers.at(who).step = WorkerStep::armDrained; });
    }
}

/// The worker has finished with the socket but still holds the endpoint.
void Stepper::finish(Worker& worker, bool keep) {
    worker.keep = keep;
    worker.outcome = Outcome::drained;
    worker.step = WorkerStep::release;
}

void Stepper::lookUp(State& next, std::size_t who) {
    Worker& worker = next.workers.at(who);
    const std::uint8_t index = next.owner.at(worker.number);
    // The descriptors of an endpoint in the tables are open, so the tables and the kernel agree.
    const bool found = index != noOne && next.endpoints.at(index).filed;
    if (found && next.endpoints.at(index).readNumber == worker.number) {
        worker.endpoint = index;
        worker.step = WorkerStep::checkPrepared;
    } else {
        worker.number = 0;
        worker.step = WorkerStep::idle;
    }
}

void Stepper::checkPrepared(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).endpoint;
    const bool prepared = from_.endpoints.at(index).prepared;
    if (prepared || rules_.unprepared == Rules::Unprepared::serve) {
        add("worker may use the endpoint",
            [who](State& next) { next.workers.at(who).step = WorkerStep::claim; });
    } else if (rules_.unprepared == Rules::Unprepared::forget || !isBeingPrepared(index)) {
        add("worker drops an unprepared endpoint",
            [who](State& next) { finish(next.workers.at(who), false); });
    }
    // If the creator is not done, the worker waits.
}

bool Stepper::isBeingPrepared(std::uint8_t index) const {
    return from_.creatorHolds == index && (from_.creator == CreatorStep::registerSocket ||
                                           from_.creator == CreatorStep::markPrepared);
}

void Stepper::claim(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    Serving& serving = next.endpoints.at(worker.endpoint).serving;
    if (!rules_.claimsSocket) {
        worker.step = WorkerStep::receive;
    } else if (serving == Serving::nobody) {
        serving = Serving::claimed;
        worker.step = WorkerStep::receive;
    } else {
        serving = Serving::moreWanted;
        finish(worker, false);
    }
    worker.armings = next.endpoints.at(worker.endpoint).armings;
    if (worker.step == WorkerStep::receive && isInBuffer(next.workers.at(1 - who), worker)) {
        next.fault = Fault::sharedBuffer;
    }
}

bool Stepper::isInBuffer(const Worker& other, const Worker& worker) {
    return other.endpoint == worker.endpoint &&
           (other.step == WorkerStep::receive || other.step == WorkerStep::process);
}

void Stepper::receive(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).endpoint;
    if (from_.owner.at(from_.endpoints.at(index).readNumber) != index) {
        add("worker reads a socket", [](State& next) { next.fault = Fault::usedAfterClose; });
    } else if (from_.endpoints.at(index).data > 0) {
        add("worker receives a datagram", [who, index](State& next) {
            --next.endpoints.at(index).data;
            next.workers.at(who).step = WorkerStep::process;
        });
    } else {
        add("worker finds the socket drained",
            [&](State& next) { broughtNothing(next, who, Outcome::drained); });
    }
    for (const Outcome outcome :
         {Outcome::refused, Outcome::passingFailure, Outcome::lastingFailure}) {
        mayFail("worker fails to receive",
                [&](State& next) { broughtNothing(next, who, outcome); });
    }
}

void Stepper::broughtNothing(State& next, std::size_t who, Outcome outcome) const {
    Worker& worker = next.workers.at(who);
    worker.outcome = outcome;
    worker.step = rules_.givesBackBeforeArming ? WorkerStep::giveBack : WorkerStep::armClaimed;
}

void Stepper::process(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).endpoint;
    const Change done = [who, index](State& next) {
        // Requests made meanwhile do not matter, since the worker reads again.
        next.endpoints.at(index).serving = Serving::nobody;
        finish(next.workers.at(who), true);
    };
    add("worker sends a reply", done);
    mayFail("worker fails to send and removes the endpoint", [&](State& next) {
        next.endpoints.at(index).filed = false;
        done(next);
    });
}

}  // namespace vesk::model
