#include "service/graceful_shutdown.h"

#include <utility>

namespace vesk::controller {

GracefulShutdown::Step GracefulShutdown::ask(std::chrono::seconds drain, Clock::time_point now) {
    if (draining() || (!begun() && drain == std::chrono::seconds::zero())) {
        return closeInput(now);
    }
    if (!begun()) {
        phase_ = Phase::draining;
        dueAt_ = now + drain;
    }
    return {};
}

GracefulShutdown::Step GracefulShutdown::observe(std::vector<std::uint64_t> counters,
                                                 Clock::time_point now) {
    if (draining() && standstill_.observe(std::move(counters), now)) {
        return closeInput(now);
    }
    return {};
}

GracefulShutdown::Step GracefulShutdown::goOn(Clock::time_point now) {
    if (!dueAt_ || now < *dueAt_) {
        return {};
    }
    switch (phase_) {
        case Phase::draining:
            return closeInput(now, standstill_.observed()
                                       ? "the drain time is over, but there is still traffic"
                                       : "the drain time is over, and no report has arrived");
        case Phase::closing:
            phase_ = Phase::terminating;
            dueAt_ = now + signalPatience;
            return {Action::terminate, "the forwarder does not end: sending SIGTERM"};
        case Phase::terminating:
            phase_ = Phase::killing;
            dueAt_.reset();
            return {Action::kill, "the forwarder still does not end: sending SIGKILL"};
        case Phase::notBegun:
        case Phase::killing:
            break;
    }
    return {};
}

GracefulShutdown::Step GracefulShutdown::closeInput(Clock::time_point now,
                                                    std::string_view reason) {
    phase_ = Phase::closing;
    dueAt_ = now + endPatience;
    return {Action::closeInput, reason};
}

}  // namespace vesk::controller
