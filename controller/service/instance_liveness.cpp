// Detects a forwarder that no longer answers. The loop is in supervisor.cpp.
#include <csignal>
#include <string>

#include "service/instance.h"

namespace vesk::controller {

/// None while the forwarder drains and ends: GracefulShutdown has the deadlines then.
Deadline Instance::answerDue() const {
    if (!session_ || endStatus_ || hung_ || !running()) {
        return std::nullopt;
    }
    return session_->watch().due(wanted_.supervision.answer);
}

void Instance::watchForwarder() {
    Deadline deadline = answerDue();
    if (!due(deadline)) {
        return;
    }
    // Output may have arrived since poll(2) returned.
    read();
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

/// SIGKILL at once: a stopped process handles no other signal.
void Instance::endHungForwarder() {
    hung_ = true;
    log_.say(LogLevel::error, "no output from the forwarder for " +
                                  std::to_string(wanted_.supervision.answer.count()) +
                                  " s while handling the command for " +
                                  session_->current()->subject + ": killing it");
    tellStatus("The forwarder hangs and is being killed");
    if (metrics_ != nullptr) {
        metrics_->childUp(false, identity_.child);
    }
    session_->signal(SIGKILL);
}

}  // namespace vesk::controller
