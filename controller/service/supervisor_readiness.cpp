// Reports to the log, the service manager and the metrics whether the service is ready, and tries
// refused listeners again. The loop is in supervisor.cpp.
#include <string>
#include <utility>

#include "service/listener_remedy.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::finishRound() {
    const Round finished = std::exchange(round_, Round::none);
    publishFlows();
    countReload();
    if (finished == Round::replay) {
        log_.say(LogLevel::info, "the forwarder is set up: " + summary());
    } else if (finished == Round::reload) {
        log_.say(LogLevel::info, "reloaded: " + summary());
    } else if (deployment_.listensEverywhere()) {
        log_.say(LogLevel::info, "the forwarder listens: " + summary());
    }
    if (!running()) {
        return;
    }
    publishStage(Stage::settled);
    reportClock_.start(Clock::now());
    planListening();
    if (deployment_.listensEverywhere()) {
        ready_ = true;
        reloadTold_ = false;
        notification_.ready(summary());
    } else {
        tellReloaded(summary());
    }
}

/// The service manager expects READY=1 at the end of a reload, successful or not. At the start,
/// however, READY=1 is sent only once the forwarder listens.
void Supervisor::tellReloaded(std::string_view status) {
    if (std::exchange(reloadTold_, false)) {
        notification_.ready(status);
    } else {
        notification_.status(status);
    }
}

void Supervisor::noteListener(const Outcome& outcome) {
    const std::string& word = outcome.command.word;
    if (word == "start") {
        noteStart(outcome);
    } else if (word == "start_lateral" && !outcome.errors.empty()) {
        log_.say(LogLevel::error, cannotListen(outcome.command, outcome.errors.front()));
    }
    publishListening();
}

void Supervisor::planListening() {
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
void Supervisor::listenAgain() {
    if (session_ && round_ == Round::none) {
        round_ = Round::listen;
        sendAll(deployment_.listenAgain());
    }
}

std::string Supervisor::summary() const {
    std::string text = countOf(deployment_.acceptedFlows(), "flow");
    if (const std::size_t refused = deployment_.refusals().flows.size(); refused > 0) {
        text += ", " + std::to_string(refused) + " refused";
    }
    if (deployment_.refusals().downstream) {
        text += ", not listening";
    }
    if (deployment_.refusals().lateral) {
        text += ", without lateral stream";
    }
    return text;
}

}  // namespace vesk::controller
