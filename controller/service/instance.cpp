#include "service/instance.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "commands/command_lines.h"
#include "config/key_mask.h"
#include "service/listener_remedy.h"
#include "service/program_path.h"

namespace vesk::controller {

namespace {

/// Precedes the lines of an instance; empty if there is only one.
std::string prefixOf(const InstanceSurroundings& surroundings, std::size_t number) {
    return surroundings.instances > 1 ? "instance " + std::to_string(number) + ": " : "";
}

}  // namespace

Instance::Instance(const InstanceSurroundings& surroundings, InstanceIdentity identity,
                   Configuration wanted, InstanceRole role)
    : surroundings_(surroundings),
      metrics_(surroundings.metrics),
      identity_(identity),
      role_(role),
      log_(surroundings.log, prefixOf(surroundings, identity.number)),
      wanted_(std::move(wanted)),
      kernelWatch_("/proc", surroundings.instances),
      restartPause_(firstPause()),
      listenPause_(restartPause_) {
    rotationTraffic_.take(wanted_.flows);
}

// ---- One turn of the loop. ----

std::array<pollfd, Instance::watchedDescriptors> Instance::watched() const {
    const bool reading = session_ && !session_->outputEnded();
    return {{{reading ? session_->output() : -1, POLLIN, 0},
             {session_ && session_->wantsToWrite() ? session_->input() : -1, POLLOUT, 0},
             {session_ && !endStatus_ ? session_->end() : -1, POLLIN, 0}}};
}

Deadline Instance::dueAt() const {
    if (roundComplete()) {
        return Clock::now();
    }
    return nearestOf(
        {startAgainAt_, listenAgainAt_, reportClock_.dueAt(), shutdown_.dueAt(), answerDue()});
}

void Instance::read() {
    for (const OutputEvent& event : session_->read()) {
        handle(event);
    }
}

void Instance::reap() {
    if (session_ && !endStatus_) {
        endStatus_ = session_->reap();
    }
}

bool Instance::handleEnd() {
    if (!endStatus_ || !session_->outputEnded()) {
        return false;
    }
    forwarderEnded();
    return true;
}

void Instance::handleTime() {
    if (due(startAgainAt_)) {
        startAgain();
    }
    if (due(listenAgainAt_)) {
        listenAgain();
    }
    watchForwarder();
    if (reportClock_.due(Clock::now())) {
        askForReport();
    }
    if (session_) {
        carryOut(shutdown_.goOn(Clock::now()));
    }
}

void Instance::write() {
    if (session_) {
        session_->write();
    }
}

// ---- Start and end of the forwarder. ----

bool Instance::start() {
    const std::string program =
        programPath(surroundings_.options.program, wanted_.forwarder.program, ownFolder());
    try {
        session_.emplace(program, programArguments(wanted_.forwarder),
                         programEnvironment(wanted_.forwarder));
    } catch (const std::system_error& error) {
        const bool full = error.code() == std::errc::too_many_files_open;
        log_.say(LogLevel::error,
                 "cannot run " + maskKeyDigits(program) + ": " +
                     (full ? std::string(noDescriptorsLeft) : error.code().message()));
        return false;
    }
    log_.say(LogLevel::info,
             "started " + maskKeyDigits(program) + ", process " + std::to_string(session_->pid()));
    if (surroundings_.steered) {
        kept_.emplace(surroundings_.notification, keptPlace(), *session_);
    }
    round_ = Round::replay;
    reportClock_.reset();
    flowDescriptors_.clear();
    rotationTraffic_.restart();
    publishStage(Stage::settingUp);
    sendAll(deployment_.begin(wanted_));
    if (metrics_ != nullptr) {
        metrics_->childUp(true, identity_.child);
    }
    return true;
}

void Instance::startAgain() {
    if (!start()) {
        pauseAfter(Clock::duration::zero());
        return;
    }
    if (metrics_ != nullptr) {
        metrics_->countRestart(identity_.child);
    }
}

RestartPause Instance::firstPause() const {
    return {wanted_.supervision.restartPause, wanted_.supervision.restartPauseMax};
}

void Instance::pauseAfter(Clock::duration lived) {
    const std::chrono::milliseconds pause = restartPause_.after(lived);
    startAgainAt_ = Clock::now() + pause;
    log_.say(LogLevel::warn,
             "starts the forwarder again in " + std::to_string(pause.count()) + " ms");
    tellStatus("The forwarder ended and will be started again");
}

void Instance::tellStatus(std::string_view status) const {
    surroundings_.notification.status(log_.prefix() + std::string(status));
}

void Instance::forwarderEnded() {
    const int status = *std::exchange(endStatus_, std::nullopt);
    const Command* const current = session_->current();
    const Clock::duration lived = session_->age();
    const bool good = controller::endedWell(status) && !running() && !shutdown_.draining();
    std::string text = "the forwarder " + describeEnd(status);
    if (running() && current != nullptr) {
        text += " while handling the command for " + describe(*current);
    }
    log_.say(good ? LogLevel::info : LogLevel::error, text);
    kept_.reset();
    session_.reset();
    adopted_ = false;
    hung_ = false;
    reportClock_.stop();
    listenAgainAt_.reset();
    if (metrics_ != nullptr) {
        metrics_->childUp(false, identity_.child);
    }
    if (running() && role_ == InstanceRole::kept) {
        pauseAfter(lived);
        return;
    }
    endedWell_ = good;
    ended_ = true;
}

}  // namespace vesk::controller
