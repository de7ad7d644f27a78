// The steps of a receive worker for a socket that it has drained.
#include "arming_steps.h"

namespace vesk::model {

void Stepper::giveBack(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    Endpoint& endpoint = next.endpoints.at(worker.endpoint);
    const bool wanted = endpoint.serving == Serving::moreWanted && rules_.heedsOtherWorker;
    endpoint.serving = Serving::nobody;
    if (!rules_.givesBackBeforeArming) {
        finish(worker, wanted);
    } else if (worker.outcome == Outcome::passingFailure) {
        finish(worker, true);
    } else if (worker.outcome == Outcome::lastingFailure) {
        endpoint.filed = false;
        finish(worker, false);
    } else if (wanted) {
        finish(worker, true);
    } else if (worker.outcome == Outcome::refused && !rules_.armsAfterRefusedReceive) {
        finish(worker, false);
    } else {
        worker.drained.push(worker.endpoint);
        worker.drainedArmings.push(worker.armings);
        finish(worker, false);
    }
}

/// The order that the forwarder does not use.
void Stepper::armClaimed(std::size_t who) {
    if (channelHasRoom()) {
        add("worker requests the arming of the claimed socket", [who](State& next) {
            Worker& worker = next.workers.at(who);
            next.channel.push({Op::rearm, worker.number, worker.endpoint});
            worker.step = WorkerStep::giveBack;
        });
    }
}

void Stepper::armDrained(std::size_t who) {
    const Worker& worker = from_.workers.at(who);
    const std::uint8_t index = worker.drained.items.at(worker.armed);
    const std::uint8_t number = from_.endpoints.at(index).readNumber;
    const auto goOn = [who](State& next) {
        Worker& it = next.workers.at(who);
        if (++it.armed == it.drained.size) {
            it.step = WorkerStep::releaseDrained;
        }
    };
    const std::uint8_t armings = worker.drainedArmings.items.at(worker.armed);
    if (rules_.armsOnce && from_.endpoints.at(index).armings != armings) {
        add("worker finds a drained socket already armed", goOn);
        return;
    }
    if (channelHasRoom()) {
        add("worker requests the arming of a drained socket", [&](State& next) {
            ++next.endpoints.at(index).armings;
            next.channel.push({Op::rearm, number, index});
            goOn(next);
        });
    }
    mayFail("worker's request fails for now", [&](State& next) {
        ++next.endpoints.at(index).armings;
        if (rules_.triesAgain) {
            next.workers.at(who).refused.push(index);
        }
        goOn(next);
    });
    mayFail("worker's request fails and it removes the endpoint", [&](State& next) {
        ++next.endpoints.at(index).armings;
        next.endpoints.at(index).filed = false;
        goOn(next);
    });
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

void Stepper::releaseDrained(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    worker.drainedArmings.pop();
    disposeIfFree(next, worker.drained.pop());
    if (--worker.armed == 0) {
        worker.step = WorkerStep::idle;
    }
}

void Stepper::release(State& next, std::size_t who) const {
    Worker& worker = next.workers.at(who);
    if (worker.endpoint != noOne) {
        letGo(next, worker.endpoint);
    }
    if (worker.keep) {
        worker.serving.push(worker.number);
    }
    worker.keep = false;
    worker.number = 0;
    worker.step = WorkerStep::idle;
}

}  // namespace vesk::model
