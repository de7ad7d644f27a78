// The steps of a receive worker at the end of its pass: it sends its replies, ends its claims, and
// requests the arming of the drained sockets.
#include <algorithm>

#include "arming_steps.h"

namespace vesk::model {

namespace {

bool holdsAny(const Worker& worker, Hold kind) {
    return std::ranges::find(worker.holds, kind) != worker.holds.end();
}

}  // namespace

void Stepper::mayEndPass(std::size_t who) {
    const Worker& worker = from_.workers.at(who);
    const bool arms = !worker.drained.empty() && rules_.armsAfterEachPass;
    if (arms || !hasNoUnsentReply(worker) || holdsAny(worker, Hold::ended)) {
        add("worker ends its pass", [&](State& next) {
            Worker& it = next.workers.at(who);
            if (arms && !rules_.sendsBeforeArming) {
                beginDrained(it);
            } else if (hasNoUnsentReply(it)) {
                afterSending(it);
            } else {
                it.step = WorkerStep::sendReplies;
            }
        });
    } else if (holdsAny(worker, Hold::again)) {
        add("worker releases all its endpoints", [&](State& next) { release(next, who, true); });
    }
}

void Stepper::endOfPass(std::size_t who) {
    switch (from_.workers.at(who).step) {
        case WorkerStep::sendReplies:
            sendReplies(who);
            break;
        case WorkerStep::takeArming:
            add("worker takes the right to arm", [&](State& next) { takeArming(next, who); });
            break;
        case WorkerStep::endClaim:
            add("worker ends its claim", [&](State& next) { endClaim(next, who); });
            break;
        case WorkerStep::requestArming:
            requestArming(who);
            break;
        case WorkerStep::endClaimLate:
            add("worker ends its claim late", [&](State& next) {
                next.endpoints.at(next.workers.at(who).toArm.items.front()).server = noOne;
                nextToArm(next, who);
            });
            break;
        case WorkerStep::release:
            add("worker releases the endpoints of its pass",
                [&](State& next) { release(next, who, false); });
            if (holdsAny(from_.workers.at(who), Hold::again)) {
                add("worker releases all its endpoints",
                    [&](State& next) { release(next, who, true); });
            }
            break;
        default:
            break;
    }
}

void Stepper::sendReplies(std::size_t who) {
    const Change done = [this, who](State& next) {
        sendAll(next, who);
        afterSending(next.workers.at(who));
    };
    add("worker sends its replies", done);
    for (std::size_t i = 0; i < maxEndpoints; ++i) {
        if (from_.workers.at(who).unsent.at(i) > 0) {
            mayFail("worker fails to send and removes the endpoint", [&](State& next) {
                next.endpoints.at(i).filed = false;
                done(next);
            });
        }
    }
}

void Stepper::sendAll(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    worker.batchIsFull = false;
    for (std::uint8_t i = 0; i < maxEndpoints; ++i) {
        if (worker.unsent.at(i) > 0 && next.endpoints.at(i).deletion != Deletion::notYet) {
            next.fault = Fault::usedAfterRelease;
        }
        worker.unsent.at(i) = 0;
        if (!rules_.holdsDrained && worker.drained.contains(i)) {
            worker.holds.at(i) = Hold::none;
            disposeIfFree(next, i);
        }
    }
}

void Stepper::afterSending(Worker& worker) const {
    if (rules_.sendsBeforeArming && rules_.armsAfterEachPass && !worker.drained.empty()) {
        beginDrained(worker);
    } else {
        worker.step = WorkerStep::release;
    }
}

void Stepper::beginDrained(Worker& worker) const {
    worker.step =
        rules_.takesArmingBeforeEndingClaim ? WorkerStep::takeArming : WorkerStep::endClaim;
}

/// Fails if the socket was armed since the receive call.
void Stepper::takeArming(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    const std::uint8_t index = worker.drained.items.front();
    std::uint8_t& armings = next.endpoints.at(index).armings;
    const bool taken = !rules_.armsOnce || armings == worker.drainedArmings.items.front();
    if (taken) {
        ++armings;
        worker.toArm.push(index);
    }
    if (taken && rules_.takesArmingBeforeEndingClaim && rules_.endsClaimBeforeArming &&
        rules_.claimsUntilSent) {
        worker.step = WorkerStep::endClaim;
    } else {
        nextDrained(next, who);
    }
}

void Stepper::endClaim(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    next.endpoints.at(worker.drained.items.front()).server = noOne;
    if (rules_.takesArmingBeforeEndingClaim) {
        nextDrained(next, who);
    } else {
        worker.step = WorkerStep::takeArming;
    }
}

void Stepper::nextDrained(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    worker.drainedArmings.pop();
    disposeIfFree(next, worker.drained.pop());
    if (!worker.drained.empty()) {
        beginDrained(worker);
    } else if (!worker.toArm.empty()) {
        worker.step = WorkerStep::requestArming;
    } else {
        afterArming(worker);
    }
}

void Stepper::requestArming(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).toArm.items.front();
    const auto goOn = [this, who](State& next) {
        if (rules_.endsClaimBeforeArming) {
            nextToArm(next, who);
        } else {
            next.workers.at(who).step = WorkerStep::endClaimLate;
        }
    };
    if (channelHasRoom()) {
        add("worker requests the arming of a drained socket", [&](State& next) {
            next.channel.push({Op::rearm, next.endpoints.at(index).readNumber, index});
            goOn(next);
        });
    }
    mayFail("worker's request fails for now", [&](State& next) {
        if (rules_.triesAgain) {
            next.workers.at(who).refused.push(index);
        }
        goOn(next);
    });
    mayFail("worker's request fails and it removes the endpoint", [&](State& next) {
        next.endpoints.at(index).filed = false;
        goOn(next);
    });
}

void Stepper::nextToArm(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    disposeIfFree(next, worker.toArm.pop());
    if (worker.toArm.empty()) {
        afterArming(worker);
    } else {
        worker.step = WorkerStep::requestArming;
    }
}

void Stepper::afterArming(Worker& worker) const {
    worker.step = rules_.sendsBeforeArming ? WorkerStep::release : WorkerStep::sendReplies;
}

void Stepper::retryRefused(std::size_t who) {
    const std::uint8_t index = from_.workers.at(who).refused.items.front();
    const auto letRefusedGo = [this, who](State& next) {
        disposeIfFree(next, next.workers.at(who).refused.pop());
    };
    if (!from_.endpoints.at(index).filed) {
        add("worker forgets a refused socket that was removed", letRefusedGo);
    } else if (channelHasRoom()) {
        add("worker retries the arming of a refused socket", [&](State& next) {
            next.channel.push({Op::rearm, next.endpoints.at(index).readNumber, index});
            letRefusedGo(next);
        });
    }
}

/// `all`: also the endpoints of sockets that the worker will serve again.
void Stepper::release(State& next, std::size_t who, bool all) const {
    for (std::uint8_t i = 0; i < maxEndpoints; ++i) {
        Hold& hold = next.workers.at(who).holds.at(i);
        if (hold == Hold::ended || (all && hold == Hold::again)) {
            hold = Hold::none;
            disposeIfFree(next, i);
        }
    }
    next.workers.at(who).step = WorkerStep::idle;
}

}  // namespace vesk::model
