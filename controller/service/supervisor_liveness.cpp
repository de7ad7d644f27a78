// Whether the forwarder still answers, and what the service manager is told of the controller
// itself. The loop is in supervisor.cpp.
#include <csignal>
#include <string>

#include "service/supervisor.h"

namespace vesk::controller {

/// While it drains and ends, other deadlines hold.
Supervisor::Deadline Supervisor::answerDue() const {
    if (!session_ || endStatus_ || hung_ || !running()) {
        return std::nullopt;
    }
    return session_->watch().due(wanted_.supervision.answer);
}

void Supervisor::watchForwarder() {
    Deadline deadline = answerDue();
    if (!due(deadline)) {
        return;
    }
    // It may have spoken since the descriptors were looked at.
    readForwarder();
    switch (session_->judge(wanted_.supervision.answer)) {
        case AnswerWatch::Verdict::waiting:
            break;
        case AnswerWatch::Verdict::ask:
            session_->sendFence();
            break;
        case AnswerWatch::Verdict::hung:
            endHungForwarder();
            break;
    }
}

/// Killed at once: a process that is stopped does not take any other signal.
void Supervisor::endHungForwarder() {
    hung_ = true;
    log_.say(LogLevel::error, "the forwarder has not said anything for " +
                                  std::to_string(wanted_.supervision.answer.count()) +
                                  " s, at work on " + session_->current()->subject +
                                  ": killing it");
    notification_.status("The forwarder hangs and is killed");
    if (metrics_) {
        metrics_->childUp(false);
    }
    session_->signal(SIGKILL);
}

void Supervisor::answerWatchdog() {
    notification_.alive();
    aliveAt_ = Clock::now() + *notification_.watchdogInterval() / 2;
}

}  // namespace vesk::controller
