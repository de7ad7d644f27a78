// The rounds of commands of an instance: what it reports at the end of each, and how it tries
// refused listeners again. The loop is in supervisor.cpp.
#include <string>
#include <utility>

#include "service/instance.h"
#include "service/listener_remedy.h"
#include "service/plural_text.h"

namespace vesk::controller {

bool Instance::roundComplete() const {
    return round_ != Round::none && session_ && session_->unanswered() == 0;
}

Instance::Round Instance::finishRound() {
    if (!roundComplete()) {
        return Round::none;
    }
    const Round finished = std::exchange(round_, Round::none);
    publishFlows();
    if (finished == Round::replay) {
        log_.say(LogLevel::info, "the forwarder is set up: " + summary());
    } else if (finished == Round::reload && !isOneOfSeveral()) {
        log_.say(LogLevel::info, "reloaded: " + summary());
    } else if (finished == Round::listen && deployment_.listensEverywhere()) {
        log_.say(LogLevel::info, "the forwarder listens: " + summary());
    }
    if (running()) {
        publishStage(Stage::settled);
        reportClock_.start(Clock::now());
        planListening();
    }
    return finished;
}

void Instance::noteListener(const Outcome& outcome) {
    const std::string& word = outcome.command.word;
    if (word == "start") {
        noteStart(outcome);
    } else if (word == "start_lateral" && !outcome.errors.empty()) {
        log_.say(LogLevel::error, cannotListen(outcome.command, outcome.errors.front()));
    }
    publishListening();
}

void Instance::planListening() {
    if (deployment_.listensEverywhere()) {
        listenAgainAt_.reset();
        listenPause_ = firstPause();
        return;
    }
    const std::chrono::milliseconds pause = listenPause_.after(Clock::duration::zero());
    listenAgainAt_ = Clock::now() + pause;
    log_.say(LogLevel::warn, "tries to listen again in " + std::to_string(pause.count()) + " ms");
}

/// Does nothing while commands are outstanding: finishRound() plans the next attempt.
void Instance::listenAgain() {
    if (session_ && round_ == Round::none) {
        round_ = Round::listen;
        sendAll(deployment_.listenAgain());
    }
}

std::string Instance::summary() const {
    std::string text = countOf(deployment_.acceptedFlows(), "flow");
    if (const std::size_t refused = deployment_.refusals().flows.size(); refused > 0) {
        text += ", " + std::to_string(refused) + " refused";
    }
    return text + listenerTroubles();
}

std::string Instance::listenerTroubles() const {
    std::string text;
    if (deployment_.refusals().downstream) {
        text += ", not listening";
    }
    if (deployment_.refusals().lateral) {
        text += ", without lateral stream";
    }
    return text;
}

void Instance::publishFlows() {
    if (metrics_ != nullptr) {
        metrics_->setFlows(deployment_.declaredFlows(), deployment_.acceptedFlows(),
                           identity_.child);
        metrics_->setSharedFlows(deployment_.sharedFlows(), identity_.child);
    }
    publishListening();
}

void Instance::publishListening() {
    if (metrics_ != nullptr) {
        metrics_->setListening(deployment_.listening(), deployment_.lateralListening(),
                               identity_.child);
    }
}

void Instance::publishStage(Stage stage) {
    if (metrics_ != nullptr) {
        metrics_->setStage(stage, identity_.child);
    }
}

}  // namespace vesk::controller
